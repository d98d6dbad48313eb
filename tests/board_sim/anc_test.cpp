// ANC decoding of the inspector, checked against an independent packet builder
// (parity by bit counting), damaged packets included.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "anc_decode.h"

using namespace qvboardsim;

namespace {

// Independent oracle: parity by counting bits one at a time.
uint16_t oracle_word(uint8_t v)
{
    int ones = 0;
    for (int b = 0; b < 8; ++b)
        ones += (v >> b) & 1;
    uint16_t b8 = ones % 2 ? 1 : 0;
    return uint16_t(v | b8 << 8 | (1 - b8) << 9);
}

std::vector<uint16_t> packet(uint8_t did, uint8_t sdid, const std::vector<uint8_t>& udw)
{
    std::vector<uint16_t> p = {0x000, 0x3FF, 0x3FF, oracle_word(did), oracle_word(sdid),
                               oracle_word(uint8_t(udw.size()))};
    for (uint8_t b : udw)
        p.push_back(oracle_word(b));
    uint32_t sum = 0;
    for (size_t i = 3; i < p.size(); ++i)
        sum += p[i] & 0x1FF;
    sum &= 0x1FF;
    p.push_back(uint16_t(sum | ((((sum >> 8) & 1) ^ 1) << 9)));
    return p;
}

// A black 10-bit UYVY line with `p` laid into the luma samples (HD) or into
// consecutive samples from `at` (SD).
std::vector<uint16_t> line_with(const std::vector<uint16_t>& p, size_t samples, bool hd, size_t at)
{
    std::vector<uint16_t> l(samples);
    for (size_t i = 0; i < samples; ++i)
        l[i] = i % 2 ? 0x040 : 0x200;
    for (size_t k = 0; k < p.size(); ++k)
        l[hd ? 2 * (at + k) + 1 : at + k] = p[k];
    return l;
}

struct AncCase {
    const char* name;
    bool hd;
    size_t at;
    int damage; // 0 none, 1 parity of a UDW, 2 checksum, 3 data count past the end, 4 checksum bit 8
};

class AncDecode : public ::testing::TestWithParam<AncCase> {};

TEST_P(AncDecode, FindsPacketsAndChecksThem)
{
    const AncCase c = GetParam();
    std::vector<uint8_t> udw = {0x08, 0x00, 0x1e, 0xff, 0x00, 0x5a, 0x80};
    auto p = packet(0x41, 0x07, udw);
    if (c.damage == 1)
        p[8] ^= 0x100;
    if (c.damage == 2)
        p.back() ^= 0x001;
    if (c.damage == 4)
        p.back() ^= 0x300; // b8 and its inverse b9: only the 9-bit sum tells
    if (c.damage == 3)
        p[5] = oracle_word(200);
    const size_t samples = c.hd ? 3840 : 1440;
    const size_t at = c.damage == 3 ? (c.hd ? 1920 : 1440) - p.size() : c.at; // fits, but DC says 200
    auto line = line_with(p, samples, c.hd, at);
    auto found = find_anc(line.data(), line.size(), 9, c.hd);
    ASSERT_EQ(found.size(), 1u);
    const AncPacket& a = found[0];
    EXPECT_EQ(a.line, 9u);
    EXPECT_EQ(a.stream, c.hd ? 1 : 0);
    EXPECT_EQ(a.position, at);
    EXPECT_EQ(a.did, 0x41);
    EXPECT_EQ(a.sdid, 0x07);
    if (c.damage == 3) {
        EXPECT_TRUE(a.truncated);
        return;
    }
    EXPECT_EQ(a.dc, udw.size());
    EXPECT_EQ(a.udw, udw);
    EXPECT_EQ(a.parity_ok, c.damage != 1);
    if (c.damage != 1) { // a flipped b8 also changes the 9-bit sum
        EXPECT_EQ(a.checksum_ok, c.damage != 2 && c.damage != 4);
    }
    EXPECT_FALSE(a.truncated);
}

INSTANTIATE_TEST_SUITE_P(Cases, AncDecode,
                         ::testing::Values(AncCase{"hd_clean", true, 0, 0}, AncCase{"hd_mid", true, 700, 0},
                                           AncCase{"sd_clean", false, 0, 0}, AncCase{"sd_parity", false, 12, 1},
                                           AncCase{"hd_checksum", true, 3, 2}, AncCase{"sd_checksum_b8", false, 5, 4},
                                           AncCase{"hd_short", true, 0, 3},
                                           AncCase{"sd_short", false, 0, 3}),
                         [](const ::testing::TestParamInfo<AncCase>& p) { return std::string(p.param.name); });

} // namespace
