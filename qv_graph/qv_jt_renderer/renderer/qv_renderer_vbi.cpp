// Writing a frame's ancillary data into its VBI/VANC lines: teletext, SCTE-104
// and raw VBI.
#include "qv_renderer.h"

#include <algorithm>
#include <cstring>

void qv_renderer::write_teletext_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    const int nLines = m_teletext_encoder.next_data(data.data(), data.size());
    for (int i = 0; i < nLines; ++i) {
        bool bFirstField = true;
        int nLine = 0;
        if (!m_teletext_encoder.get_line_info(i, bFirstField, nLine) || nLine <= 0)
            continue;
        uint16_t* pTarget = nullptr;
        if (vbi.m_bValid) {
            const size_t row = bFirstField ? static_cast<size_t>(nLine - 1)
                                           : static_cast<size_t>(nLine - 1) + vbi.m_nLines[0];
            vbi.m_bUsed[bFirstField ? 0 : 1][nLine - 1] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + row * vbi.m_nStride);
        }
        m_teletext_encoder.encode_line(i, pTarget);
    }
}

void qv_renderer::write_scte104_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    const size_t nRow = vbi.m_nStride / 2;
    const auto packets = m_scte104_encoder.encoder(data.data(), data.size(), nRow);
    // Rows are addressed by the stored line number itself (one below teletext's).
    for (size_t k = 0; k < packets.size() && k < m_linesSCTE104.size(); ++k) {
        const uint32_t n = m_linesSCTE104[k];
        uint16_t* pTarget = nullptr;
        if (vbi.m_bValid && n < 1024) {
            vbi.m_bUsed[0][n] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + n * vbi.m_nStride);
        }
        m_scte104_encoder.convert(packets[k], pTarget, nRow);
    }
}

void qv_renderer::write_vbi_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    if (!vbi.m_pData)
        return;
    std::memcpy(vbi.m_pData, data.data(), std::min(data.size(), vbi.m_nSize));
}

