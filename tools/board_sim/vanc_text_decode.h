// SCTE-104 messages (DID 0x41 SDID 0x07) and OP-47 teletext (subtitling data
// packets, DID 0x43 SDID 0x02) read from the user data words of an ANC
// packet and told as one line of text each, for the inspector. Written apart
// from the element's encoders, so that a mistake there does not repeat itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvboardsim {

// "splice_request insert_type=1 event=7 pre_roll=2000ms break=300" and the
// like, one entry per operation; a message that does not parse says why.
std::vector<std::string> describe_scte104(const std::vector<uint8_t>& udw);

// "mag 1 row 01 \"text\"" for each teletext packet the packet carries.
std::vector<std::string> describe_op47(const std::vector<uint8_t>& udw);

} // namespace qvboardsim
