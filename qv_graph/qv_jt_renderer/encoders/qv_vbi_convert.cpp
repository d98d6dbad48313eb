#include "qv_vbi_convert.h"

namespace {
// ADF 00 FF FF, then DID, SDID, DC: the data count sits three words after the ADF.
constexpr size_t kAdfWords = 3;
constexpr size_t kDcWord = 5;
constexpr size_t kPacketOverheadWords = 7; // ADF(3) DID SDID DC CS

inline uint16_t plain10(uint8_t b)
{
    return static_cast<uint16_t>(b) << 2;
}

// Sum of the 10-bit words DID..last UDW, to 9 bits, bit 9 = NOT bit 8.
inline uint16_t checksum_word(uint32_t sum)
{
    uint16_t cs = static_cast<uint16_t>(sum & 0x1FF);
    return static_cast<uint16_t>(cs | ((~cs & 0x100u) << 1));
}

inline void pack_group(uint8_t* d, uint16_t s0, uint16_t s1, uint16_t s2, uint16_t s3)
{
    const uint32_t w = uint32_t(s0) | uint32_t(s1) << 10 | uint32_t(s2) << 20 | uint32_t(s3 & 3u) << 30;
    d[0] = static_cast<uint8_t>(w);
    d[1] = static_cast<uint8_t>(w >> 8);
    d[2] = static_cast<uint8_t>(w >> 16);
    d[3] = static_cast<uint8_t>(w >> 24);
    d[4] = static_cast<uint8_t>(s3 >> 2);
}
} // namespace

void BlackUYVY16(uint16_t* pBuffer, size_t nBytes)
{
    if (!pBuffer)
        return;
    for (size_t i = 0; i < nBytes / 4; ++i) {
        pBuffer[2 * i] = QV_BLACK_CHROMA_10;
        pBuffer[2 * i + 1] = QV_BLACK_LUMA_10;
    }
}

void BlackUYVY10(uint8_t* pBuffer, size_t nBytes)
{
    if (!pBuffer)
        return;
    for (size_t g = 0; g < nBytes / 5; ++g)
        pack_group(pBuffer + 5 * g, QV_BLACK_CHROMA_10, QV_BLACK_LUMA_10, QV_BLACK_CHROMA_10, QV_BLACK_LUMA_10);
}

size_t PackVBI_UYVY16toUYVY10(const uint16_t* pSrc, size_t nSrcBytes, uint8_t* pDst, size_t nDstBytes)
{
    if (!pSrc || !pDst)
        return 0;
    const size_t groups = nDstBytes / 5 < nSrcBytes / 8 ? nDstBytes / 5 : nSrcBytes / 8;
    for (size_t g = 0; g < groups; ++g) {
        const uint16_t* s = pSrc + 4 * g;
        pack_group(pDst + 5 * g, s[0] & 0x3FF, s[1] & 0x3FF, s[2] & 0x3FF, s[3] & 0x3FF);
    }
    return groups * 5;
}

bool CopyVBIData16to10(uint8_t* pDst, const uint16_t* pSrc, size_t nPixels)
{
    if (!pSrc || !pDst)
        return true;
    for (size_t g = 0; g < nPixels / 2; ++g) {
        const uint16_t* s = pSrc + 4 * g;
        // s3 goes in unmasked; the fifth byte keeps only its bits 2-9 in any case.
        pack_group(pDst + 5 * g, s[0] & 0x3FF, s[1] & 0x3FF, s[2] & 0x3FF, s[3]);
    }
    return true;
}

uint8_t ByteOfValue(int16_t nValue)
{
    return nValue < 0 ? 0 : nValue > 255 ? 255 : static_cast<uint8_t>(nValue);
}

uint16_t AncWordWithParity(uint8_t nValue)
{
    const unsigned parity = __builtin_popcount(nValue) & 1u;
    return static_cast<uint16_t>(nValue | parity << 8 | (parity ^ 1u) << 9);
}

bool ConvertSDIPacketsInUYVY8to10(uint16_t* pDst, const uint8_t* pSrc, size_t nPixels)
{
    if (!pDst || !pSrc)
        return true;
    const size_t n = nPixels * 2;
    size_t i = 0;
    while (i < n) {
        if (n - i > 6 && pSrc[i] == 0x00 && pSrc[i + 1] == 0xFF && pSrc[i + 2] == 0xFF) {
            const size_t len = size_t(pSrc[i + kDcWord]) + kPacketOverheadWords;
            if (n - i < len)
                return false;
            pDst[i] = 0x000;
            pDst[i + 1] = 0x3FF;
            pDst[i + 2] = 0x3FF;
            uint32_t sum = 0;
            for (size_t k = i + kAdfWords; k < i + len - 1; ++k) {
                pDst[k] = AncWordWithParity(pSrc[k]);
                sum += pDst[k];
            }
            pDst[i + len - 1] = checksum_word(sum);
            i += len;
        } else {
            pDst[i] = plain10(pSrc[i]);
            ++i;
        }
    }
    return true;
}

bool ConvertSDIPacketsInYOnly8to10(uint16_t* pDst, const uint8_t* pSrc, size_t nPixels)
{
    if (!pDst || !pSrc)
        return true;
    const size_t n = nPixels * 2;
    size_t i = 0;
    while (i < n) {
        if (n - i >= 14 && pSrc[i + 1] == 0x00 && pSrc[i + 3] >= 0xFF && pSrc[i + 5] >= 0xFF) {
            const size_t len = size_t(pSrc[i + 2 * kDcWord + 1]) * 2 + 2 * kPacketOverheadWords;
            if (n - i < len)
                return false;
            // The chroma samples beside the ADF are left as the destination held them.
            pDst[i + 1] = 0x000;
            pDst[i + 3] = 0x3FF;
            pDst[i + 5] = 0x3FF;
            uint32_t sum = 0;
            const size_t checksumPos = i + len - 1;
            for (size_t p = i + 2 * kAdfWords; p < i + len; ++p) {
                if ((p - i) % 2 == 0) {
                    pDst[p] = plain10(pSrc[p]);
                } else if (p < checksumPos) {
                    pDst[p] = AncWordWithParity(pSrc[p]);
                    sum += pDst[p];
                } else {
                    pDst[p] = checksum_word(sum);
                }
            }
            i += len;
        } else {
            pDst[i] = plain10(pSrc[i]);
            pDst[i + 1] = plain10(pSrc[i + 1]);
            i += 2;
        }
    }
    return true;
}
