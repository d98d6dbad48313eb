// MPEG-2 PSI CRC-32: polynomial 0x04C11DB7, initial value 0xFFFFFFFF, most significant
// bit first, no reflection, no final inversion. Running it over a whole section
// including its CRC field gives 0.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mpegcore {

extern const uint32_t g_MPEG2_PSI_CRC_32_Lookup[256];

uint32_t mpeg2_crc32(const unsigned char* data, size_t length, uint32_t crc = 0xFFFFFFFFu);

} // namespace mpegcore
