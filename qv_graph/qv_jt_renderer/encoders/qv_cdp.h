// CEA-708 caption distribution packet (cdp): the cc_data of one frame with
// its header (identifier 0x9669, length, frame rate, flags, sequence counter)
// and footer (sequence counter, checksum). Writer and reader side by side;
// the reader checks everything the writer promises.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// One cc_data triplet: marker bits, cc_valid and cc_type in the first byte.
struct qv_cc_triplet {
    uint8_t b0 = 0, b1 = 0, b2 = 0;
    bool valid() const { return (b0 & 0x04) != 0; }
    uint8_t type() const { return b0 & 0x03; }
    bool operator==(const qv_cc_triplet& o) const { return b0 == o.b0 && b1 == o.b1 && b2 == o.b2; }
};

enum : uint8_t {
    qv_cc_608_field1 = 0,
    qv_cc_608_field2 = 1,
    qv_cc_dtvcc_data = 2,
    qv_cc_dtvcc_start = 3,
};

// The cdp_frame_rate code of a frame rate and the cc_count one frame carries
// at that rate; code 0 for a rate the standard has no code for.
struct qv_cdp_rate {
    uint8_t nCode = 0;
    uint8_t nCcCount = 0;
};
qv_cdp_rate qv_cdp_rate_for(float fFps);

constexpr size_t QV_CDP_MAX_SIZE = 7 + 2 + 31 * 3 + 4;

// Writes a cdp with ccdata_section only. Returns its size, 0 when the triplets
// do not fit (more than 31) or nCapacity is too small.
size_t qv_cdp_write(uint8_t nRateCode, uint16_t nSequence, const qv_cc_triplet* pTriplets, size_t nCount,
                    uint8_t* pOut, size_t nCapacity);

enum class qv_cdp_error {
    none,
    too_short,
    bad_identifier,
    bad_length,    // cdp_length is not the packet's size
    bad_checksum,
    bad_section,   // a section runs past the footer or an unknown id
    bad_cc_count,  // cc_count beyond the packet
    bad_footer,    // no footer, or its sequence counter differs from the header's
};
const char* qv_cdp_error_text(qv_cdp_error e);

struct qv_cdp_packet {
    uint8_t nRateCode = 0;
    uint8_t nFlags = 0;
    uint16_t nSequence = 0;
    std::vector<qv_cc_triplet> triplets; // the ccdata_section's, in order
};

// Reads and checks a cdp; on an error the packet is left partly filled.
qv_cdp_error qv_cdp_read(const uint8_t* pData, size_t nSize, qv_cdp_packet& packet);
