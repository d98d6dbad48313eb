// The byte ring and the position-stamped sound chunk queue beneath the audio FIFO.
#include "qv_memory_manager.h"
#include "qv_sound_fifo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

using QVSDK::QVMemoryManager;
using QVSDK::QVSound;
using QVSDK::QVSoundFifo;
using QVSDK::QVSoundFormat;

TEST(QVMemoryManager, WrapsOnlyWhenTheStartLeavesStrictRoom)
{
    QVMemoryManager m;
    m.reset(100);
    unsigned char* base = m.get(30);
    ASSERT_NE(base, nullptr);
    ASSERT_NE(m.get(60), nullptr); // bytes 30..89 will be in use
    m.put(base, 30);
    EXPECT_EQ(m.length(), 60u);

    EXPECT_FALSE(m.tryLock(30)); // 10 left at the end; 30 at the start is not strictly below
    EXPECT_EQ(m.lock(30), nullptr);
    EXPECT_TRUE(m.tryLock(29));
    unsigned char* p = m.lock(29);
    EXPECT_EQ(p, base);
    m.commit(29);
    // Wrapped: the unused tail counts as in use until the ring comes round.
    EXPECT_EQ(m.length(), 29u + 70u);
    // A full ring never looks empty: no chunk may close the gap completely.
    EXPECT_EQ(m.lock(1), nullptr);
}

namespace {

const QVSoundFormat kStereo16(0, 48000, 16, 2);

std::vector<uint8_t> ramp(size_t n, uint8_t from)
{
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}

QVSound sound_of(size_t bytes)
{
    QVSound s;
    s.init(bytes, kStereo16);
    return s;
}

std::vector<uint8_t> bytes_of(const QVSound& s)
{
    return std::vector<uint8_t>(s.data(), s.data() + s.size());
}

} // namespace

TEST(QVSoundFifo, JitterWithinToleranceStaysGapFree)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(1 << 16, kStereo16, 3840));
    const auto a = ramp(7680, 0);
    const auto b = ramp(7680, 100);
    ASSERT_TRUE(f.put(0, a.data(), a.size()));
    ASSERT_TRUE(f.put(7680 + 2000, b.data(), b.size())); // inside the tolerance
    EXPECT_EQ(f.m_queue.back().m_nStartPos, 7680);
    EXPECT_EQ(f.m_nWritePos, 2 * 7680);

    QVSound out = sound_of(2 * 7680);
    ASSERT_TRUE(f.get(0, out));
    std::vector<uint8_t> expected = a;
    expected.insert(expected.end(), b.begin(), b.end());
    EXPECT_EQ(bytes_of(out), expected);
    EXPECT_EQ(f.chunks(), 0u);
}

TEST(QVSoundFifo, GapBeyondToleranceIsPlayedAsSilence)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(1 << 16, kStereo16, 3840));
    const auto a = ramp(7680, 1);
    const auto b = ramp(7680, 7);
    ASSERT_TRUE(f.put(0, a.data(), a.size()));
    ASSERT_TRUE(f.put(7680 + 5001, b.data(), b.size())); // beyond: starts at its own whole block
    EXPECT_EQ(f.m_queue.back().m_nStartPos, 7680 + 5000);

    QVSound out = sound_of(7680 + 5000 + 7680);
    ASSERT_TRUE(f.get(0, out));
    const auto got = bytes_of(out);
    EXPECT_TRUE(std::equal(a.begin(), a.end(), got.begin()));
    EXPECT_TRUE(std::all_of(got.begin() + 7680, got.begin() + 7680 + 5000, [](uint8_t v) { return v == 0; }));
    EXPECT_TRUE(std::equal(b.begin(), b.end(), got.begin() + 7680 + 5000));
}

TEST(QVSoundFifo, SkipNeverMovesBackwards)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(4096, kStereo16, 16));
    const auto a = ramp(800, 0);
    ASSERT_TRUE(f.put(0, a.data(), 400));
    ASSERT_TRUE(f.put(400, a.data() + 400, 400));
    EXPECT_TRUE(f.skipToPos(500));
    EXPECT_EQ(f.m_nReadPos, 500);
    ASSERT_EQ(f.chunks(), 1u);
    EXPECT_EQ(f.m_queue.front().m_nStartPos, 500);
    EXPECT_TRUE(f.skipToPos(100));
    EXPECT_EQ(f.m_nReadPos, 500);
    EXPECT_EQ(f.m_queue.front().m_nStartPos, 500);
}

namespace {

struct InputFormat {
    uint16_t bits;
    uint16_t channels;
};

class QVSoundFifoInput : public ::testing::TestWithParam<InputFormat> {};

// Independent oracle: a sample value given as a signed 32-bit full-scale
// number, as the FIFO's 16-bit samples must come out of any input depth.
int16_t to16(int32_t full)
{
    return static_cast<int16_t>(full >> 16);
}

} // namespace

// Every depth and channel count the audio pads take goes into a stereo 16-bit
// line: mono on both sides, nothing silent, nothing shifted.
TEST_P(QVSoundFifoInput, ConvertsIntoTheLineFormat)
{
    const InputFormat in = GetParam();
    const QVSoundFormat f(0, 48000, in.bits, in.channels);
    const size_t frames = 64;
    QVSound s;
    ASSERT_TRUE(s.init(frames * f.m_block_align, f));
    std::vector<int32_t> full(frames * in.channels);
    for (size_t i = 0; i < full.size(); ++i) {
        // Distinct per channel and frame, sign included, exact at 8 bits.
        const int32_t v8 = static_cast<int32_t>((i * 37 + 5) % 256) - 128;
        full[i] = v8 * (1 << 24);
        const int32_t sample = full[i] >> (32 - in.bits);
        std::memcpy(s.data() + i * (in.bits / 8), &sample, in.bits / 8); // little-endian low bytes
    }
    QVSoundFifo fifo;
    ASSERT_TRUE(fifo.init(1 << 14, kStereo16, 64));
    ASSERT_TRUE(fifo.put(0, s));
    QVSound out = sound_of(frames * 4);
    ASSERT_TRUE(fifo.get(0, out));
    const auto* got = reinterpret_cast<const int16_t*>(out.data());
    for (size_t k = 0; k < frames; ++k) {
        const int32_t left = full[k * in.channels];
        const int32_t right = full[k * in.channels + (in.channels > 1 ? 1 : 0)];
        ASSERT_EQ(got[2 * k], to16(left)) << "frame " << k;
        ASSERT_EQ(got[2 * k + 1], to16(right)) << "frame " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(AllDepths, QVSoundFifoInput,
                         ::testing::Values(InputFormat{8, 1}, InputFormat{8, 2}, InputFormat{16, 1},
                                           InputFormat{16, 2}, InputFormat{24, 2}, InputFormat{32, 1},
                                           InputFormat{32, 2}),
                         [](const ::testing::TestParamInfo<InputFormat>& i) {
                             return "S" + std::to_string(i.param.bits) + "_" + std::to_string(i.param.channels) +
                                    "ch";
                         });
