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

} // namespace
