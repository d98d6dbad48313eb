// Writing a frame's ancillary data into its VBI/VANC lines: teletext, SCTE-104,
// raw VBI, and the captions and AFD of the pictures' metadata.
#include "qv_playout_core.h"

#include "qv_anc_packet.h"

#include <algorithm>
#include <cstring>

namespace {

// Byte offset of a row of the area, or false when the whole row does not lie
// inside it: no property value and no input may make a write leave the area.
bool row_offset(const qv_vbi_data& vbi, size_t nRow, size_t& nOffset)
{
    if (!vbi.m_bValid || vbi.m_pData == nullptr || vbi.m_nStride == 0)
        return false;
    if (nRow >= vbi.m_nLines[0] + vbi.m_nLines[1] || nRow >= vbi.m_nSize / vbi.m_nStride)
        return false;
    nOffset = nRow * vbi.m_nStride;
    return true;
}

} // namespace

void qv_playout_core::write_teletext_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    // The encoder never hands out a line beyond the area's own line counts.
    if (vbi.m_bValid)
        m_teletext_encoder.set_area(vbi.m_nLines[0], vbi.m_nLines[1]);
    const int nLines = m_teletext_encoder.next_data(data.data(), data.size());
    for (int i = 0; i < nLines; ++i) {
        bool bFirstField = true;
        int nLine = 0;
        if (!m_teletext_encoder.get_line_info(i, bFirstField, nLine) || nLine <= 0 || nLine > 1024)
            continue;
        uint16_t* pTarget = nullptr;
        const size_t nFieldRow = static_cast<size_t>(nLine - 1);
        const size_t nRow = bFirstField ? nFieldRow : nFieldRow + vbi.m_nLines[0];
        size_t nOffset = 0;
        if (nFieldRow < vbi.m_nLines[bFirstField ? 0 : 1] && row_offset(vbi, nRow, nOffset)) {
            vbi.m_bUsed[bFirstField ? 0 : 1][nFieldRow] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + nOffset);
        }
        m_teletext_encoder.encode_line(i, pTarget, vbi.m_nStride / 4);
    }
}

void qv_playout_core::write_scte104_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    const size_t nRow = vbi.m_nStride / 2;
    const auto packets = m_scte104_encoder.encoder(data.data(), data.size(), nRow);
    // Rows are addressed by the stored line number itself (one below teletext's).
    for (size_t k = 0; k < packets.size() && k < m_linesSCTE104.size(); ++k) {
        const uint32_t n = m_linesSCTE104[k];
        uint16_t* pTarget = nullptr;
        size_t nOffset = 0;
        if (n < vbi.m_nLines[0] && n < 1024 && row_offset(vbi, n, nOffset)) {
            vbi.m_bUsed[0][n] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + nOffset);
        } else if (vbi.m_bValid) {
            m_scte104_encoder.report_line_outside(n, vbi.m_nLines[0]);
        }
        m_scte104_encoder.convert(packets[k], pTarget, nRow);
    }
}

void qv_playout_core::write_metadata_to_vbi(const qv_frame_ancillary& current, qv_vbi_data& vbi)
{
    const auto write = [&](uint32_t nRow, uint8_t nDID, uint8_t nSDID, const uint8_t* pUDW, size_t nUDW) {
        size_t nOffset = 0;
        if (nRow == k_no_row || nRow >= vbi.m_nLines[0] || !row_offset(vbi, nRow, nOffset))
            return false;
        const size_t nPixels = std::min(m_ancLine.size() / 2, vbi.m_nStride / 4);
        if (!qv_put_anc_packet(m_ancLine.data(), nPixels * 2, m_bAncSD, nDID, nSDID, pUDW, nUDW))
            return false;
        vbi.m_bUsed[0][nRow] = true;
        qv_convert_anc_line(m_ancLine.data(), m_bAncSD,
                            reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + nOffset), nPixels);
        return true;
    };
    // Once captions have come, every frame carries a cdp, padding when the
    // queue is empty, so that decoders see a regular sequence.
    const qv_cc_counters& c = m_cc_queue.counters();
    if (c.nTripletsQueued + c.nTripletsSent + c.nTripletsDropped > 0) {
        uint8_t cdp[QV_CDP_MAX_SIZE];
        const size_t n = m_cc_queue.next_cdp(cdp, sizeof cdp);
        if (n > 0)
            write(m_nCaptionRow, 0x61, 0x01, cdp, n);
    }
    // The statistics are zeroed when play-out starts, the queue's counters
    // are not: what changed since the last frame is added.
    const qv_cc_counters& last = m_ccReported;
    {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        qv_caption_statistics& st = m_statistics.m_captions;
        st.nCaptionFrames += c.nFramesWithCaptions - last.nFramesWithCaptions;
        st.nTripletsSent += c.nTripletsSent - last.nTripletsSent;
        st.nTripletsDropped += c.nTripletsDropped - last.nTripletsDropped;
        st.nBadBlocks += c.nBadInputs - last.nBadInputs;
        st.nTripletsQueued = c.nTripletsQueued;
    }
    m_ccReported = c;
    if (current.bAfd) {
        uint8_t udw[QV_AFD_UDW];
        qv_afd_bar_write(current.afd, udw);
        if (write(m_nAfdRow, QV_AFD_DID, QV_AFD_SDID, udw, QV_AFD_UDW)) {
            std::lock_guard<std::mutex> lock(m_statistics.m_cs);
            ++m_statistics.m_captions.nAfdFrames;
        }
    }
}

void qv_playout_core::write_vbi_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    if (!vbi.m_pData)
        return;
    std::memcpy(vbi.m_pData, data.data(), std::min(data.size(), vbi.m_nSize));
}

