// Capture: what the client put into the buffers is what the capture holds,
// in memory and through a file round trip.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>

#include "sim_internal.h"
#include "sim_test_util.h"

using namespace qvboardsim;
using namespace qvbs_test;

namespace {

// Packed 10-bit UYVY, written out from the layout description (not shared
// with the simulator's unpacker).
void pack10(const uint16_t* s, size_t groups, uint8_t* d)
{
    for (size_t g = 0; g < groups; ++g, s += 4, d += 5) {
        uint32_t w = (s[0] & 0x3FFu) | (s[1] & 0x3FFu) << 10 | (s[2] & 0x3FFu) << 20 |
                     (s[3] & 0x3u) << 30;
        d[0] = uint8_t(w);
        d[1] = uint8_t(w >> 8);
        d[2] = uint8_t(w >> 16);
        d[3] = uint8_t(w >> 24);
        d[4] = uint8_t((s[3] & 0x3FFu) >> 2);
    }
}

CapturedFrame random_frame(std::mt19937& rng, uint64_t index, bool audio)
{
    CapturedFrame f;
    f.index = index;
    f.sequence = uint32_t(index + 1);
    f.field = V4L2_FIELD_TOP;
    f.flags = V4L2_BUF_FLAG_TIMECODE;
    f.tc_type = V4L2_TC_TYPE_25FPS;
    f.tc_frames = 24;
    f.tc_seconds = 59;
    f.tc_minutes = 59;
    f.tc_hours = 23;
    f.hw_time = rng();
    f.sys_ns = (uint64_t(rng()) << 32) | rng();
    f.pic_width = 64;
    f.pic_lines = 4;
    f.picture.resize(64 * 2 * 4);
    for (auto& b : f.picture)
        b = uint8_t(rng());
    f.vbi_lines = 2;
    f.vbi_samples = 128;
    f.vbi.resize(256);
    for (auto& s : f.vbi)
        s = uint16_t(rng() & 0x3FF);
    if (audio) {
        f.audio_channels = 8;
        f.audio_samples = 10;
        f.audio.resize(80);
        for (auto& w : f.audio)
            w = rng() & 0xFFFFFF;
    }
    f.has_payload = true;
    compute_summary(f);
    return f;
}

std::string temp_name()
{
    char name[] = "/tmp/qvbs-capture-XXXXXX";
    int fd = mkstemp(name);
    close(fd);
    return name;
}

TEST(CaptureFile, RoundTripKeepsEveryField)
{
    for (bool summary : {false, true}) {
        std::mt19937 rng(summary ? 7 : 3);
        std::vector<CapturedFrame> frames;
        for (uint64_t i = 0; i < 5; ++i)
            frames.push_back(random_frame(rng, i, i % 2 == 0));
        const std::string file = temp_name();
        CaptureHeader h;
        h.kind = 1;
        h.width = 1920;
        h.height = 1080;
        h.interlaced = true;
        h.rate_num = 25;
        h.rate_den = 1;
        h.summary_only = summary;
        h.path = "/dev/qvsim-video1";
        {
            CaptureWriter w;
            ASSERT_TRUE(w.open(file, h));
            for (auto& f : frames)
                ASSERT_TRUE(w.write(f));
        }
        CaptureReader r;
        ASSERT_TRUE(r.open(file));
        EXPECT_EQ(r.header().path, h.path);
        EXPECT_EQ(r.header().width, 1920u);
        EXPECT_TRUE(r.header().interlaced);
        EXPECT_EQ(r.header().summary_only, summary);
        CapturedFrame g;
        for (const CapturedFrame& f : frames) {
            ASSERT_TRUE(r.next(g)) << r.error();
            EXPECT_EQ(g.index, f.index);
            EXPECT_EQ(g.sequence, f.sequence);
            EXPECT_EQ(g.tc_hours, 23);
            EXPECT_EQ(g.tc_frames, 24);
            EXPECT_EQ(g.hw_time, f.hw_time);
            EXPECT_EQ(g.sys_ns, f.sys_ns);
            EXPECT_EQ(g.pic_crc, f.pic_crc);
            EXPECT_EQ(g.vbi_crc, f.vbi_crc);
            EXPECT_EQ(g.audio_crc, f.audio_crc);
            EXPECT_EQ(std::memcmp(g.audio_peak, f.audio_peak, sizeof f.audio_peak), 0);
            EXPECT_EQ(g.has_payload, !summary);
            if (!summary) {
                EXPECT_EQ(g.picture, f.picture);
                EXPECT_EQ(g.vbi, f.vbi);
                EXPECT_EQ(g.audio, f.audio);
            }
        }
        EXPECT_FALSE(r.next(g));
        EXPECT_TRUE(r.error().empty());
        // A file cut in the middle of a record is reported, not misread.
        ASSERT_EQ(truncate(file.c_str(), 100), 0);
        CaptureReader cut;
        ASSERT_TRUE(cut.open(file));
        EXPECT_FALSE(cut.next(g));
        EXPECT_FALSE(cut.error().empty());
        unlink(file.c_str());
    }
}

TEST(CaptureSummary, PeaksAreTakenPerChannelOnSignedSamples)
{
    CapturedFrame f;
    f.audio_channels = 4;
    f.audio = {0x000100, 0xFFFFFF, 0x7FFFFF, 0x800000, // ch0 256, ch1 -1, ch2 max, ch3 min
               0xFFFF00, 0x000002, 0x000000, 0x000001};
    compute_summary(f);
    EXPECT_EQ(f.audio_peak[0], 256u);
    EXPECT_EQ(f.audio_peak[1], 2u);
    EXPECT_EQ(f.audio_peak[2], 0x7FFFFFu);
    EXPECT_EQ(f.audio_peak[3], 0x800000u);
}

TEST(CaptureFromBoard, MultiPlaneBufferIsDecodedAsTheDeviceWroteIt)
{
    BoardConfig cfg = board(NodeKind::multi_plane, 4, Pacing::stepped, "capmp"); // 1080p50
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    ASSERT_EQ(set_ctrl(c.fd(), V4L2_CID_JUTVANE_AUDIO_GROUPS, 2), 0); // 8 channels
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, 3), 3);
    ASSERT_EQ(c.streamon(), 0);

    const uint32_t width = 1920, vbi_lines = 41; // vsync + vbackporch of 1080p
    const size_t vbi_bytes = width * 20 * vbi_lines / 8;
    const size_t pic_bytes = size_t(width) * 2 * 1080;
    ASSERT_GE(c.plane_len(0, 0), vbi_bytes + pic_bytes);
    std::vector<uint16_t> vbi(size_t(vbi_lines) * width * 2);
    for (size_t i = 0; i < vbi.size(); ++i)
        vbi[i] = uint16_t((i * 37) & 0x3FF);
    pack10(vbi.data(), vbi.size() / 4, c.plane(0, 0));
    for (size_t i = 0; i < pic_bytes; ++i)
        c.plane(0, 0)[vbi_bytes + i] = uint8_t(i * 13);
    const uint32_t samples = 960;
    auto* audio = reinterpret_cast<uint32_t*>(c.plane(0, 1));
    for (uint32_t s = 0; s < samples * 8; ++s)
        audio[s] = (s % 8 == 3) ? 0x00123400u : 0x00FFFF00u; // ch3 0x1234 << 8, others -256
    v4l2_timecode tc{};
    tc.hours = 10;
    tc.minutes = 20;
    tc.seconds = 30;
    tc.frames = 40;
    tc.type = V4L2_TC_TYPE_50FPS;
    ASSERT_EQ(c.qbuf(0, uint32_t(vbi_bytes + pic_bytes), samples * 8 * 4, V4L2_BUF_FLAG_TIMECODE, &tc),
              0);
    sim.step(cfg.video_path, 1);

    auto frames = sim.captured(cfg.video_path);
    ASSERT_EQ(frames.size(), 1u);
    const CapturedFrame& f = frames[0];
    EXPECT_EQ(f.sequence, 0u);
    EXPECT_EQ(f.field, uint32_t(V4L2_FIELD_NONE));
    EXPECT_TRUE(f.flags & V4L2_BUF_FLAG_TIMECODE);
    EXPECT_EQ(f.tc_hours, 10);
    EXPECT_EQ(f.tc_frames, 40);
    EXPECT_EQ(f.tc_type, uint32_t(V4L2_TC_TYPE_50FPS));
    EXPECT_EQ(f.vbi_lines, vbi_lines);
    EXPECT_EQ(f.vbi, vbi);
    ASSERT_EQ(f.picture.size(), pic_bytes);
    EXPECT_EQ(std::memcmp(f.picture.data(), c.plane(0, 0) + vbi_bytes, pic_bytes), 0);
    EXPECT_EQ(f.audio_channels, 8u);
    EXPECT_EQ(f.audio_samples, samples);
    EXPECT_EQ(f.audio_peak[3], 0x123400u);
    EXPECT_EQ(f.audio_peak[0], 256u);
}

