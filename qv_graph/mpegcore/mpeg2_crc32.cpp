#include "mpeg2_crc32.h"

#include <array>

namespace mpegcore {

namespace {
constexpr std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i << 24;
        for (int b = 0; b < 8; ++b)
            c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : (c << 1);
        t[i] = c;
    }
    return t;
}
constexpr std::array<uint32_t, 256> kTable = make_table();
} // namespace

// Exported as a plain array so that code outside this file can run the CRC byte by byte.
const uint32_t g_MPEG2_PSI_CRC_32_Lookup[256] = {
#define QV_CRC_ROW(i) kTable[i], kTable[i + 1], kTable[i + 2], kTable[i + 3], \
                      kTable[i + 4], kTable[i + 5], kTable[i + 6], kTable[i + 7]
    QV_CRC_ROW(0),   QV_CRC_ROW(8),   QV_CRC_ROW(16),  QV_CRC_ROW(24),  QV_CRC_ROW(32),
    QV_CRC_ROW(40),  QV_CRC_ROW(48),  QV_CRC_ROW(56),  QV_CRC_ROW(64),  QV_CRC_ROW(72),
    QV_CRC_ROW(80),  QV_CRC_ROW(88),  QV_CRC_ROW(96),  QV_CRC_ROW(104), QV_CRC_ROW(112),
    QV_CRC_ROW(120), QV_CRC_ROW(128), QV_CRC_ROW(136), QV_CRC_ROW(144), QV_CRC_ROW(152),
    QV_CRC_ROW(160), QV_CRC_ROW(168), QV_CRC_ROW(176), QV_CRC_ROW(184), QV_CRC_ROW(192),
    QV_CRC_ROW(200), QV_CRC_ROW(208), QV_CRC_ROW(216), QV_CRC_ROW(224), QV_CRC_ROW(232),
    QV_CRC_ROW(240), QV_CRC_ROW(248),
#undef QV_CRC_ROW
};

uint32_t mpeg2_crc32(const unsigned char* data, size_t length, uint32_t crc)
{
    for (size_t i = 0; i < length; ++i)
        crc = (crc << 8) ^ g_MPEG2_PSI_CRC_32_Lookup[((crc >> 24) ^ data[i]) & 0xFFu];
    return crc;
}

} // namespace mpegcore
