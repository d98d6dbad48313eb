#include "cdp_decode.h"

namespace qvboardsim {

CdpInfo decode_cdp(const std::vector<uint8_t>& u)
{
    CdpInfo c;
    const size_t n = u.size();
    if (n < 11) {
        c.error = "short";
        return c;
    }
    if (u[0] != 0x96 || u[1] != 0x69) {
        c.error = "identifier";
        return c;
    }
    if (u[2] != n) {
        c.error = "length";
        return c;
    }
    unsigned sum = 0;
    for (uint8_t b : u)
        sum += b;
    if (sum % 256 != 0) {
        c.error = "checksum";
        return c;
    }
    c.rate_code = u[3] >> 4;
    c.sequence = unsigned(u[5]) << 8 | u[6];
    size_t at = 7;
    if (u[4] & 0x80) // time code section
        at += 5;
    if (at + 2 <= n && u[at] == 0x72) {
        c.cc_count = u[at + 1] & 0x1F;
        at += 2;
        if (at + 3 * c.cc_count + 4 > n) {
            c.error = "cc_count";
            return c;
        }
        for (unsigned i = 0; i < c.cc_count; ++i, at += 3)
            c.cc.push_back({u[at], u[at + 1], u[at + 2]});
    }
    // The footer closes the packet: its id, the same counter, the checksum.
    if (u[n - 4] != 0x74 || u[n - 3] != u[5] || u[n - 2] != u[6]) {
        c.error = "footer";
        return c;
    }
    c.ok = true;
    return c;
}

AfdInfo decode_afd(const std::vector<uint8_t>& u)
{
    AfdInfo a;
    if (u.size() != 8)
        return a;
    a.afd = (u[0] >> 3) & 0xF;
    a.wide = (u[0] >> 2) & 1;
    a.bar_flags = u[3] >> 4;
    a.bar1 = unsigned(u[4]) << 8 | u[5];
    a.bar2 = unsigned(u[6]) << 8 | u[7];
    a.ok = true;
    return a;
}

std::string cea608_text(const std::vector<std::array<uint8_t, 3>>& cc, int field)
{
    std::string s;
    for (const auto& t : cc) {
        const bool valid = (t[0] & 0x04) != 0;
        if (!valid || (t[0] & 0x03) != field)
            continue;
        const uint8_t a = t[1] & 0x7F, b = t[2] & 0x7F;
        if (a >= 0x10 && a < 0x20)
            continue; // control code or special character
        for (uint8_t ch : {a, b})
            if (ch >= 0x20)
                s += static_cast<char>(ch);
    }
    return s;
}

} // namespace qvboardsim