TEST(CaptureFromBoard, SinglePlanePairsTheVbiBufferOfTheSameFrame)
{
    BoardConfig cfg = board(NodeKind::single_plane, 0, Pacing::stepped, "capsp"); // 576i
    cfg.capture.every = 2;
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    std::string vbi_path = cfg.video_path;
    vbi_path.replace(vbi_path.find("video"), 5, "vbi");
    Client video(cfg.video_path, true);
    Client vbi(vbi_path, true);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VBI_OUTPUT;
    ASSERT_EQ(ioctl(vbi.fd(), VIDIOC_G_FMT, &f), 0);
    EXPECT_EQ(f.fmt.vbi.count[0], 22u);
    EXPECT_EQ(f.fmt.vbi.count[1], 23u);
    EXPECT_EQ(f.fmt.vbi.samples_per_line, 1440u);
    EXPECT_EQ(f.fmt.vbi.start[1], 313);
    ASSERT_EQ(vbi.setup(V4L2_BUF_TYPE_VBI_OUTPUT, 4), 4);
    ASSERT_EQ(video.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 4), 4);
    ASSERT_EQ(vbi.streamon(), 0);
    ASSERT_EQ(video.streamon(), 0);
    for (uint32_t i = 0; i < 4; ++i) {
        std::memset(video.plane(i, 0), int(0x10 + i), video.plane_len(i, 0));
        auto* s = reinterpret_cast<uint16_t*>(vbi.plane(i, 0));
        for (size_t k = 0; k < 45 * 1440; ++k)
            s[k] = uint16_t(0x100 + i);
        ASSERT_EQ(vbi.qbuf(i), 0);
        ASSERT_EQ(video.qbuf(i), 0);
    }
    sim.step(cfg.video_path, 4);
    auto frames = sim.captured(cfg.video_path);
    ASSERT_EQ(frames.size(), 2u); // every 2nd frame
    for (size_t n = 0; n < 2; ++n) {
        const uint32_t i = uint32_t(n * 2);
        EXPECT_EQ(frames[n].index, i);
        EXPECT_EQ(frames[n].picture.front(), 0x10 + i);
        EXPECT_EQ(frames[n].vbi_lines, 45u);
        ASSERT_EQ(frames[n].vbi.size(), 45u * 1440u);
        EXPECT_EQ(frames[n].vbi.back(), 0x100 + i);
    }
}

} // namespace

namespace {

TEST(CaptureFromBoard, SummaryOnlyKeepsChecksumsWithoutPayload)
{
    BoardConfig cfg = board(NodeKind::single_plane, 19, Pacing::stepped, "capsum"); // 2160p60
    cfg.capture.summary = true;
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 2), 2);
    ASSERT_EQ(c.streamon(), 0);
    const size_t pic = size_t(3840) * 2 * 2160;
    for (size_t i = 0; i < pic; ++i)
        c.plane(0, 0)[i] = uint8_t(i ^ (i >> 9));
    ASSERT_EQ(c.qbuf(0), 0);
    sim.step(cfg.video_path, 1);
    auto frames = sim.captured(cfg.video_path);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_FALSE(frames[0].has_payload);
    EXPECT_TRUE(frames[0].picture.empty());
    EXPECT_EQ(frames[0].pic_crc, picture_crc(c.plane(0, 0), pic));
    EXPECT_NE(frames[0].pic_crc, 0u);
}

} // namespace
