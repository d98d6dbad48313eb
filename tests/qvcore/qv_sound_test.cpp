#include "qv_sound.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "qv_sound_test_util.h"

using namespace QVSDK;

namespace {

// A recognisable sample for (line, channel, frame) that fits 16 bits.
int32_t tone(unsigned line, unsigned channel, size_t frame)
{
    return int32_t(line * 1000 + channel * 100 + frame) * ((frame & 1) ? -1 : 1);
}

TEST(QVSoundTest, InitGivesCapacityInFrames)
{
    QVSound s;
    ASSERT_TRUE(s.init(7680, 0, 48000, 16, 2));
    EXPECT_EQ(s.format().m_block_align, 4);
    EXPECT_EQ(s.format().m_avr_byte_per_sec, 192000u);
    EXPECT_EQ(s.capacity(), 1920u);
    EXPECT_EQ(s.samples(), 0u);
    EXPECT_EQ(s.frames(), 1920u); // 0 counts as full
    EXPECT_EQ(reinterpret_cast<uintptr_t>(s.data()) % 8, 0u);
}

struct BadInit {
    size_t bytes;
    uint32_t frequency;
    uint16_t bits, channels;
};

class InitRejectsTest : public testing::TestWithParam<BadInit> {};

TEST_P(InitRejectsTest, LeavesSoundAsItWas)
{
    const BadInit& c = GetParam();
    QVSound s;
    ASSERT_TRUE(s.init(64, 0, 48000, 16, 2));
    uint8_t* before = s.data();
    EXPECT_FALSE(s.init(c.bytes, 0, c.frequency, c.bits, c.channels));
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s.format().m_bit_per_sample, 16);
    uint8_t outside[16];
    EXPECT_FALSE(s.init(c.bytes == 0 ? nullptr : outside, c.bytes, 0, c.frequency, c.bits, c.channels));
    EXPECT_EQ(s.data(), before);
}

INSTANTIATE_TEST_SUITE_P(Table, InitRejectsTest,
                         testing::Values(BadInit{0, 48000, 16, 2}, BadInit{16, 0, 16, 2}, BadInit{16, 48000, 0, 2},
                                         BadInit{16, 48000, 16, 0}, BadInit{16, 48000, 4, 2}));

TEST(QVSoundTest, SilenceClipsToCapacity)
{
    QVSound s;
    ASSERT_TRUE(s.init(7680, 0, 48000, 16, 2));
    std::memset(s.data(), 0x7F, s.size());
    s.silense(5000);
    EXPECT_EQ(s.samples(), 1920u);
    for (size_t i = 0; i < s.size(); ++i)
        ASSERT_EQ(s.data()[i], 0);

    std::memset(s.data(), 0x7F, s.size());
    s.silense(10);
    EXPECT_EQ(s.samples(), 10u);
    EXPECT_EQ(s.data()[39], 0);
    EXPECT_EQ(s.data()[40], 0x7F);

    std::memset(s.data(), 0x7F, s.size());
    s.silense(100, 20);
    EXPECT_EQ(s.samples(), 120u);
    EXPECT_EQ(s.data()[399], 0x7F);
    EXPECT_EQ(s.data()[400], 0);
    EXPECT_EQ(s.data()[479], 0);
    EXPECT_EQ(s.data()[480], 0x7F);

    std::memset(s.data(), 0x7F, s.size());
    s.silense(1900, 100);
    EXPECT_EQ(s.samples(), 1920u);
    EXPECT_EQ(s.data()[7599], 0x7F);
    EXPECT_EQ(s.data()[7600], 0);
    EXPECT_EQ(s.data()[7679], 0);

    std::memset(s.data(), 0x7F, s.size());
    s.silense(5000, 1);
    EXPECT_EQ(s.samples(), 1920u);
    EXPECT_EQ(s.data()[7679], 0x7F);
}

