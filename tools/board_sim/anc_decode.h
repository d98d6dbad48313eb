// SMPTE 291 ancillary data packets found in 10-bit VBI/VANC lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qvboardsim {

struct AncPacket {
    uint32_t line = 0;      // VBI line index in the capture record
    int stream = 0;         // 0 = all samples (SD), 1 = luma only (HD), 2 = chroma only (HD)
    size_t position = 0;    // word position of the ADF in its stream
    uint8_t did = 0, sdid = 0, dc = 0;
    std::vector<uint8_t> udw; // user data words, 8 bits each
    bool parity_ok = true;    // DID, SDID, DC and every UDW carry correct b8/b9
    bool checksum_ok = true;
    bool truncated = false;   // the data count runs past the end of the line
};

// Even parity bit b8 for the 8 data bits, and b9 = !b8.
inline uint16_t anc_word(uint8_t v)
{
    uint16_t p = static_cast<uint16_t>(__builtin_parity(v));
    return static_cast<uint16_t>(v | (p << 8) | ((p ^ 1u) << 9));
}

// Scans one line of UYVY 16-bit samples (10 significant bits). HD lines are
// searched in the luma and chroma streams separately, SD lines as one stream.
std::vector<AncPacket> find_anc(const uint16_t* samples, size_t count, uint32_t line, bool hd);

} // namespace qvboardsim
