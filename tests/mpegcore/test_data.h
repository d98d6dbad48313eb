// Golden data files of tests/data, read as tables.
#pragma once

#include <glib.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qvtest {

// Tab-separated rows of a data file; '#' lines are comments.
inline std::vector<std::vector<std::string>> read_table(const std::string& file)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(std::string(QV_TEST_DATA_DIR) + "/" + file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::vector<std::string> cols;
        std::stringstream ss(line);
        std::string col;
        while (std::getline(ss, col, '\t'))
            cols.push_back(col);
        rows.push_back(cols);
    }
    return rows;
}

inline std::vector<uint8_t> from_base64(const std::string& s)
{
    gsize n = 0;
    guchar* p = g_base64_decode(s.c_str(), &n);
    std::vector<uint8_t> v(p, p + n);
    g_free(p);
    return v;
}

// Space-separated hex words.
inline std::vector<uint16_t> words_from_hex(const std::string& s)
{
    std::vector<uint16_t> v;
    std::stringstream ss(s);
    std::string w;
    while (ss >> w)
        v.push_back(static_cast<uint16_t>(std::stoul(w, nullptr, 16)));
    return v;
}

struct Scte35Sample {
    std::string name;
    std::vector<uint8_t> bytes;
    bool roundTrip;
};

inline std::vector<Scte35Sample> scte35_samples()
{
    std::vector<Scte35Sample> out;
    for (const auto& r : read_table("scte35_samples.txt"))
        if (r.size() >= 3)
            out.push_back({r[0], from_base64(r[1]), r[2] == "1"});
    return out;
}

struct VancPacket {
    std::string name;
    std::vector<uint16_t> words;
    // The SCTE 104 message carried: the user data words after the payload descriptor.
    std::vector<uint8_t> message() const
    {
        std::vector<uint8_t> m;
        for (size_t i = 7; i + 1 < words.size(); ++i)
            m.push_back(static_cast<uint8_t>(words[i]));
        return m;
    }
};

inline std::vector<VancPacket> scte104_vanc_packets()
{
    std::vector<VancPacket> out;
    for (const auto& r : read_table("scte104_vanc_packets.txt"))
        if (r.size() >= 2)
            out.push_back({r[0], words_from_hex(r[1])});
    return out;
}

} // namespace qvtest
