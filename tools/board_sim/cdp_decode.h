// Caption distribution packets (CEA-708, in SMPTE 334 packets DID 0x61 SDID
// 0x01) and AFD/bar data (SMPTE 2016-3, DID 0x41 SDID 0x05) read from the user
// data words of an ANC packet. Written apart from the element's encoders, so
// that a mistake there does not repeat itself here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvboardsim {

struct CdpInfo {
    bool ok = false;
    std::string error;     // why not ok
    unsigned rate_code = 0;
    unsigned sequence = 0; // header's sequence counter
    unsigned cc_count = 0;
    std::vector<std::array<uint8_t, 3>> cc; // the cc_data triplets as carried
};

CdpInfo decode_cdp(const std::vector<uint8_t>& udw);

struct AfdInfo {
    bool ok = false;
    unsigned afd = 0;        // 4-bit code
    bool wide = false;       // aspect ratio bit: 16:9
    unsigned bar_flags = 0;  // top, bottom, left, right in bits 3..0
    unsigned bar1 = 0, bar2 = 0;
};

AfdInfo decode_afd(const std::vector<uint8_t>& udw);

// The text of the valid CEA-608 pairs of one field (cc_type 0 or 1) in the
// triplets: printable characters as they are, control codes as nothing.
std::string cea608_text(const std::vector<std::array<uint8_t, 3>>& cc, int field);

} // namespace qvboardsim
