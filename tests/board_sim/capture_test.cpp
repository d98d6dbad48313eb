// Capture files: every field survives a write and read back, and damage is reported.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>

#include "sim_internal.h"
#include "sim_test_util.h"

using namespace qvboardsim;
using namespace qvbs_test;

namespace {

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

} // namespace
