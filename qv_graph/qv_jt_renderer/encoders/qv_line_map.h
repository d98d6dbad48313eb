// The ancillary line map as text: which VBI/VANC lines carry teletext, which
// SCTE-104, and the one line of captions and of AFD, e.g.
// "teletext=7-22,320-335;scte104=9;cc=5;afd=4".
//
// The text names the lines the packets go out on, counted as the output's
// line numbering does (the second field of an interlaced raster continues
// the count). It fills the same 64-entry table as the "vbi_lines" pointer:
// entry i set to 1 enables teletext on line i + 1 of both fields (SD) or of
// the first field (HD); entry i set to 2 sends SCTE-104 on line i + 2 of the
// first field. A SCTE-104 line therefore shares its entry with the teletext
// line just above it: giving a line to SCTE-104 takes that teletext line too.
//
// Captions and AFD each take one line of the first field, kept beside the
// table (which stays as the "vbi_lines" pointer defines it). A line named by
// two services goes to the earlier clause; the later one loses it with a
// warning.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// Lines of the services outside the table; 0 when the map names none.
struct qv_anc_lines {
    uint32_t nCaption = 0;
    uint32_t nAfd = 0;
    std::vector<std::string> warnings; // clashes the parse resolved
};
constexpr uint32_t qv_anc_max_line = 64;

// As above, with the "cc" and "afd" clauses.
bool qv_parse_line_map(const std::string& strText, const qv_line_geometry& geometry,
                       uint8_t (&entries)[qv_line_entries], qv_anc_lines& lines, std::string& strError);

// The line a service uses on this raster when the map names none: captions on
// line 9 and AFD on line 11 for HD; lines 5 and 4 for SD, ahead of the usual
// teletext lines.
uint32_t qv_default_caption_line(const qv_line_geometry& geometry);
uint32_t qv_default_afd_line(const qv_line_geometry& geometry);

// True when line nLine of the first field is a teletext or SCTE-104 line of the table.
bool qv_line_taken(const uint8_t (&entries)[qv_line_entries], uint32_t nLine);

// The text of a table on this raster (teletext entries 32 to 63 act as
// entries 0 to 31); for a table the parser made, parsing it again gives it back.
std::string qv_format_line_map(const uint8_t (&entries)[qv_line_entries], const qv_line_geometry& geometry);
std::string qv_format_line_map(const uint8_t (&entries)[qv_line_entries], const qv_anc_lines& lines,
                               const qv_line_geometry& geometry);
