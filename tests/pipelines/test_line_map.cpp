// The line map text against the table it fills, on the rasters whose line
// numbering differs: 625-line and 1125-line interlaced, and progressive HD.
#include "qv_line_map.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>

namespace {

const qv_line_geometry k_sd = qv_line_geometry_for(576, 25.0f, false);
const qv_line_geometry k_hdi = qv_line_geometry_for(1080, 25.0f, false);
const qv_line_geometry k_hdp = qv_line_geometry_for(1080, 50.0f, true);

struct Case {
    const char* name;
    const char* text;
    qv_line_geometry geometry;
    const char* readBack; // what the table reads back as
    int teletext[4];      // entries expected to be 1 (-1 ends)
    int scte104[2];       // entries expected to be 2 (-1 ends)
};

void PrintTo(const Case& c, std::ostream* os)
{
    *os << '"' << c.text << '"';
}

class LineMapText : public ::testing::TestWithParam<Case> {};

TEST_P(LineMapText, FillsTheTableAndReadsBack)
{
    const Case& c = GetParam();
    uint8_t table[qv_line_entries];
    std::memset(table, 9, sizeof table);
    std::string error;
    ASSERT_TRUE(qv_parse_line_map(c.text, c.geometry, table, error)) << error;
    uint8_t expected[qv_line_entries] = {};
    for (int e : c.teletext)
        if (e >= 0)
            expected[e] = qv_line_teletext;
    for (int e : c.scte104)
        if (e >= 0)
            expected[e] = qv_line_scte104;
    for (int i = 0; i < qv_line_entries; ++i)
        EXPECT_EQ(table[i], expected[i]) << "entry " << i;
    EXPECT_EQ(qv_format_line_map(table, c.geometry), c.readBack);

    // What reads back parses to the same table.
    uint8_t again[qv_line_entries];
    ASSERT_TRUE(qv_parse_line_map(qv_format_line_map(table, c.geometry), c.geometry, again, error)) << error;
    EXPECT_EQ(0, std::memcmp(table, again, sizeof table));
}

INSTANTIATE_TEST_SUITE_P(
    Rasters, LineMapText,
    ::testing::Values(
        // A second-field line is the same entry as its first-field line.
        Case{"sd_second_field", "teletext=7-8,320-321", k_sd, "teletext=7-8,320-321", {6, 7, -1, -1}, {-1, -1}},
        Case{"sd_blanks_and_empty_clause", " teletext = 320 ; ", k_sd, "teletext=7,320", {6, -1, -1, -1}, {-1, -1}},
        // SCTE-104 on line 10 uses entry 8, which teletext line 9 shares, and
        // covers teletext line 10: both leave the teletext set.
        Case{"sd_scte_takes_teletext_lines", "teletext=8-11;scte104=10", k_sd, "teletext=8,11,321,324;scte104=10", {7, 10, -1, -1}, {8, -1}},
        Case{"hd_progressive_scte_bounds", "scte104=2,65", k_hdp, "scte104=2,65", {-1, -1, -1, -1}, {0, 63}},
        Case{"hd_interlaced", "teletext=1,32;scte104=20", k_hdi, "teletext=1,32;scte104=20", {0, 31, -1, -1}, {18, -1}},
        Case{"empty", "", k_sd, "", {-1, -1, -1, -1}, {-1, -1}}),
    [](const ::testing::TestParamInfo<Case>& param) { return std::string(param.param.name); });

TEST(LineMapText, MalformedTextLeavesTheTableAlone)
{
    const std::pair<const char*, qv_line_geometry> bad[] = {
        {"teletext", k_sd},          {"subtitles=7", k_sd},   {"teletext=7-", k_sd},
        {"teletext=9-7", k_sd},      {"teletext=0", k_sd},    {"teletext=7x", k_sd},
        {"teletext=33", k_sd},       {"teletext=346", k_sd},  {"teletext=320", k_hdp},
        {"teletext=570", k_hdi},     {"scte104=1", k_sd},     {"scte104=66", k_hdp},
        {"scte104=320", k_sd},       {"teletext=99999999", k_sd},
    };
    for (const auto& [text, geometry] : bad) {
        uint8_t table[qv_line_entries];
        std::memset(table, 7, sizeof table);
        std::string error;
        EXPECT_FALSE(qv_parse_line_map(text, geometry, table, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_EQ(table[0], 7) << text;
        EXPECT_EQ(table[63], 7) << text;
    }
}

} // namespace
