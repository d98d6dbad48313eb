#include "qv_vanc_teletext_encoder.h"

#include "qv_vbi_convert.h"

#include <cmath>
#include <cstring>

namespace {

uint8_t reverse_bits(uint8_t b)
{
    b = static_cast<uint8_t>((b & 0xF0) >> 4 | (b & 0x0F) << 4);
    b = static_cast<uint8_t>((b & 0xCC) >> 2 | (b & 0x33) << 2);
    return static_cast<uint8_t>((b & 0xAA) >> 1 | (b & 0x55) << 1);
}

constexpr uint8_t k_framing_code = 0x27; // after bit reversal of the PES's 0xE4
constexpr uint8_t k_op47_did = 0x43;
constexpr uint8_t k_op47_sdid = 0x02;

// Teletext system B on a 13.5 MHz luma grid.
constexpr double k_samples_per_bit = 13.5e6 / 6.9375e6;
constexpr double k_first_sample = 6.0;     // about 10.2 us after the line sync
constexpr uint16_t k_level_0 = 0x040;      // black
constexpr uint16_t k_level_1 = 0x040 + 578; // 66 % of the nominal white excursion

} // namespace

void qv_vanc_teletext_encoder::init(uint32_t nLineMask, bool isProgressive, bool isHD, int nWidth)
{
    m_nLineMask = nLineMask;
    m_bProgressive = isProgressive;
    m_bHD = isHD;
    m_nWidth = nWidth;
    m_nLines = 0;
}

void qv_vanc_teletext_encoder::release()
{
    m_nLineMask = 0;
    m_nLines = 0;
    m_nSequence = 0;
}

int qv_vanc_teletext_encoder::next_free_line(bool bFirstField, int nFrom) const
{
    for (int nLine = nFrom; nLine <= 32; ++nLine) {
        if (!line_enabled(nLine))
            continue;
        bool bTaken = false;
        for (int i = 0; i < m_nLines && !bTaken; ++i)
            bTaken = m_lines[i].nLine == nLine && m_lines[i].bFirstField == bFirstField;
        if (!bTaken)
            return nLine;
    }
    return 0;
}

int qv_vanc_teletext_encoder::next_data(const uint8_t* pData, size_t nSize)
{
    m_nLines = 0;
    if (!pData || nSize < kUnitSize || m_nLineMask == 0)
        return 0;
    // A PES data field starts with its data_identifier (0x10 to 0x1F), a value
    // no data unit id takes; a trailing partial unit is ignored below.
    if (pData[0] >= 0x10 && pData[0] <= 0x1F) {
        ++pData;
        --nSize;
    }
    for (size_t off = 0; off + kUnitSize <= nSize && m_nLines < kMaxLines; off += kUnitSize) {
        const uint8_t* u = pData + off;
        if ((u[0] != 0x02 && u[0] != 0x03) || u[1] != 0x2C)
            continue; // stuffing or another service
        const bool bFirstField = m_bProgressive || (u[2] & 0x20) != 0;
        const int nSourceLine = u[2] & 0x1F;
        if (reverse_bits(u[3]) != k_framing_code)
            continue;

        line& l = m_lines[m_nLines];
        l.bFirstField = bFirstField;
        l.nSourceLine = nSourceLine;
        if (m_bHD) {
            // VANC lines come from the mask, one packet per line.
            l.bFirstField = true;
            l.nLine = next_free_line(true, 1);
        } else if (nSourceLine != 0) {
            l.nLine = line_enabled(nSourceLine) ? nSourceLine : 0;
        } else {
            l.nLine = next_free_line(bFirstField, 7); // "undefined" line: first free teletext line
        }
        if (l.nLine == 0)
            continue;
        for (size_t i = 0; i < kPacketBytes; ++i)
            l.packet[i] = reverse_bits(u[4 + i]);
        ++m_nLines;
    }
    return m_nLines;
}

bool qv_vanc_teletext_encoder::get_line_info(int i, bool& bFirstField, int& nLine) const
{
    if (i < 0 || i >= m_nLines)
        return false;
    bFirstField = m_lines[i].bFirstField;
    nLine = m_lines[i].nLine;
    return nLine > 0;
}

