// The line map text against the table it fills, on the rasters whose line
// numbering differs: 625-line and 1125-line interlaced, and progressive HD.
#include "qv_line_map.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

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
        {"scte104=320", k_sd},       {"teletext=99999999", k_sd}, {"cc=0", k_hdi},
        {"afd=65", k_hdi},           {"cc=9,10", k_hdi},      {"cc=", k_sd},
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

// Caption and AFD lines beside the table: a line claimed twice stays with the
// earlier clause, the later one is dropped with a warning naming both.
TEST(LineMapText, CaptionAndAfdLinesAndTheirClashes)
{
    const struct {
        const char* text;
        uint32_t cc, afd;
        const char* readBack;
        std::vector<const char*> warnings; // words each warning holds, in order
    } cases[] = {
        {"cc=9;afd=11", 9, 11, "cc=9;afd=11", {}},
        {"teletext=7-22;cc=9;afd=23", 0, 23, "teletext=7-22;afd=23", {"cc line 9 is already taken by teletext"}},
        {"cc=9;teletext=8-10", 9, 0, "teletext=8,10;cc=9", {"teletext line 9 is already taken by cc"}},
        {"scte104=12;afd=12;cc=12", 0, 0, "scte104=12", {"afd line 12 is already taken by SCTE-104", "cc line 12"}},
        {"afd=5;cc=5", 0, 5, "afd=5", {"cc line 5 is already taken by afd"}},
        {"cc=10;scte104=10", 10, 0, "cc=10", {"scte104 line 10 is already taken by cc"}},
    };
    for (const auto& c : cases) {
        uint8_t table[qv_line_entries];
        qv_anc_lines lines;
        std::string error;
        ASSERT_TRUE(qv_parse_line_map(c.text, k_hdi, table, lines, error)) << c.text << ": " << error;
        EXPECT_EQ(lines.nCaption, c.cc) << c.text;
        EXPECT_EQ(lines.nAfd, c.afd) << c.text;
        EXPECT_EQ(qv_format_line_map(table, lines, k_hdi), c.readBack) << c.text;
        ASSERT_EQ(lines.warnings.size(), c.warnings.size()) << c.text;
        for (size_t k = 0; k < c.warnings.size(); ++k)
            EXPECT_NE(lines.warnings[k].find(c.warnings[k]), std::string::npos) << lines.warnings[k];
    }
    EXPECT_EQ(qv_default_caption_line(k_hdi), 9u);
    EXPECT_EQ(qv_default_afd_line(k_hdp), 11u);
    // SD defaults stay clear of the usual teletext lines of both fields.
    uint8_t table[qv_line_entries];
    std::string error;
    ASSERT_TRUE(qv_parse_line_map("teletext=7-22,320-335", k_sd, table, error));
    EXPECT_FALSE(qv_line_taken(table, qv_default_caption_line(k_sd)));
    EXPECT_FALSE(qv_line_taken(table, qv_default_afd_line(k_sd)));
    EXPECT_NE(qv_default_caption_line(k_sd), qv_default_afd_line(k_sd));
}

} // namespace
