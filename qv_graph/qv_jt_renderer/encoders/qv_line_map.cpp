#include "qv_line_map.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t k_teletext_lines = 32; // the encoder's line mask covers lines 1 to 32 of a field
constexpr uint32_t k_max_line = 4096;

std::string trim(const std::string& s)
{
    size_t b = 0;
    size_t e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> parts;
    size_t from = 0;
    for (;;) {
        const size_t at = s.find(sep, from);
        parts.push_back(trim(s.substr(from, at == std::string::npos ? std::string::npos : at - from)));
        if (at == std::string::npos)
            return parts;
        from = at + 1;
    }
}

bool parse_number(const std::string& s, uint32_t& n)
{
    if (s.empty() || s.size() > 5)
        return false;
    n = 0;
    for (char c : s) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
        n = n * 10 + static_cast<uint32_t>(c - '0');
    }
    return true;
}

// Line L of the output as a line of the first field (1-based); 0 when L lies
// outside the lines a field can carry for this service.
uint32_t field_line(uint32_t nLine, const qv_line_geometry& g, uint32_t nLast, bool bSecondField)
{
    if (nLine >= 1 && nLine <= nLast)
        return nLine;
    if (bSecondField && g.nSecondField && nLine >= g.nSecondField && nLine - g.nSecondField + 1 <= nLast)
        return nLine - g.nSecondField + 1;
    return 0;
}

std::string line_error(const char* pService, uint32_t nLine, const qv_line_geometry& g)
{
    std::string s = std::string(pService) + " line " + std::to_string(nLine) + " is not one of its lines (";
    if (std::strcmp(pService, "teletext") == 0) {
        s += "1-32";
        if (g.bInterlaced && !g.bHD)
            s += " or " + std::to_string(g.nSecondField) + "-" + std::to_string(g.nSecondField + 31);
    } else {
        s += "2-65 of the first field";
    }
    return s + ")";
}

void append_ranges(std::string& out, const std::vector<uint32_t>& lines)
{
    for (size_t i = 0; i < lines.size();) {
        size_t j = i;
        while (j + 1 < lines.size() && lines[j + 1] == lines[j] + 1)
            ++j;
        if (out.back() != '=')
            out += ',';
        out += std::to_string(lines[i]);
        if (j > i)
            out += "-" + std::to_string(lines[j]);
        i = j + 1;
    }
}

} // namespace

qv_line_geometry qv_line_geometry_for(int32_t nHeight, float fps, bool isProgressive)
{
    qv_line_geometry g;
    g.bHD = nHeight > 576;
    g.bInterlaced = !isProgressive;
    if (g.bInterlaced) {
        // 625-line: second field from line 314; 525-line: 264; 1125-line: 564.
        if (g.bHD)
            g.nSecondField = 564;
        else
            g.nSecondField = fps > 26.0f ? 264 : 314;
    }
    return g;
}

bool qv_parse_line_map(const std::string& strText, const qv_line_geometry& g, uint8_t (&entries)[qv_line_entries],
                       std::string& strError)
{
    qv_anc_lines lines;
    return qv_parse_line_map(strText, g, entries, lines, strError);
}

uint32_t qv_default_caption_line(const qv_line_geometry& g)
{
    return g.bHD ? 9 : 5;
}

uint32_t qv_default_afd_line(const qv_line_geometry& g)
{
    return g.bHD ? 11 : 4;
}

bool qv_line_taken(const uint8_t (&entries)[qv_line_entries], uint32_t nLine)
{
    if (nLine == 0)
        return false;
    // Teletext entries 32 to 63 fold onto lines 1 to 32; SCTE-104 entry i is line i + 2.
    if (nLine <= 32 && (entries[nLine - 1] == qv_line_teletext || entries[nLine - 1 + 32] == qv_line_teletext))
        return true;
    return nLine >= 2 && nLine - 2 < static_cast<uint32_t>(qv_line_entries) && entries[nLine - 2] == qv_line_scte104;
}