TEST(QVSoundTest, CopyAndMarkFilled)
{
    QVSound s;
    ASSERT_TRUE(s.init(16, 0, 48000, 16, 2));
    const std::vector<uint8_t> in(40, 0x33);
    s.copy(in.data(), 10);
    EXPECT_EQ(s.samples(), 2u); // 10 bytes: two whole frames
    s.copy(in.data(), in.size());
    EXPECT_EQ(s.samples(), 4u);
    EXPECT_EQ(s.data()[15], 0x33);

    EXPECT_TRUE(s.markFilled(3));
    EXPECT_EQ(s.frames(), 3u);
    EXPECT_FALSE(s.markFilled(5));
    EXPECT_EQ(s.samples(), 4u);
}

TEST(QVSoundTest, CopiesShareAndBorrowedMemoryIsNotOwned)
{
    uint8_t outside[64] = {};
    QVSound borrowed;
    ASSERT_TRUE(borrowed.init(outside, sizeof(outside), 0, 48000, 16, 2));
    EXPECT_EQ(borrowed.data(), outside);
    EXPECT_FALSE(borrowed.memory().isOwner());
    QVSound copy = borrowed;
    writeSample(copy, 0, 0, 1234);
    EXPECT_EQ(readSample(borrowed, 0, 0), 1234);
    QVSound moved = std::move(copy);
    EXPECT_TRUE(copy.isEmpty());
    EXPECT_EQ(moved.data(), outside);
}

class MuxSplitTest : public testing::TestWithParam<uint16_t> {};

// Four stereo lines muxed into one 8-channel sound, as the FIFO engine does,
// then split back into lines: every sample returns to its place.
TEST_P(MuxSplitTest, RoundTripOfStereoLines)
{
    const uint16_t bits = GetParam();
    const size_t frames = 6;
    const size_t lineBytes = frames * 2 * (bits / 8);
    std::vector<QVSound> lines(4);
    for (unsigned k = 0; k < 4; ++k) {
        ASSERT_TRUE(lines[k].init(lineBytes, 0, 48000, bits, 2));
        for (size_t f = 0; f < frames; ++f)
            for (unsigned c = 0; c < 2; ++c)
                writeSample(lines[k], f, c, tone(k, c, f));
    }
    QVSound all;
    ASSERT_TRUE(all.init(4 * lineBytes, 0, 48000, bits, 8));
    for (unsigned k = 0; k < 4; ++k)
        ASSERT_TRUE(all.mux(2 * k, 0, 2, lines[k]));
    for (size_t f = 0; f < frames; ++f)
        for (unsigned c = 0; c < 8; ++c)
            ASSERT_EQ(readSample(all, f, c), tone(c / 2, c % 2, f)) << "frame " << f << " channel " << c;

    for (unsigned k = 0; k < 4; ++k) {
        const QVSound line = all.split(uint16_t(k), 2);
        ASSERT_FALSE(line.isEmpty());
        EXPECT_EQ(line.format().m_channel, 2);
        EXPECT_EQ(line.frames(), frames);
        EXPECT_EQ(std::memcmp(line.data(), lines[k].data(), lineBytes), 0) << "line " << k;
    }
    const QVSound quad = all.split(1, 4);
    ASSERT_FALSE(quad.isEmpty());
    EXPECT_EQ(readSample(quad, 2, 0), tone(2, 0, 2));
}

INSTANTIATE_TEST_SUITE_P(Depths, MuxSplitTest, testing::Values(uint16_t(16), uint16_t(32)));

TEST(MuxTest, FillsTargetChannelsOnly)
{
    QVSound four;
    ASSERT_TRUE(four.init(4 * 4 * 2, 0, 48000, 16, 4));
    std::memset(four.data(), 0x11, four.size());
    QVSound line;
    ASSERT_TRUE(line.init(4 * 2 * 2, 0, 48000, 16, 2));
    for (size_t f = 0; f < 4; ++f) {
        writeSample(line, f, 0, 100 + int32_t(f));
        writeSample(line, f, 1, -100 - int32_t(f));
    }
    ASSERT_TRUE(four.mux(2, 0, 2, line));
    for (size_t f = 0; f < 4; ++f) {
        EXPECT_EQ(readSample(four, f, 0), 0x1111);
        EXPECT_EQ(readSample(four, f, 1), 0x1111);
        EXPECT_EQ(readSample(four, f, 2), 100 + int32_t(f));
        EXPECT_EQ(readSample(four, f, 3), -100 - int32_t(f));
    }
}

