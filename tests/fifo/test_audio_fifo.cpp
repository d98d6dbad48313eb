// One audio line: byte positions on the line's sample clock, frame lengths,
// jitter, skipping ahead and silence on jumps.
#include "qv_audio_fifo.h"

#include "../common/print_capture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

using QVSDK::QVSound;
using QVSDK::QVSoundFormat;

namespace {

const QVSoundFormat kStereo16(0, 48000, 16, 2); // A = 192000, B = 4

// Sample-accurate sound of `frames` sample frames whose 16-bit samples carry
// their own running sample number (low 16 bits), so that order can be checked.
QVSound numbered(uint64_t firstSample, size_t frames)
{
    QVSound s;
    s.init(frames * 4, kStereo16);
    auto* p = reinterpret_cast<uint16_t*>(s.data());
    for (size_t i = 0; i < frames; ++i)
        p[2 * i] = p[2 * i + 1] = static_cast<uint16_t>(firstSample + i);
    return s;
}

uint64_t pts_of_sample(uint64_t sample)
{
    return sample * 1000000000ull / 48000;
}

struct rate_case {
    float fps;
    uint64_t frames;
};

class AudioFifoRates : public ::testing::TestWithParam<rate_case> {};

} // namespace

TEST_P(AudioFifoRates, ContinuousFeedPlaysEverySampleOnceInOrder)
{
    const rate_case rc = GetParam();
    qv_audio_fifo a;
    auto stats = std::make_shared<qv_audio_statistics>();
    a.set_statistics(stats);
    a.init(rc.fps, kStereo16);
    ASSERT_TRUE(a.alloc(8));

    print_capture console;
    // The feed delivers 1024-sample packets stamped from their sample count;
    // the reader takes one output frame at a time, a few frames behind.
    uint64_t fed = 0;
    uint64_t expectedSample = 0;
    uint64_t totalBytes = 0;
    size_t minLen = SIZE_MAX, maxLen = 0;
    for (uint64_t f = 0; f < rc.frames; ++f) {
        const uint64_t need = a.frame_to_pos(f + 3) / 4;
        while (fed < need) {
            ASSERT_TRUE(a.add_audio_frame(pts_of_sample(fed), 0, numbered(fed, 1024)));
            fed += 1024;
        }
        QVSound out;
        ASSERT_TRUE(a.map_sound_frame(f, out));
        const size_t len = out.size();
        minLen = std::min(minLen, len);
        maxLen = std::max(maxLen, len);
        totalBytes += len;
        const auto* p = reinterpret_cast<const uint16_t*>(out.data());
        for (size_t i = 0; i < len / 4; ++i, ++expectedSample)
            ASSERT_EQ(p[2 * i], static_cast<uint16_t>(expectedSample)) << "frame " << f << " sample " << i;
    }
    // The frame grid decides every length; the lengths sum to the grid's end exactly.
    EXPECT_EQ(totalBytes, a.frame_to_pos(rc.frames));
    EXPECT_LE(maxLen - minLen, 4u);
    EXPECT_EQ(console.lines().size(), 0u);
    EXPECT_EQ(stats->nSampleRenderTime, a.pos_to_pts(totalBytes));
}

INSTANTIATE_TEST_SUITE_P(Rates, AudioFifoRates,
                         ::testing::Values(rate_case{25.0f, 3000}, rate_case{29.97f, 3000}, rate_case{50.0f, 1000},
                                           rate_case{59.94f, 1000}));

TEST(AudioFifo, GapInTheFeedBecomesSilenceThenTheLaterAudio)
{
    qv_audio_fifo a;
    a.init(25.0f, kStereo16);
    ASSERT_TRUE(a.alloc(8));
    ASSERT_TRUE(a.add_audio_frame(0, 0, numbered(1, 1920)));
    // Two frames missing, then the feed resumes at frame 3.
    ASSERT_TRUE(a.add_audio_frame(pts_of_sample(3 * 1920), 0, numbered(5000, 1920)));
    std::vector<std::vector<uint16_t>> got;
    for (uint64_t f = 0; f < 4; ++f) {
        QVSound out;
        ASSERT_TRUE(a.map_sound_frame(f, out));
        const auto* p = reinterpret_cast<const uint16_t*>(out.data());
        got.emplace_back(p, p + out.size() / 2);
    }
    EXPECT_EQ(got[0][0], 1);
    EXPECT_TRUE(std::all_of(got[1].begin(), got[1].end(), [](uint16_t v) { return v == 0; }));
    EXPECT_TRUE(std::all_of(got[2].begin(), got[2].end(), [](uint16_t v) { return v == 0; }));
    EXPECT_EQ(got[3][0], 5000);
    EXPECT_EQ(got[3][2 * 1919], static_cast<uint16_t>(5000 + 1919));
}

TEST(AudioFifo, ReaderBehindTheGridSkipsAheadWithAMessage)
{
    qv_audio_fifo a;
    a.init(25.0f, kStereo16);
    ASSERT_TRUE(a.alloc(16));
    for (uint64_t f = 0; f < 8; ++f)
        ASSERT_TRUE(a.add_audio_frame(pts_of_sample(f * 1920), 0, numbered(f * 1920, 1920)));
    print_capture console;
    QVSound out;
    ASSERT_TRUE(a.map_sound_frame(5, out)); // frames 0..4 never asked for
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(console.lines()[0],
              "qvjtrenderer: map_sound_frame() - skip 38400 bytes : 0 -> 38400, frame=5, fifo_pos=0\n");
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(out.data())[0], static_cast<uint16_t>(5 * 1920));
}

TEST(AudioFifo, PrerollKeepsAboutTheLatencyQueued)
{
    qv_audio_fifo a;
    a.init(25.0f, kStereo16);
    ASSERT_TRUE(a.alloc(50));
    for (uint64_t f = 0; f < 40; ++f)
        ASSERT_TRUE(a.add_audio_frame(pts_of_sample(f * 1920), 0, numbered(f * 1920, 1920)));
    a.check_fifo_fullness(200); // 38400 bytes
    // Newest frame starts at 39 * 7680; about 200 ms stay before it.
    EXPECT_EQ(a.m_render_pos, 39u * 7680u - 38400u);
    EXPECT_EQ(a.m_sound_fifo.m_nReadPos, static_cast<int64_t>(a.m_render_pos));
    a.check_fifo_fullness(200);
    EXPECT_EQ(a.m_render_pos, 39u * 7680u - 38400u);
}