bool qv_parse_line_map(const std::string& strText, const qv_line_geometry& g, uint8_t (&entries)[qv_line_entries],
                       qv_anc_lines& lines, std::string& strError)
{
    uint8_t table[qv_line_entries] = {};
    qv_anc_lines anc;
    auto warn = [&](const std::string& strService, uint32_t nLine, const char* pOwner) {
        anc.warnings.push_back(strService + " line " + std::to_string(nLine) + " is already taken by " + pOwner +
                               ": the " + strService + " entry for it is not applied");
    };
    // Which service of the two outside the table holds the line, if any.
    auto anc_owner = [&](uint32_t nLine) -> const char* {
        if (nLine != 0 && nLine == anc.nCaption)
            return "cc";
        if (nLine != 0 && nLine == anc.nAfd)
            return "afd";
        return nullptr;
    };
    for (const std::string& clause : split(strText, ';')) {
        if (clause.empty())
            continue;
        const size_t eq = clause.find('=');
        if (eq == std::string::npos) {
            strError = "\"" + clause + "\" is not service=lines";
            return false;
        }
        const std::string service = trim(clause.substr(0, eq));
        uint8_t kind = qv_line_none;
        if (service == "teletext")
            kind = qv_line_teletext;
        else if (service == "scte104")
            kind = qv_line_scte104;
        else if (service == "cc" || service == "afd") {
            uint32_t n = 0;
            const std::string value = trim(clause.substr(eq + 1));
            if (!parse_number(value, n) || n == 0 || n > qv_anc_max_line) {
                strError = service + " line \"" + value + "\" is not one of its lines (1-" +
                           std::to_string(qv_anc_max_line) + " of the first field)";
                return false;
            }
            uint32_t& mine = service == "cc" ? anc.nCaption : anc.nAfd;
            const char* pOther = anc_owner(n);
            if (qv_line_taken(table, n))
                warn(service, n, table[n - 1] == qv_line_teletext || table[n - 1 + 32] == qv_line_teletext
                                     ? "teletext"
                                     : "SCTE-104");
            else if (pOther && service != pOther)
                warn(service, n, pOther);
            else
                mine = n;
            continue;
        } else {
            strError = "unknown service \"" + service + "\" (teletext, scte104, cc or afd)";
            return false;
        }
        for (const std::string& item : split(clause.substr(eq + 1), ',')) {
            uint32_t a = 0;
            uint32_t b = 0;
            const size_t dash = item.find('-');
            const bool ok = dash == std::string::npos
                                ? parse_number(item, a) && (b = a, true)
                                : parse_number(trim(item.substr(0, dash)), a) &&
                                      parse_number(trim(item.substr(dash + 1)), b);
            if (!ok || a == 0 || a > b || b > k_max_line) {
                strError = "\"" + item + "\" is not a line or a range of lines";
                return false;
            }
            for (uint32_t line = a; line <= b; ++line) {
                if (kind == qv_line_teletext) {
                    const uint32_t l = field_line(line, g, k_teletext_lines, !g.bHD);
                    if (l == 0) {
                        strError = line_error("teletext", line, g);
                        return false;
                    }
                    if (const char* pOwner = anc_owner(l)) {
                        warn("teletext", line, pOwner);
                        continue;
                    }
                    table[l - 1] = qv_line_teletext;
                } else {
                    const uint32_t l = field_line(line, g, qv_line_entries + 1, false);
                    if (l < 2) {
                        strError = line_error("scte104", line, g);
                        return false;
                    }
                    if (const char* pOwner = anc_owner(l)) {
                        warn("scte104", line, pOwner);
                        continue;
                    }
                    // The SCTE-104 writer puts entry i on line i + 2; the
                    // teletext line sharing that entry, and the one the
                    // packet covers, are no longer teletext.
                    table[l - 2] = qv_line_scte104;
                    if (l - 1 < static_cast<uint32_t>(qv_line_entries) && table[l - 1] == qv_line_teletext)
                        table[l - 1] = qv_line_none;
                }
            }
        }
    }
    std::memcpy(entries, table, sizeof table);
    lines = std::move(anc);
    return true;
}

std::string qv_format_line_map(const uint8_t (&entries)[qv_line_entries], const qv_line_geometry& g)
{
    uint32_t mask = 0;
    std::vector<uint32_t> scte;
    for (int i = 0; i < qv_line_entries; ++i) {
        if (entries[i] == qv_line_teletext)
            mask |= 1u << (i % 32);
        else if (entries[i] == qv_line_scte104)
            scte.push_back(static_cast<uint32_t>(i) + 2);
    }
    std::vector<uint32_t> teletext;
    for (uint32_t b = 0; b < 32; ++b) {
        if (mask >> b & 1u)
            teletext.push_back(b + 1);
    }
    if (g.bInterlaced && !g.bHD) {
        for (uint32_t b = 0; b < 32; ++b) {
            if (mask >> b & 1u)
                teletext.push_back(g.nSecondField + b);
        }
    }
    std::string out;
    if (!teletext.empty()) {
        out = "teletext=";
        append_ranges(out, teletext);
    }
    if (!scte.empty()) {
        out += out.empty() ? "scte104=" : ";scte104=";
        append_ranges(out, scte);
    }
    return out;
}

std::string qv_format_line_map(const uint8_t (&entries)[qv_line_entries], const qv_anc_lines& lines,
                               const qv_line_geometry& g)
{
    std::string out = qv_format_line_map(entries, g);
    if (lines.nCaption)
        out += (out.empty() ? "cc=" : ";cc=") + std::to_string(lines.nCaption);
    if (lines.nAfd)
        out += (out.empty() ? "afd=" : ";afd=") + std::to_string(lines.nAfd);
    return out;
}
