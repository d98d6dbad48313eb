#include "qv_vanc_teletext_encoder.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <tuple>
#include <vector>

namespace {

uint8_t reverse(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; ++i)
        if (b & (1u << i))
            r = static_cast<uint8_t>(r | (0x80u >> i));
    return r;
}

// One DVB teletext data unit as a demultiplexer hands it over (bits reversed).
std::vector<uint8_t> data_unit(bool bFirstField, int nLine, uint8_t seed)
{
    std::vector<uint8_t> u = {0x02, 0x2C, static_cast<uint8_t>(0xC0 | (bFirstField ? 0x20 : 0) | nLine), 0xE4};
    for (int i = 0; i < 42; ++i)
        u.push_back(reverse(static_cast<uint8_t>(seed + i * 7)));
    return u;
}

uint32_t mask_of(const std::vector<int>& lines)
{
    uint32_t m = 0;
    for (int l : lines)
        m |= 1u << ((l - 1) % 32);
    return m;
}

// Where a frame's packets go: each prepared line as (first field, line, packets).
using placed = std::tuple<bool, int, int>;

struct placement_case {
    const char* name;
    bool hd;
    bool progressive;
    std::vector<int> mask;
    size_t area[2];                          // VBI/VANC lines of each field
    std::vector<std::pair<bool, int>> units; // (first field, line offset) per packet
    std::vector<placed> lines;
    uint64_t dropped;
};

class TeletextPlacement : public ::testing::TestWithParam<placement_case> {};

// Packets fill the OP-47 packets five at a time on the enabled lines inside
// the area; SD lines outside the area are refused; whatever finds no line is counted.
TEST_P(TeletextPlacement, UsesTheRoomThereIsAndCountsTheRest)
{
    const placement_case& c = GetParam();
    qv_vanc_teletext_encoder enc;
    enc.init(mask_of(c.mask), c.progressive, c.hd, c.hd ? 1920 : 720);
    enc.set_area(c.area[0], c.area[1]);
    std::vector<uint8_t> in = {0x10};
    for (size_t k = 0; k < c.units.size(); ++k) {
        const auto u = data_unit(c.units[k].first, c.units[k].second, static_cast<uint8_t>(k));
        in.insert(in.end(), u.begin(), u.end());
    }
    const int n = enc.next_data(in.data(), in.size());
    std::vector<placed> got;
    std::vector<uint16_t> line(2 * 1920);
    for (int i = 0; i < n; ++i) {
        bool first = false;
        int l = 0;
        ASSERT_TRUE(enc.get_line_info(i, first, l));
        int packets = 1;
        if (c.hd) {
            enc.encode_line(i, line.data());
            const int dc = line[2 * 5 + 1] & 0xFF;
            packets = (dc - 13) / 45;
            // Descriptors: the packet's own field and line, in the order sent.
            for (int d = 0; d < packets; ++d) {
                const uint8_t desc = line[2 * (10 + d) + 1] & 0xFF;
                const uint8_t seed = line[2 * (6 + 9 + 45 * d + 3) + 1] & 0xFF;
                EXPECT_EQ((desc & 0x80) != 0, c.units[seed].first || c.progressive) << "packet " << int(seed);
                if (c.units[seed].second != 0)
                    EXPECT_EQ(desc & 0x1F, c.units[seed].second);
                else
                    EXPECT_NE(desc & 0x1F, 0) << "an undefined line gets a number";
            }
        }
        got.emplace_back(first, l, packets);
    }
    EXPECT_EQ(got, c.lines);
    EXPECT_EQ(enc.dropped_packets(), c.dropped);
}

std::vector<std::pair<bool, int>> units(int n, bool first, int offset)
{
    return std::vector<std::pair<bool, int>>(static_cast<size_t>(n), {first, offset});
}

std::vector<std::pair<bool, int>> operator+(std::vector<std::pair<bool, int>> a, const std::vector<std::pair<bool, int>>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TeletextPlacement,
    ::testing::Values(
        // A four-row page at 1080i: one packet per field, each in its own field's VANC.
        placement_case{"Page1080i", true, false, {9, 10}, {20, 21},
                       units(2, true, 7) + units(2, false, 20), {{true, 9, 2}, {false, 9, 2}}, 0},
        // Twelve field-1 rows and one line: five in each field's VANC, two counted.
        placement_case{"Overflow1080i", true, false, {9}, {20, 21}, units(12, true, 0), {{true, 9, 5}, {false, 9, 5}}, 2},
        // 720p has 25 VANC lines: the mask's 26 to 32 are never used.
        placement_case{"Mask720p", true, true, {24, 25, 26, 30, 32}, {25, 0}, units(12, true, 8),
                       {{true, 24, 5}, {true, 25, 5}}, 2},
        // 576i field 2 has 23 lines: offsets 23 and up have no row (line = offset + 1).
        placement_case{"Field2At576i", false, false, {7, 21, 22, 23, 24, 31}, {22, 23},
                       units(1, false, 21) + units(1, false, 22) + units(1, false, 23) + units(1, false, 31) +
                           units(1, true, 22) + units(1, true, 23),
                       {{false, 22, 1}, {false, 23, 1}, {true, 22, 1}}, 3}),
    [](const ::testing::TestParamInfo<placement_case>& i) { return std::string(i.param.name); });

} // namespace
