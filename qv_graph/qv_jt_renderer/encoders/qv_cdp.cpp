#include "qv_cdp.h"

#include <cmath>

namespace {

constexpr uint8_t k_id_hi = 0x96;
constexpr uint8_t k_id_lo = 0x69;
constexpr uint8_t k_time_code_section = 0x71;
constexpr uint8_t k_ccdata_section = 0x72;
constexpr uint8_t k_ccsvcinfo_section = 0x73;
constexpr uint8_t k_footer = 0x74;
constexpr size_t k_header_size = 7;
constexpr size_t k_footer_size = 4;
constexpr size_t k_time_code_size = 5; // id and four bytes

// ccdata_present, caption_service_active and the reserved bit.
constexpr uint8_t k_flags_ccdata = 0x40 | 0x02 | 0x01;
constexpr uint8_t k_flag_time_code = 0x80;
constexpr uint8_t k_flag_svcinfo = 0x20;

struct rate_row {
    float fFps;
    uint8_t nCode;
    uint8_t nCcCount;
};
// The cc_count of a frame keeps the caption channel at 9,600 bit/s.
constexpr rate_row k_rates[] = {
    {24000.0f / 1001, 1, 25}, {24.0f, 2, 25}, {25.0f, 3, 24},          {30000.0f / 1001, 4, 20},
    {30.0f, 5, 20},           {50.0f, 6, 12}, {60000.0f / 1001, 7, 10}, {60.0f, 8, 10},
};

} // namespace

qv_cdp_rate qv_cdp_rate_for(float fFps)
{
    for (const rate_row& r : k_rates) {
        if (std::fabs(r.fFps - fFps) < 0.01f)
            return {r.nCode, r.nCcCount};
    }
    return {};
}

size_t qv_cdp_write(uint8_t nRateCode, uint16_t nSequence, const qv_cc_triplet* pTriplets, size_t nCount,
                    uint8_t* pOut, size_t nCapacity)
{
    const size_t nSize = k_header_size + 2 + 3 * nCount + k_footer_size;
    if (nCount > 31 || (nCount > 0 && !pTriplets) || !pOut || nCapacity < nSize)
        return 0;
    size_t k = 0;
    pOut[k++] = k_id_hi;
    pOut[k++] = k_id_lo;
    pOut[k++] = static_cast<uint8_t>(nSize);
    pOut[k++] = static_cast<uint8_t>(nRateCode << 4 | 0x0F);
    pOut[k++] = k_flags_ccdata;
    pOut[k++] = static_cast<uint8_t>(nSequence >> 8);
    pOut[k++] = static_cast<uint8_t>(nSequence);
    pOut[k++] = k_ccdata_section;
    pOut[k++] = static_cast<uint8_t>(0xE0 | nCount);
    for (size_t i = 0; i < nCount; ++i) {
        pOut[k++] = pTriplets[i].b0;
        pOut[k++] = pTriplets[i].b1;
        pOut[k++] = pTriplets[i].b2;
    }
    pOut[k++] = k_footer;
    pOut[k++] = static_cast<uint8_t>(nSequence >> 8);
    pOut[k++] = static_cast<uint8_t>(nSequence);
    // The packet's bytes, checksum included, sum to zero modulo 256.
    uint8_t sum = 0;
    for (size_t i = 0; i < k; ++i)
        sum = static_cast<uint8_t>(sum + pOut[i]);
    pOut[k++] = static_cast<uint8_t>(0x100 - sum);
    return k;
}

const char* qv_cdp_error_text(qv_cdp_error e)
{
    switch (e) {
    case qv_cdp_error::none:
        return "no error";
    case qv_cdp_error::too_short:
        return "shorter than a header and a footer";
    case qv_cdp_error::bad_identifier:
        return "no cdp identifier 0x9669";
    case qv_cdp_error::bad_length:
        return "cdp_length differs from the packet's size";
    case qv_cdp_error::bad_checksum:
        return "bad checksum";
    case qv_cdp_error::bad_section:
        return "a section runs past the footer";
    case qv_cdp_error::bad_cc_count:
        return "cc_count runs past the packet";
    case qv_cdp_error::bad_footer:
        return "footer missing or its sequence counter differs from the header's";
    }
    return "unknown error";
}

qv_cdp_error qv_cdp_read(const uint8_t* pData, size_t nSize, qv_cdp_packet& packet)
{
    if (!pData || nSize < k_header_size + k_footer_size)
        return qv_cdp_error::too_short;
    if (pData[0] != k_id_hi || pData[1] != k_id_lo)
        return qv_cdp_error::bad_identifier;
    if (pData[2] != nSize)
        return qv_cdp_error::bad_length;
    uint8_t sum = 0;
    for (size_t i = 0; i < nSize; ++i)
        sum = static_cast<uint8_t>(sum + pData[i]);
    if (sum != 0)
        return qv_cdp_error::bad_checksum;
    packet.nRateCode = pData[3] >> 4;
    packet.nFlags = pData[4];
    packet.nSequence = static_cast<uint16_t>(pData[5] << 8 | pData[6]);
    packet.triplets.clear();

    const size_t nFooter = nSize - k_footer_size;
    size_t k = k_header_size;
    if (packet.nFlags & k_flag_time_code) {
        if (k + k_time_code_size > nFooter || pData[k] != k_time_code_section)
            return qv_cdp_error::bad_section;
        k += k_time_code_size;
    }
    if (k < nFooter && pData[k] == k_ccdata_section) {
        if (k + 2 > nFooter)
            return qv_cdp_error::bad_section;
        const size_t nCount = pData[k + 1] & 0x1F;
        k += 2;
        if (k + 3 * nCount > nFooter)
            return qv_cdp_error::bad_cc_count;
        for (size_t i = 0; i < nCount; ++i, k += 3)
            packet.triplets.push_back({pData[k], pData[k + 1], pData[k + 2]});
    }
    if ((packet.nFlags & k_flag_svcinfo) && k < nFooter && pData[k] == k_ccsvcinfo_section) {
        if (k + 2 > nFooter)
            return qv_cdp_error::bad_section;
        const size_t nLen = 2 + 7 * static_cast<size_t>(pData[k + 1] & 0x0F);
        if (k + nLen > nFooter)
            return qv_cdp_error::bad_section;
        k += nLen;
    }
    // Future sections (ids 0x75 to 0xEF) carry their own length.
    while (k < nFooter && pData[k] >= 0x75 && pData[k] <= 0xEF) {
        if (k + 2 > nFooter || k + 2 + pData[k + 1] > nFooter)
            return qv_cdp_error::bad_section;
        k += 2 + pData[k + 1];
    }
    if (k != nFooter || pData[k] != k_footer || pData[k + 1] != pData[5] || pData[k + 2] != pData[6])
        return qv_cdp_error::bad_footer;
    return qv_cdp_error::none;
}
