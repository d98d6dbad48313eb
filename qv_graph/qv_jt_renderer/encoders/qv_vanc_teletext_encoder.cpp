#include "qv_vanc_teletext_encoder.h"

#include "qv_vbi_convert.h"

#include <glib.h>

#include <algorithm>
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
    m_nAreaLines[0] = m_nAreaLines[1] = SIZE_MAX;
    m_nReported[0] = m_nReported[1] = 0;
    m_nDropped = 0;
    m_nPackets = 0;
    m_nLines = 0;
}

void qv_vanc_teletext_encoder::release()
{
    m_nLineMask = 0;
    m_nPackets = 0;
    m_nLines = 0;
    m_nSequence = 0;
}

void qv_vanc_teletext_encoder::set_area(size_t nLinesField1, size_t nLinesField2)
{
    m_nAreaLines[0] = nLinesField1;
    m_nAreaLines[1] = m_bProgressive ? 0 : nLinesField2;
}

bool qv_vanc_teletext_encoder::line_in_area(bool bFirstField, int nLine) const
{
    return nLine > 0 && static_cast<size_t>(nLine) <= m_nAreaLines[bFirstField ? 0 : 1];
}

bool qv_vanc_teletext_encoder::line_taken(bool bFirstField, int nLine) const
{
    for (int i = 0; i < m_nLines; ++i)
        if (m_lines[i].nLine == nLine && m_lines[i].bFirstField == bFirstField)
            return true;
    return false;
}

void qv_vanc_teletext_encoder::report_outside(bool bFirstField, int nLine)
{
    uint64_t& reported = m_nReported[bFirstField ? 0 : 1];
    const uint64_t bit = 1ull << (static_cast<unsigned>(nLine) % 64);
    if (reported & bit)
        return;
    reported |= bit;
    g_print("qv_jt_renderer: teletext line %d of field %d is outside the %zu VBI/VANC lines of the output; "
            "nothing is written there\n",
            nLine, bFirstField ? 1 : 2, m_nAreaLines[bFirstField ? 0 : 1]);
}

void qv_vanc_teletext_encoder::count_dropped(int n)
{
    if (n <= 0)
        return;
    const uint64_t before = m_nDropped;
    m_nDropped += static_cast<uint64_t>(n);
    // One line at the first loss and at every tenfold after it: the count
    // stays visible without a line per frame.
    for (uint64_t mark = 1; mark != 0 && mark <= m_nDropped; mark *= 10) {
        if (before < mark) {
            g_print("qv_jt_renderer: teletext packets without a free line on the output: %llu dropped so far\n",
                    static_cast<unsigned long long>(m_nDropped));
            break;
        }
    }
}

int qv_vanc_teletext_encoder::next_data(const uint8_t* pData, size_t nSize)
{
    m_nLines = 0;
    m_nPackets = 0;
    if (!pData || nSize < kUnitSize || m_nLineMask == 0)
        return 0;
    // A PES data field starts with its data_identifier (0x10 to 0x1F), a value
    // no data unit id takes; a trailing partial unit is ignored below.
    if (pData[0] >= 0x10 && pData[0] <= 0x1F) {
        ++pData;
        --nSize;
    }
    int nOverflow = 0;
    for (size_t off = 0; off + kUnitSize <= nSize; off += kUnitSize) {
        const uint8_t* u = pData + off;
        if ((u[0] != 0x02 && u[0] != 0x03) || u[1] != 0x2C)
            continue; // stuffing or another service
        if (reverse_bits(u[3]) != k_framing_code)
            continue;
        if (m_nPackets == kMaxPackets) {
            ++nOverflow;
            continue;
        }
        packet& p = m_packets[m_nPackets++];
        p.bFirstField = m_bProgressive || (u[2] & 0x20) != 0;
        p.nSourceLine = u[2] & 0x1F;
        for (size_t i = 0; i < kPacketBytes; ++i)
            p.data[i] = reverse_bits(u[4 + i]);
    }
    if (m_bHD)
        prepare_hd();
    else
        prepare_sd();
    count_dropped(nOverflow);
    return m_nLines;
}

