// The inspector's caption and AFD readers on packets written by hand.
#include "cdp_decode.h"

#include <gtest/gtest.h>

using qvboardsim::cea608_text;
using qvboardsim::decode_afd;
using qvboardsim::decode_cdp;

// 29.97 frames/s, counter 0x0102: a control code (RCL) and "HELLO" in field 1,
// "Hi" in field 2, one DTVCC triplet, one invalid 608 pair.
TEST(CdpDecode, ReadsTheTripletsAndTheTextOfEachField)
{
    std::vector<uint8_t> cdp = {0x96, 0x69, 0, 0x4F, 0x43, 0x01, 0x02, 0x72, 0xE7,
                                0xFC, 0x94, 0x20, 0xFC, 0xC8, 0x45, 0xFC, 0x4C, 0x4C, 0xFC, 0x4F, 0x80,
                                0xFD, 0xC8, 0xE9, 0xFE, 0x41, 0x41, 0xF8, 0x41, 0x41,
                                0x74, 0x01, 0x02, 0};
    cdp[2] = static_cast<uint8_t>(cdp.size());
    unsigned sum = 0;
    for (uint8_t b : cdp)
        sum += b;
    cdp.back() = static_cast<uint8_t>(0x100 - sum % 256);

    const auto c = decode_cdp(cdp);
    ASSERT_TRUE(c.ok) << c.error;
    EXPECT_EQ(c.rate_code, 4u);
    EXPECT_EQ(c.sequence, 0x0102u);
    EXPECT_EQ(c.cc_count, 7u);
    EXPECT_EQ(cea608_text(c.cc, 0), "HELLO");
    EXPECT_EQ(cea608_text(c.cc, 1), "Hi");

    cdp[cdp.size() - 2] ^= 1; // footer counter 0x0102 -> 0x0103
    cdp.back() = static_cast<uint8_t>(cdp.back() - 1);
    EXPECT_EQ(decode_cdp(cdp).error, "footer");
    cdp.back() ^= 0x10;
    EXPECT_EQ(decode_cdp(cdp).error, "checksum");
}

TEST(AfdDecode, CodeAspectAndBars)
{
    const auto a = decode_afd({0x54, 0, 0, 0xC0, 0x00, 0x45, 0x03, 0xF3});
    ASSERT_TRUE(a.ok);
    EXPECT_EQ(a.afd, 10u);
    EXPECT_TRUE(a.wide);
    EXPECT_EQ(a.bar_flags, 0xCu);
    EXPECT_EQ(a.bar1, 69u);
    EXPECT_EQ(a.bar2, 1011u);
    EXPECT_FALSE(decode_afd({0x54, 0, 0}).ok);
}
