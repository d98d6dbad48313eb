// The FIFO engine: feeds as a live source produces them, the overall state
// and its messages, time shifting through the smoothing loop.
#include "qv_fifo_engine.h"

#include "fifo_test_util.h"
#include "../common/print_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

using fifo_test::number_of;
using fifo_test::numbered_uyvy;
using QVSDK::QVImage;
using QVSDK::QVSound;
using QVSDK::QVSoundFormat;

namespace {

constexpr uint64_t kFrame = 40000000; // ns at 25 frames per second
constexpr size_t kDepth = 10;

QVSound line_sound(uint16_t channels, int16_t value, size_t frames = 1920)
{
    QVSound s;
    s.init(frames * 2 * channels, QVSoundFormat(0, 48000, 16, channels));
    auto* p = reinterpret_cast<int16_t*>(s.data());
    for (size_t i = 0; i < frames * channels; ++i)
        p[i] = static_cast<int16_t>(value + static_cast<int16_t>(i % channels));
    return s;
}

class FifoEngine : public ::testing::Test {
protected:
    FifoEngine() : engine(stats, alarms) {}

    void set_up(unsigned lines, uint16_t channels = 2)
    {
        engine.create_video_stream(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(fifo_test::kW, fifo_test::kH),
                                   QVSDK::FieldOrder_Upper_First);
        engine.create_sound_stream(lines, QVSoundFormat(0, 48000, 16, channels));
        engine.create_teletext_stream(25.0f);
        engine.create_scte104_stream(25.0f);
        engine.create_vbi_stream(25.0f);
        engine.alloc_fifo(kDepth);
    }
    int add_video(uint64_t n, uint64_t hw = 0)
    {
        return engine.add_video_frame(n * kFrame, (n + 1) * kFrame, n * kFrame, hw, numbered_uyvy(uint8_t(n)), 0);
    }
    int map(unsigned frame)
    {
        teletext.clear();
        scte104.clear();
        return engine.map_next_data(frame, image, sound, teletext, scte104);
    }

    qv_renderer_statistics stats;
    qv_alarms_dispatcher alarms;
    qv_fifo_engine engine;
    QVImage image;
    QVSound sound;
    std::vector<uint8_t> teletext, scte104;
};

} // namespace

