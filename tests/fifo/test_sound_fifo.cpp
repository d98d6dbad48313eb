// The byte ring and the position-stamped sound chunk queue beneath the audio FIFO.
#include "qv_memory_manager.h"
#include "qv_sound_fifo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
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

TEST(QVSoundFifo, ReadSplitsChunksAndZeroFillsAShortFifo)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(4096, kStereo16, 16));
    const auto a = ramp(1000, 3);
    ASSERT_TRUE(f.put(0, a.data(), a.size()));
    QVSound out = sound_of(600);
    ASSERT_TRUE(f.get(0, out));
    EXPECT_TRUE(std::equal(a.begin(), a.begin() + 600, out.data()));
    ASSERT_TRUE(f.get(600, out));
    EXPECT_TRUE(std::equal(a.begin() + 600, a.end(), out.data()));
    EXPECT_TRUE(std::all_of(out.data() + 400, out.data() + 600, [](uint8_t v) { return v == 0; }));
    EXPECT_EQ(f.m_nReadPos, 1200);
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

TEST(QVSoundFifo, RefusesWhatDoesNotFitOrMatch)
{
    QVSoundFifo f;
    EXPECT_FALSE(f.init(100, QVSoundFormat(), 0));
    ASSERT_TRUE(f.init(100, kStereo16, 0));
    const auto a = ramp(64, 0);
    EXPECT_TRUE(f.put(0, a.data(), 64));
    EXPECT_FALSE(f.put(64, a.data(), 64)); // ring full

    QVSound mono;
    mono.init(64, QVSoundFormat(0, 48000, 16, 1));
    EXPECT_FALSE(f.put(64, mono));
    QVSound otherRate;
    otherRate.init(64, QVSoundFormat(0, 44100, 16, 2));
    EXPECT_FALSE(f.put(64, otherRate));
}

TEST(QVSoundFifo, ConvertsBitDepthOnTheWayIn)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(1024, kStereo16, 0));
    QVSound s32;
    ASSERT_TRUE(s32.init(16, QVSoundFormat(0, 48000, 32, 2)));
    const int32_t samples[4] = {0x12345678, -0x40000000, 0x00010000, 0};
    std::memcpy(s32.data(), samples, sizeof samples);
    ASSERT_TRUE(f.put(0, s32));
    EXPECT_EQ(f.m_nWritePos, 8); // 2 frames of 4 bytes
    QVSound out = sound_of(8);
    ASSERT_TRUE(f.get(0, out));
    int16_t got[4];
    std::memcpy(got, out.data(), sizeof got);
    EXPECT_EQ(got[0], 0x1234);
    EXPECT_EQ(got[1], -0x4000);
    EXPECT_EQ(got[2], 1);
    EXPECT_EQ(got[3], 0);
}
