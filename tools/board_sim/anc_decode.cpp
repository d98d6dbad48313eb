// ANC packet search: ADF 000 3FF 3FF, DID, SDID (or DBN), DC, DC user data
// words, checksum = 9-bit sum of DID through the last UDW with b9 = !b8.
#include "anc_decode.h"

namespace qvboardsim {

namespace {

bool parity_ok(uint16_t w) { return (w & 0x3FF) == anc_word(static_cast<uint8_t>(w)); }

void scan(const uint16_t* s, size_t count, size_t start, size_t stride, uint32_t line, int stream,
          std::vector<AncPacket>& out)
{
    auto at = [&](size_t i) -> uint16_t { return static_cast<uint16_t>(s[start + i * stride] & 0x3FF); };
    const size_t n = count > start ? (count - start + stride - 1) / stride : 0;
    size_t i = 0;
    while (i + 3 <= n) {
        if (at(i) != 0x000 || at(i + 1) != 0x3FF || at(i + 2) != 0x3FF) {
            ++i;
            continue;
        }
        AncPacket p;
        p.line = line;
        p.stream = stream;
        p.position = i;
        if (i + 6 > n) {
            p.truncated = true;
            out.push_back(p);
            break;
        }
        uint16_t did = at(i + 3), sdid = at(i + 4), dc = at(i + 5);
        p.did = static_cast<uint8_t>(did);
        p.sdid = static_cast<uint8_t>(sdid);
        p.dc = static_cast<uint8_t>(dc);
        p.parity_ok = parity_ok(did) && parity_ok(sdid) && parity_ok(dc);
        uint32_t sum = (did & 0x1FF) + (sdid & 0x1FF) + (dc & 0x1FF);
        if (i + 6 + p.dc + 1 > n) {
            p.truncated = true;
            p.checksum_ok = false;
            out.push_back(p);
            break;
        }
        for (size_t k = 0; k < p.dc; ++k) {
            uint16_t w = at(i + 6 + k);
            p.udw.push_back(static_cast<uint8_t>(w));
            p.parity_ok = p.parity_ok && parity_ok(w);
            sum += w & 0x1FF;
        }
        uint16_t cs = at(i + 6 + p.dc);
        sum &= 0x1FF;
        uint16_t b8 = (cs >> 8) & 1;
        p.checksum_ok = (cs & 0x1FF) == sum && ((cs >> 9) & 1) == (b8 ^ 1u);
        out.push_back(p);
        i += 7 + p.dc;
    }
}

} // namespace

std::vector<AncPacket> find_anc(const uint16_t* samples, size_t count, uint32_t line, bool hd)
{
    std::vector<AncPacket> out;
    if (hd) {
        scan(samples, count, 1, 2, line, 1, out); // luma (Y) stream
        scan(samples, count, 0, 2, line, 2, out); // chroma (C) stream
    } else {
        scan(samples, count, 0, 1, line, 0, out);
    }
    return out;
}

} // namespace qvboardsim
