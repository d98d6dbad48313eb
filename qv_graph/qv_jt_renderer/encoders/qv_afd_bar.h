// Active format description and bar data as the eight user data words of
// their ancillary packet (DID 0x41, SDID 0x05). Writer and reader side by side.
#pragma once

#include <cstddef>
#include <cstdint>

struct qv_afd_bar {
    uint8_t nAfd = 0;        // 4-bit active format code
    bool bWide = false;      // aspect ratio flag: picture 16:9 (else 4:3)
    // Bar data: top and bottom bars (letterbox) or left and right (pillarbox).
    bool bBars = false;
    bool bLetterbox = true;
    uint16_t nBar1 = 0;      // last line of the top bar, or last pixel of the left bar
    uint16_t nBar2 = 0;      // first line of the bottom bar, or first pixel of the right bar

    bool operator==(const qv_afd_bar& o) const
    {
        return nAfd == o.nAfd && bWide == o.bWide && bBars == o.bBars &&
               (!bBars || (bLetterbox == o.bLetterbox && nBar1 == o.nBar1 && nBar2 == o.nBar2));
    }
};

constexpr uint8_t QV_AFD_DID = 0x41;
constexpr uint8_t QV_AFD_SDID = 0x05;
constexpr size_t QV_AFD_UDW = 8;

void qv_afd_bar_write(const qv_afd_bar& afd, uint8_t (&udw)[QV_AFD_UDW]);
// False when the words are not a packet the writer could have made (reserved
// bits set, or bar flags other than both top/bottom or both left/right).
bool qv_afd_bar_read(const uint8_t* pUDW, size_t nSize, qv_afd_bar& afd);
