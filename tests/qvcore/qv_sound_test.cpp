#include "qv_sound.h"

#include <gtest/gtest.h>

#include <vector>

using namespace QVSDK;

namespace {

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

} // namespace
