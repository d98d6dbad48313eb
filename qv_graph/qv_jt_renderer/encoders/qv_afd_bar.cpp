#include "qv_afd_bar.h"

namespace {

constexpr uint8_t k_flags_top_bottom = 0xC0;
constexpr uint8_t k_flags_left_right = 0x30;

} // namespace

void qv_afd_bar_write(const qv_afd_bar& afd, uint8_t (&udw)[QV_AFD_UDW])
{
    // Word 1: 0, AFD code (4 bits), aspect ratio, 0, 0; words 2 and 3 reserved.
    udw[0] = static_cast<uint8_t>((afd.nAfd & 0x0F) << 3 | (afd.bWide ? 0x04 : 0x00));
    udw[1] = 0;
    udw[2] = 0;
    // Word 4: top, bottom, left, right bar flags, four reserved bits.
    udw[3] = afd.bBars ? (afd.bLetterbox ? k_flags_top_bottom : k_flags_left_right) : 0;
    const uint16_t v1 = afd.bBars ? afd.nBar1 : 0;
    const uint16_t v2 = afd.bBars ? afd.nBar2 : 0;
    udw[4] = static_cast<uint8_t>(v1 >> 8);
    udw[5] = static_cast<uint8_t>(v1);
    udw[6] = static_cast<uint8_t>(v2 >> 8);
    udw[7] = static_cast<uint8_t>(v2);
}

bool qv_afd_bar_read(const uint8_t* pUDW, size_t nSize, qv_afd_bar& afd)
{
    if (!pUDW || nSize != QV_AFD_UDW || (pUDW[0] & 0x83) != 0 || (pUDW[3] & 0x0F) != 0)
        return false;
    afd = qv_afd_bar{};
    afd.nAfd = (pUDW[0] >> 3) & 0x0F;
    afd.bWide = (pUDW[0] & 0x04) != 0;
    const uint8_t flags = pUDW[3] & 0xF0;
    if (flags != 0 && flags != k_flags_top_bottom && flags != k_flags_left_right)
        return false;
    afd.bBars = flags != 0;
    afd.bLetterbox = flags != k_flags_left_right;
    afd.nBar1 = static_cast<uint16_t>(pUDW[4] << 8 | pUDW[5]);
    afd.nBar2 = static_cast<uint16_t>(pUDW[6] << 8 | pUDW[7]);
    return true;
}