void qv_vanc_teletext_encoder::prepare_sd()
{
    int nDropped = 0;
    for (int k = 0; k < m_nPackets; ++k) {
        const packet& p = m_packets[k];
        // The data unit's line offset counts from the field's first line: line
        // 1 of field 1 is offset 1, the first line of field 2 is offset 0. The
        // lines reported here count from 1 in each field's VBI area.
        int nOffset = p.nSourceLine;
        if (nOffset == 0) {
            // "Undefined" line: the first free enabled teletext line.
            for (int o = 7; o <= 31 && nOffset == 0; ++o)
                if (line_enabled(o) && !line_taken(p.bFirstField, p.bFirstField ? o : o + 1))
                    nOffset = o;
            if (nOffset == 0) {
                ++nDropped;
                continue;
            }
        } else if (!line_enabled(nOffset)) {
            continue; // not a line the output carries teletext on
        }
        const int nLine = p.bFirstField ? nOffset : nOffset + 1;
        if (!line_in_area(p.bFirstField, nLine)) {
            report_outside(p.bFirstField, nLine);
            ++nDropped;
            continue;
        }
        if (line_taken(p.bFirstField, nLine) || m_nLines == kMaxLines) {
            ++nDropped; // a second packet for one line in one frame
            continue;
        }
        m_order[m_nLines] = k;
        line& l = m_lines[m_nLines++];
        l.bFirstField = p.bFirstField;
        l.nLine = nLine;
        l.nFirst = m_nLines - 1;
        l.nPackets = 1;
    }
    count_dropped(nDropped);
}

void qv_vanc_teletext_encoder::prepare_hd()
{
    // Descriptors name each packet's line; an "undefined" one gets the first
    // teletext line not yet named in its field, since a descriptor of 0 reads
    // as "no packet".
    for (int k = 0; k < m_nPackets; ++k) {
        packet& p = m_packets[k];
        if (p.nSourceLine != 0)
            continue;
        for (int o = 7; o <= 31 && p.nSourceLine == 0; ++o) {
            bool bUsed = false;
            for (int j = 0; j < m_nPackets && !bUsed; ++j)
                bUsed = j != k && m_packets[j].bFirstField == p.bFirstField && m_packets[j].nSourceLine == o;
            if (!bUsed)
                p.nSourceLine = o;
        }
    }

    // Free VANC lines per field, from the mask and inside the area.
    const int nFields = m_bProgressive ? 1 : 2;
    int slots[2][32];
    int nSlots[2] = {0, 0};
    for (int f = 0; f < nFields; ++f) {
        for (int nLine = 1; nLine <= 32; ++nLine) {
            if (!line_enabled(nLine))
                continue;
            if (!line_in_area(f == 0, nLine)) {
                report_outside(f == 0, nLine);
                continue;
            }
            slots[f][nSlots[f]++] = nLine;
        }
    }
    int nUsedSlots[2] = {0, 0};
    auto take_slot = [&](int f, bool& bFirstField, int& nLine) {
        // A field's own VANC first, then whatever the other field has left.
        for (int g : {f, f ^ 1}) {
            if (g < nFields && nUsedSlots[g] < nSlots[g]) {
                bFirstField = g == 0;
                nLine = slots[g][nUsedSlots[g]++];
                return true;
            }
        }
        return false;
    };

    int nOrder = 0;
    int nDropped = 0;
    for (int f = 0; f < nFields; ++f) {
        int group[kPacketsPerSdp];
        int n = 0;
        auto flush = [&]() {
            if (n == 0)
                return;
            bool bFirstField = true;
            int nLine = 0;
            if (m_nLines == kMaxLines || !take_slot(f, bFirstField, nLine)) {
                nDropped += n;
                n = 0;
                return;
            }
            line& l = m_lines[m_nLines++];
            l.bFirstField = bFirstField;
            l.nLine = nLine;
            l.nFirst = nOrder;
            l.nPackets = n;
            for (int j = 0; j < n; ++j)
                m_order[nOrder++] = group[j];
            n = 0;
        };
        for (int k = 0; k < m_nPackets; ++k) {
            if ((m_packets[k].bFirstField ? 0 : 1) != f)
                continue;
            group[n++] = k;
            if (n == kPacketsPerSdp)
                flush();
        }
        flush();
    }
    count_dropped(nDropped);
}

bool qv_vanc_teletext_encoder::get_line_info(int i, bool& bFirstField, int& nLine) const
{
    if (i < 0 || i >= m_nLines)
        return false;
    bFirstField = m_lines[i].bFirstField;
    nLine = m_lines[i].nLine;
    return nLine > 0;
}