void qv_vanc_teletext_encoder::encode_line(int i, uint16_t* pTarget)
{
    if (!pTarget || i < 0 || i >= m_nLines || m_nWidth <= 0)
        return;
    if (m_bHD)
        encode_op47(m_lines[i], pTarget);
    else
        encode_waveform(m_lines[i], pTarget);
}

void qv_vanc_teletext_encoder::encode_op47(const line& l, uint16_t* pTarget)
{
    // Subtitling data packet: identifier, length, format, five line
    // descriptors, one teletext packet with its run-in and framing code,
    // footer id, sequence counter and a checksum that zeroes the byte sum.
    uint8_t sdp[13 + 45];
    size_t n = 0;
    sdp[n++] = 0x51;
    sdp[n++] = 0x15;
    sdp[n++] = sizeof sdp;
    sdp[n++] = 0x02; // WST teletext
    sdp[n++] = static_cast<uint8_t>((l.bFirstField ? 0x80 : 0x00) | (l.nSourceLine & 0x1F));
    for (int d = 0; d < 4; ++d)
        sdp[n++] = 0;
    sdp[n++] = 0x55;
    sdp[n++] = 0x55;
    sdp[n++] = k_framing_code;
    std::memcpy(sdp + n, l.packet, kPacketBytes);
    n += kPacketBytes;
    sdp[n++] = 0x74;
    sdp[n++] = static_cast<uint8_t>(m_nSequence >> 8);
    sdp[n++] = static_cast<uint8_t>(m_nSequence);
    ++m_nSequence;
    uint8_t sum = 0;
    for (size_t k = 0; k < n; ++k)
        sum = static_cast<uint8_t>(sum + sdp[k]);
    sdp[n++] = static_cast<uint8_t>(-sum);

    // The ANC packet in the luma samples of an 8-bit line, then to 16-bit words.
    const size_t nPixels = static_cast<size_t>(m_nWidth);
    uint8_t line8[2 * 3840];
    if (nPixels > sizeof line8 / 2)
        return;
    for (size_t p = 0; p < nPixels; ++p) {
        line8[2 * p] = QV_BLACK_CHROMA_8;
        line8[2 * p + 1] = QV_BLACK_LUMA_8;
    }
    const uint8_t header[] = {0x00, 0xFF, 0xFF, k_op47_did, k_op47_sdid, static_cast<uint8_t>(n)};
    size_t y = 1;
    for (uint8_t b : header) {
        line8[y] = b;
        y += 2;
    }
    for (size_t k = 0; k < n && y < 2 * nPixels; ++k, y += 2)
        line8[y] = sdp[k];
    if (y < 2 * nPixels)
        line8[y] = 0; // checksum word, computed by the conversion
    ConvertSDIPacketsInYOnly8to10(pTarget, line8, nPixels);
}

void qv_vanc_teletext_encoder::encode_waveform(const line& l, uint16_t* pTarget) const
{
    uint8_t bytes[3 + kPacketBytes] = {0x55, 0x55, k_framing_code};
    std::memcpy(bytes + 3, l.packet, kPacketBytes);
    const int nBits = static_cast<int>(sizeof bytes) * 8;
    auto bit = [&bytes, nBits](int k) -> double {
        if (k < 0 || k >= nBits)
            return 0.0;
        return (bytes[k / 8] >> (k % 8)) & 1u; // least significant bit first
    };

    const double swing = k_level_1 - k_level_0;
    for (int p = 0; p < m_nWidth; ++p) {
        pTarget[2 * p] = QV_BLACK_CHROMA_10;
        // Bit position of this luma sample; transitions are raised-cosine
        // shaped over half a bit so the spectrum stays inside the channel.
        const double t = (p - k_first_sample) / k_samples_per_bit;
        const int k = static_cast<int>(std::floor(t));
        const double f = t - k;
        double v = bit(k);
        if (f < 0.25) {
            const double w = 0.5 + 0.5 * std::cos(M_PI * (f + 0.25) / 0.5);
            v = bit(k - 1) * w + bit(k) * (1.0 - w);
        } else if (f > 0.75) {
            const double w = 0.5 - 0.5 * std::cos(M_PI * (f - 0.75) / 0.5);
            v = bit(k) * (1.0 - w) + bit(k + 1) * w;
        }
        pTarget[2 * p + 1] = static_cast<uint16_t>(k_level_0 + std::lround(v * swing));
    }
}
