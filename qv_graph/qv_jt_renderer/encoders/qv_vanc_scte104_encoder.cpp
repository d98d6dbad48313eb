#include "qv_vanc_scte104_encoder.h"

#include "qv_anc_packet.h"
#include "qv_vbi_convert.h"

#include <glib.h>

#include <algorithm>

namespace {
// SMPTE 2010 payload descriptor bits.
constexpr uint8_t kDescVersion = 0x08;
constexpr uint8_t kDescFollow = 0x04;    // more packets of this message follow
constexpr uint8_t kDescContinued = 0x02; // not the message's first packet
} // namespace

void qv_vanc_scte104_encoder::init(bool isSD, size_t lineCount, size_t width)
{
    m_vLine.clear();
    m_vReported.clear();
    m_isSD = isSD;
    m_nLineCount = lineCount;
    m_vbiDX = width;
    m_vLine.reserve(lineCount);
    for (size_t i = 0; i < lineCount; ++i)
        m_vLine.emplace_back(new uint8_t[width > 0 ? width * 2 : 1]());
}

void qv_vanc_scte104_encoder::fill(uint8_t* pLine, size_t nBytes)
{
    if (!pLine)
        return;
    for (size_t i = 0; i + 1 < nBytes; i += 2) {
        pLine[i] = QV_BLACK_CHROMA_8;
        pLine[i + 1] = QV_BLACK_LUMA_8;
    }
}

std::vector<qv_vanc_scte104_encoder::packet> qv_vanc_scte104_encoder::encoder(const uint8_t* pMessage, size_t nSize,
                                                                              size_t lineLength)
{
    std::vector<packet> result;
    // Never place words beyond the line buffers, whatever row length the caller has.
    lineLength = std::min(lineLength, m_vbiDX * 2);
    const size_t nWords = m_isSD ? lineLength : lineLength / 2;
    const size_t nCapacity = (nWords / kMaxPacketWords) * kMaxPayload +
                             std::max(nWords % kMaxPacketWords, kPacketOverhead) - kPacketOverhead;
    if (!pMessage || nSize == 0 || nCapacity == 0 || m_nLineCount == 0 ||
        nSize > std::min(nCapacity * m_nLineCount, kMaxMessage))
        return result;

    const size_t chunkMax = nCapacity > kMaxPayload ? kMaxPayload : nCapacity;
    // The room left (nRoom) runs over all lines of the message, not per line (deliberate): a
    // message never takes more than one line's capacity in total.
    size_t nRoom = nCapacity;
    size_t left = nSize;
    const uint8_t* src = pMessage;
    for (size_t i = 0; i < m_vLine.size() && left > 0 && nRoom > 0; ++i) {
        uint8_t* line = m_vLine[i].get();
        const size_t n = std::min({chunkMax, left, nRoom});
        const size_t nRoomAfter = n < nRoom ? nRoom - n : 0;
        const bool more = left > n && nRoomAfter > 0 && i + 1 < m_vLine.size();
        // User data: the payload descriptor, then this packet's part of the message.
        uint8_t udw[kMaxPayload + 1];
        udw[0] = kDescVersion;
        if (more)
            udw[0] |= kDescFollow;
        if (i > 0)
            udw[0] |= kDescContinued;
        std::copy(src, src + n, udw + 1);
        result.emplace_back(line, qv_put_anc_packet(line, m_vbiDX * 2, m_isSD, kDID, kSDID, udw, n + 1));
        src += n;
        left -= n;
        nRoom = nRoomAfter;
    }
    return result;
}

void qv_vanc_scte104_encoder::report_line_outside(uint32_t nLine, size_t nLines)
{
    if (std::find(m_vReported.begin(), m_vReported.end(), nLine) != m_vReported.end())
        return;
    m_vReported.push_back(nLine);
    g_print("qv_jt_renderer: SCTE-104 line %u is outside the %zu VBI/VANC lines of the output; "
            "its packets are not written\n",
            nLine, nLines);
}

bool qv_vanc_scte104_encoder::convert(const uint8_t* pLine, size_t, uint16_t* pDst, size_t nDstSize) const
{
    if (!pLine || !pDst)
        return true;
    // nDstSize is in 16-bit samples, two per pixel.
    const size_t pixels = std::min(m_vbiDX, nDstSize / 2);
    if (m_isSD)
        ConvertSDIPacketsInUYVY8to10(pDst, pLine, pixels);
    else
        ConvertSDIPacketsInYOnly8to10(pDst, pLine, pixels);
    return true;
}