void qv_vanc_teletext_encoder::encode_line(int i, uint16_t* pTarget, size_t nPixels)
{
    if (!pTarget || i < 0 || i >= m_nLines || m_nWidth <= 0)
        return;
    nPixels = std::min(nPixels, static_cast<size_t>(m_nWidth));
    if (m_bHD)
        encode_op47(m_lines[i], pTarget, nPixels);
    else
        encode_waveform(m_packets[m_order[m_lines[i].nFirst]], pTarget, nPixels);
}

void qv_vanc_teletext_encoder::encode_op47(const line& l, uint16_t* pTarget, size_t nPixels)
{
    // Subtitling data packet: identifier, length, format, five line
    // descriptors, the teletext packets with their run-in and framing code,
    // footer id, sequence counter and a checksum that zeroes the byte sum.
    uint8_t sdp[13 + 45 * kPacketsPerSdp];
    const int nPackets = std::min(l.nPackets, kPacketsPerSdp);
    size_t n = 0;
    sdp[n++] = 0x51;
    sdp[n++] = 0x15;
    sdp[n++] = static_cast<uint8_t>(13 + 45 * nPackets);
    sdp[n++] = 0x02; // WST teletext
    for (int d = 0; d < kPacketsPerSdp; ++d) {
        uint8_t desc = 0;
        if (d < nPackets) {
            const packet& p = m_packets[m_order[l.nFirst + d]];
            desc = static_cast<uint8_t>((p.bFirstField ? 0x80 : 0x00) | (p.nSourceLine & 0x1F));
        }
        sdp[n++] = desc;
    }
    for (int d = 0; d < nPackets; ++d) {
        sdp[n++] = 0x55;
        sdp[n++] = 0x55;
        sdp[n++] = k_framing_code;
        std::memcpy(sdp + n, m_packets[m_order[l.nFirst + d]].data, kPacketBytes);
        n += kPacketBytes;
    }
    sdp[n++] = 0x74;
    sdp[n++] = static_cast<uint8_t>(m_nSequence >> 8);
    sdp[n++] = static_cast<uint8_t>(m_nSequence);
    ++m_nSequence;
    uint8_t sum = 0;
    for (size_t k = 0; k < n; ++k)
        sum = static_cast<uint8_t>(sum + sdp[k]);
    sdp[n++] = static_cast<uint8_t>(-sum);

    // The ANC packet in the luma samples of an 8-bit line, then to 16-bit words.
    uint8_t line8[2 * 3840];
    if (nPixels > sizeof line8 / 2)
        nPixels = sizeof line8 / 2;
    for (size_t p = 0; p < nPixels; ++p) {
        line8[2 * p] = QV_BLACK_CHROMA_8;
        line8[2 * p + 1] = QV_BLACK_LUMA_8;
    }
    const uint8_t header[] = {0x00, 0xFF, 0xFF, k_op47_did, k_op47_sdid, static_cast<uint8_t>(n)};
    // The whole packet must fit the line: a cut packet would be read as another.
    if (2 * (sizeof header + n + 1) > 2 * nPixels)
        return;
    size_t y = 1;
    for (uint8_t b : header) {
        line8[y] = b;
        y += 2;
    }
    for (size_t k = 0; k < n; ++k, y += 2)
        line8[y] = sdp[k];
    line8[y] = 0; // checksum word, computed by the conversion
    ConvertSDIPacketsInYOnly8to10(pTarget, line8, nPixels);
}

void qv_vanc_teletext_encoder::encode_waveform(const packet& pk, uint16_t* pTarget, size_t nPixels) const
{
    uint8_t bytes[3 + kPacketBytes] = {0x55, 0x55, k_framing_code};
    std::memcpy(bytes + 3, pk.data, kPacketBytes);
    const int nBits = static_cast<int>(sizeof bytes) * 8;
    auto bit = [&bytes, nBits](int k) -> double {
        if (k < 0 || k >= nBits)
            return 0.0;
        return (bytes[k / 8] >> (k % 8)) & 1u; // least significant bit first
    };

    const double swing = k_level_1 - k_level_0;
    for (int p = 0; p < static_cast<int>(nPixels); ++p) {
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
