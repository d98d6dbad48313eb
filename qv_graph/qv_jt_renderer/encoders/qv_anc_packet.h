// One SMPTE 291 ancillary packet laid into an 8-bit UYVY line, the form the
// 8-to-10-bit conversion of qv_vbi_convert turns into the output's samples
// (it adds the parity bits and computes the checksum).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t QV_ANC_OVERHEAD = 7;      // ADF(3) DID SDID DC checksum
constexpr size_t QV_ANC_MAX_UDW = 255;

// Blackens the line (nBytes 8-bit samples) and writes ADF, DID, SDID, DC,
// the user data words and a checksum placeholder from the line's start: in
// every sample for SD, in the luma samples only for HD. Returns the packet's
// words, 0 when it does not fit the line (the line is then left black).
size_t qv_put_anc_packet(uint8_t* pLine, size_t nBytes, bool isSD, uint8_t nDID, uint8_t nSDID,
                         const uint8_t* pUDW, size_t nUDW);

// The 8-bit line into 16-bit samples over nPixels pixels, SD or HD as above.
void qv_convert_anc_line(const uint8_t* pLine, bool isSD, uint16_t* pDst, size_t nPixels);
