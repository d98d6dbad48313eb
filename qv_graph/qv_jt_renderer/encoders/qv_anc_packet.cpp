#include "qv_anc_packet.h"

#include "qv_vanc_scte104_encoder.h"
#include "qv_vbi_convert.h"

size_t qv_put_anc_packet(uint8_t* pLine, size_t nBytes, bool isSD, uint8_t nDID, uint8_t nSDID,
                         const uint8_t* pUDW, size_t nUDW)
{
    if (!pLine)
        return 0;
    qv_vanc_scte104_encoder::fill(pLine, nBytes);
    const size_t nWords = nUDW + QV_ANC_OVERHEAD;
    const size_t nRoom = isSD ? nBytes : nBytes / 2;
    if (nUDW > QV_ANC_MAX_UDW || (nUDW > 0 && !pUDW) || nWords > nRoom)
        return 0;
    const size_t step = isSD ? 1 : 2;
    const size_t first = isSD ? 0 : 1;
    size_t k = 0;
    auto put = [&](uint8_t v) { pLine[first + step * k++] = v; };
    put(0x00);
    put(0xFF);
    put(0xFF);
    put(nDID);
    put(nSDID);
    put(static_cast<uint8_t>(nUDW));
    for (size_t i = 0; i < nUDW; ++i)
        put(pUDW[i]);
    put(0x00);
    return nWords;
}

void qv_convert_anc_line(const uint8_t* pLine, bool isSD, uint16_t* pDst, size_t nPixels)
{
    if (!pLine || !pDst)
        return;
    // The HD conversion leaves the chroma samples beside the ADF as it finds them.
    BlackUYVY16(pDst, nPixels * 4);
    if (isSD)
        ConvertSDIPacketsInUYVY8to10(pDst, pLine, nPixels);
    else
        ConvertSDIPacketsInYOnly8to10(pDst, pLine, nPixels);
}
