// The ancillary line map as text: which VBI/VANC lines carry teletext and
// which SCTE-104, e.g. "teletext=7-22,320-335;scte104=9".
//
// The text names the lines the packets go out on, counted as the output's
// line numbering does (the second field of an interlaced raster continues
// the count). It fills the same 64-entry table as the "vbi_lines" pointer:
// entry i set to 1 enables teletext on line i + 1 of both fields (SD) or of
// the first field (HD); entry i set to 2 sends SCTE-104 on line i + 2 of the
// first field. A SCTE-104 line therefore shares its entry with the teletext
// line just above it: giving a line to SCTE-104 takes that teletext line too.
#pragma once

#include <cstdint>
#include <string>

struct qv_line_geometry {
    bool bInterlaced = false;
    bool bHD = false;
    uint32_t nSecondField = 0; // number of the second field's first line, 0 when progressive
};

// The geometry of an output raster, from its height, frame rate and scan.
qv_line_geometry qv_line_geometry_for(int32_t nHeight, float fps, bool isProgressive);

enum : uint8_t { qv_line_none = 0, qv_line_teletext = 1, qv_line_scte104 = 2 };
constexpr int qv_line_entries = 64;

// Parses the text into a fresh table. Clauses are "service=lines" separated by
// ';', lines a comma list of numbers and ranges; a later clause takes lines
// from earlier ones. Empty text gives an empty table. On failure returns false
// with the reason and leaves the table as it was.
bool qv_parse_line_map(const std::string& strText, const qv_line_geometry& geometry,
                       uint8_t (&entries)[qv_line_entries], std::string& strError);

// The text of a table on this raster (teletext entries 32 to 63 act as
// entries 0 to 31); for a table the parser made, parsing it again gives it back.
std::string qv_format_line_map(const uint8_t (&entries)[qv_line_entries], const qv_line_geometry& geometry);