TEST(SplitTest, RefusesOddCountsMissingChannelsAndPackedDepth)
{
    QVSound s;
    ASSERT_TRUE(s.init(4 * 8, 0, 48000, 16, 4));
    EXPECT_TRUE(s.split(0, 3).isEmpty());
    EXPECT_TRUE(s.split(2, 2).isEmpty());
    EXPECT_TRUE(s.split(1, 4).isEmpty());
    EXPECT_FALSE(s.split(1, 2).isEmpty());
    QVSound s24;
    ASSERT_TRUE(s24.init(4 * 12, 0, 48000, 24, 4));
    EXPECT_TRUE(s24.split(0, 2).isEmpty());
}

class SplitFromTest : public testing::TestWithParam<uint16_t> {};

TEST_P(SplitFromTest, TakesChannelsFromAnyIndexAndClearsTail)
{
    const uint16_t bits = GetParam();
    const unsigned bps = bits / 8;
    QVSound src;
    ASSERT_TRUE(src.init(5 * 6 * bps, 0, 48000, bits, 6));
    for (size_t f = 0; f < 5; ++f)
        for (unsigned c = 0; c < 6; ++c)
            writeSample(src, f, c, tone(0, c, f));
    ASSERT_TRUE(src.markFilled(3));

    QVSound pair;
    ASSERT_TRUE(pair.init(5 * 2 * bps, 0, 48000, bits, 2));
    std::memset(pair.data(), 0x22, pair.size());
    ASSERT_TRUE(pair.splitFrom(src, 3, false));
    EXPECT_EQ(pair.samples(), 3u);
    for (size_t f = 0; f < 3; ++f) {
        EXPECT_EQ(readSample(pair, f, 0), tone(0, 3, f));
        EXPECT_EQ(readSample(pair, f, 1), tone(0, 4, f));
    }
    EXPECT_EQ(pair.data()[3 * 2 * bps], 0x22);

    std::memset(pair.data(), 0x22, pair.size());
    ASSERT_TRUE(pair.markFilled(5));
    ASSERT_TRUE(pair.splitFrom(src, 4, true));
    EXPECT_EQ(pair.samples(), 5u);
    EXPECT_EQ(readSample(pair, 2, 1), tone(0, 5, 2));
    for (size_t i = 3 * 2 * bps; i < pair.size(); ++i)
        ASSERT_EQ(pair.data()[i], 0) << "byte " << i;

    EXPECT_FALSE(pair.splitFrom(src, 5, false)); // channels 5 and 6 of six
}

INSTANTIATE_TEST_SUITE_P(Depths, SplitFromTest, testing::Values(uint16_t(16), uint16_t(24), uint16_t(32)));

struct MismatchCase {
    uint32_t frequency;
    uint16_t bits, tag;
};

class MismatchTest : public testing::TestWithParam<MismatchCase> {};

TEST_P(MismatchTest, OperationsFailAndLeaveDestinationUnchanged)
{
    const MismatchCase& c = GetParam();
    QVSound src;
    ASSERT_TRUE(src.init(8 * 4 * (c.bits / 8), c.tag, c.frequency, c.bits, 4));
    std::memset(src.data(), 0x44, src.size());
    QVSound dst;
    ASSERT_TRUE(dst.init(8 * 2 * 2, 0, 48000, 16, 2));
    std::memset(dst.data(), 0x11, dst.size());
    ASSERT_TRUE(dst.markFilled(5));

    EXPECT_FALSE(dst.splitFrom(src, 0, true));
    EXPECT_FALSE(dst.mux(0, 0, 2, src));
    if (c.bits == 16) {
        EXPECT_FALSE(dst.copyFrom(src)); // channel counts differ as well
    }
    EXPECT_EQ(dst.samples(), 5u);
    for (size_t i = 0; i < dst.size(); ++i)
        ASSERT_EQ(dst.data()[i], 0x11);
}

INSTANTIATE_TEST_SUITE_P(Table, MismatchTest,
                         testing::Values(MismatchCase{44100, 16, 0}, MismatchCase{48000, 32, 0},
                                         MismatchCase{48000, 16, 1}));

} // namespace