TEST_F(FifoEngine, WideLinesContributeOnlyTheirFirstPair)
{
    set_up(2, 6);
    ASSERT_EQ(add_video(0), 1);
    ASSERT_TRUE(engine.add_audio_frame(0, 0, kFrame, 0, line_sound(6, 10)));
    ASSERT_TRUE(engine.add_audio_frame(1, 0, kFrame, 0, line_sound(6, 20)));
    ASSERT_EQ(map(0), fifo_ok);
    ASSERT_EQ(sound.format().m_channel, 12);
    const auto* s = reinterpret_cast<const int16_t*>(sound.data());
    EXPECT_EQ((std::vector<int16_t>(s, s + 12)), (std::vector<int16_t>{10, 11, 20, 21, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(FifoEngine, OverflowLatchesUntilReset)
{
    set_up(1);
    print_capture console;
    for (uint64_t n = 0; n < kDepth; ++n)
        ASSERT_EQ(add_video(n), 1);
    EXPECT_EQ(add_video(kDepth), 0);
    EXPECT_EQ(engine.m_state, fifo_overflow);
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(console.lines()[0], "qv_jt_renderer: fifo overflow, video fifo overflow\n");

    // Producers keep adding; the consumer maps nothing and the video counters stay.
    EXPECT_TRUE(engine.add_audio_frame(0, 0, kFrame, 0, line_sound(2, 1)));
    EXPECT_EQ(map(0), fifo_overflow);
    EXPECT_EQ(stats.m_video.nRepeatedFrame + stats.m_video.nSkipFrame, 0u);
    EXPECT_EQ(engine.m_video_fifo.queued(), kDepth);

    engine.reset();
    EXPECT_EQ(engine.m_state, fifo_ok);
    EXPECT_EQ(engine.m_video_fifo.queued(), 0u);
    EXPECT_EQ(add_video(0), 1);
    EXPECT_EQ(engine.start(), 0);
    EXPECT_TRUE(engine.add_audio_frame(0, 0, kFrame, 0, line_sound(2, 1)));
    EXPECT_EQ(map(0), fifo_ok);
}

TEST_F(FifoEngine, UnderflowWhenTheFeedStops)
{
    set_up(0);
    for (uint64_t n = 0; n < 3; ++n)
        ASSERT_EQ(add_video(n), 1);
    EXPECT_EQ(engine.start(), 0);
    for (unsigned f = 0; f < 3; ++f)
        ASSERT_EQ(map(f), fifo_ok);
    print_capture console;
    EXPECT_EQ(map(3), fifo_underflow);
    EXPECT_EQ(number_of(image), 2); // the last picture is still handed out
    EXPECT_EQ(console.count_containing("qv_jt_renderer: [fifo empty] repeat render image"), 1u);
    EXPECT_EQ(console.count_containing("qv_jt_renderer: fifo underflow, video and audio fifo underflow"), 1u);
    EXPECT_EQ(map(4), fifo_underflow);
    EXPECT_EQ(stats.m_video.nRepeatedFrame, 1u);
}

TEST_F(FifoEngine, AudioWithoutInputOrAheadOfVideoIsSilenceNotAFailure)
{
    set_up(1);
    ASSERT_EQ(add_video(0), 1);
    // No audio at all: the line hands out a whole frame of silence.
    ASSERT_EQ(map(0), fifo_ok);
    EXPECT_EQ(sound.size(), 7680u);
    // The line's reader is ahead of the frame grid (time jumped back): silence again.
    engine.m_audio_fifo[0].m_render_pos = engine.m_audio_fifo[0].frame_to_pos(3);
    ASSERT_EQ(add_video(1), 1);
    print_capture console;
    EXPECT_EQ(map(1), fifo_ok);
    EXPECT_EQ(console.count_containing("fill silent because of position jump back"), 1u);
    const auto* s = reinterpret_cast<const int16_t*>(sound.data());
    EXPECT_TRUE(std::all_of(s, s + sound.size() / 2, [](int16_t v) { return v == 0; }));
}

TEST_F(FifoEngine, HardwareClockOneThousandPpmFastPullsStampsAhead)
{
    set_up(0);
    // Video drives the loop with a hardware time (100 ns units) 1000 ppm fast.
    ASSERT_EQ(add_video(0, 1), 1);
    ASSERT_EQ(engine.start(), 0);
    uint64_t lastLead = 0;
    for (uint64_t n = 1; n <= 2000; ++n) {
        const uint64_t hw = 1 + n * 400000 + n * 400;
        ASSERT_EQ(engine.add_video_frame(n * kFrame, (n + 1) * kFrame, n * kFrame, hw, numbered_uyvy(1), 0), 1);
        const uint64_t queuedStart = engine.m_video_fifo.m_nStartTime;
        EXPECT_EQ(engine.m_video_fifo.m_nStopTime - queuedStart, kFrame);
        if (n % 500 == 0) {
            EXPECT_GT(queuedStart, n * kFrame);
            EXPECT_GT(queuedStart - n * kFrame, lastLead);
            lastLead = queuedStart - n * kFrame;
        }
        QVImage img;
        engine.m_video_fifo.map_image(n, img); // keep slots free
    }
    EXPECT_GT(engine.m_pll.m_dRegulator, 0.0L);

    // Data streams move by the same regulator.
    const auto d = static_cast<uint64_t>(static_cast<int64_t>(engine.m_pll.m_dRegulator * 1e9L));
    engine.m_out_frame_index = 3000; // play-out has come this far
    uint8_t ttx = 1;
    ASSERT_EQ(engine.add_teletext_frame(3000 * kFrame, 3001 * kFrame, &ttx, 1), 1);
    EXPECT_EQ(engine.m_teletext_fifo.m_nStart, 3000 * kFrame + d);
}

TEST_F(FifoEngine, AudioDrivenLoopShiftsOnlyLineZero)
{
    set_up(2);
    engine.m_ePLLStream = pll_audio_stream;
    engine.start();
    // Line 0 seeds the loop and runs it with a fast hardware clock.
    for (uint64_t n = 0; n < 600; ++n)
        ASSERT_TRUE(engine.add_audio_frame(0, n * kFrame, (n + 1) * kFrame, 1 + n * 400400, line_sound(2, 1, 4)));
    ASSERT_NE(engine.m_pll.m_dRegulator, 0.0L);
    EXPECT_NE(engine.m_audio_fifo[0].m_ptsStart, 599 * kFrame);
    ASSERT_TRUE(engine.add_audio_frame(1, 599 * kFrame, 600 * kFrame, 0, line_sound(2, 1, 4)));
    EXPECT_EQ(engine.m_audio_fifo[1].m_ptsStart, 599 * kFrame);
    // Video follows the regulator in this mode.
    ASSERT_EQ(add_video(599), 1);
    EXPECT_NE(engine.m_video_fifo.m_nStartTime, 599 * kFrame);
}

TEST_F(FifoEngine, MalformedScte35IsAcceptedAndDropped)
{
    set_up(0);
    ASSERT_EQ(add_video(0), 1);
    uint8_t shortSection[] = {5, 0xFC, 0x30};
    EXPECT_EQ(engine.add_scte35_frame(shortSection, 3), 0); // shorter than its pointer field
    uint8_t garbage[] = {0, 0xFC, 0x30, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(engine.add_scte35_frame(garbage, sizeof garbage), 1);
    EXPECT_EQ(engine.add_scte35_frame(nullptr, 4), 0);
    uint8_t endsAtPointer[] = {2, 0xFC};
    EXPECT_EQ(engine.add_scte35_frame(endsAtPointer, 2), 1);
    EXPECT_EQ(engine.m_scte104_fifo.queued(), 0u);
}

namespace {

// SCTE-104 splice_request_data of a one-operation message: splice type and pre-roll (ms).
std::pair<int, int> splice_request_of(const std::vector<uint8_t>& m)
{
    if (m.size() < 25 || m[12] != 0x01 || m[13] != 0x01)
        return {-1, -1};
    return {m[16], m[23] << 8 | m[24]};
}

} // namespace

// Decoders set no DTS: SCTE messages then count from the newest picture's
// running time instead of being dropped; a demuxer's event that gives the
// splice in running time gets its pre-roll in running time, and the copies
// of one event that arrive on every pad are queued once.
TEST_F(FifoEngine, ScteWithoutDtsCountsInRunningTime)
{
    gsize n = 0;
    guchar* raw = g_base64_decode("/DAvAAAAAAAA///wFAVIAACPf+/+c2nALv4AUsz1AAAAAAAKAAhDVUVJAAABNWLbowo=", &n);
    const std::vector<uint8_t> section(raw, raw + n);
    g_free(raw);
    set_up(0);
    constexpr uint64_t kRunning = 100ull * 1000000000ull; // the pictures' running time at frame 0
    auto add_undated = [&](uint64_t f) {
        return engine.add_video_frame(f * kFrame, (f + 1) * kFrame, QV_TIME_NONE, 0, numbered_uyvy(uint8_t(f)), 0,
                                      kRunning + f * kFrame);
    };
    // The event's running-time map puts the splice 2.5 s after frame 1. Its
    // first copies come before any picture, then with only the stream's first
    // one: dropped, but not used up.
    const uint64_t splice = kRunning + kFrame + 2500000000ull;
    EXPECT_EQ(engine.add_scte35_section(section.data(), section.size(), splice, 7), 1);
    ASSERT_EQ(add_undated(0), 1);
    EXPECT_EQ(engine.add_scte35_section(section.data(), section.size(), splice, 7), 1);
    EXPECT_EQ(engine.m_scte104_fifo.queued(), 0u);
    ASSERT_EQ(add_undated(1), 1);

    uint8_t msg[] = {0xFF, 0xFF, 0x00, 0x05, 0x00};
    EXPECT_EQ(engine.add_scte104_frame(msg, sizeof msg), 1);
    EXPECT_EQ(engine.m_scte104_fifo.queued(), 1u) << "queued without a DTS";

    // The video pad's copy, after its pictures, is placed; any later copy is not.
    EXPECT_EQ(engine.add_scte35_section(section.data(), section.size(), splice, 7), 1);
    EXPECT_EQ(engine.add_scte35_section(section.data(), section.size(), splice, 7), 1); // same event, other pad
    ASSERT_EQ(engine.m_scte104_fifo.queued(), 2u);
    ASSERT_EQ(add_undated(2), 1);
    // A splice already due goes out with no pre-roll.
    EXPECT_EQ(engine.add_scte35_section(section.data(), section.size(), kRunning, 8), 1);
    ASSERT_EQ(engine.m_scte104_fifo.queued(), 3u);

    // Messages of one picture go out one a frame, from that picture's frame on.
    ASSERT_EQ(engine.start(), 0);
    ASSERT_EQ(add_undated(3), 1);
    std::vector<std::vector<uint8_t>> out;
    for (unsigned f = 0; f < 4; ++f) {
        ASSERT_EQ(map(f), fifo_ok);
        out.push_back(scte104);
    }
    EXPECT_TRUE(out[0].empty());
    EXPECT_EQ(out[1], std::vector<uint8_t>(msg, msg + sizeof msg));
    EXPECT_EQ(splice_request_of(out[2]), std::make_pair(1, 2500)) << "spliceStart_normal, 2.5 s";
    EXPECT_EQ(splice_request_of(out[3]), std::make_pair(1, 0));
}
