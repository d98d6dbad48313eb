// Writes an 8-bit UYVY picture (limited range) to an RGB PNG.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvboardsim {

// bt709 selects the HD matrix, otherwise BT.601.
bool write_png_uyvy(const std::string& file, const uint8_t* uyvy, uint32_t width, uint32_t lines,
                    size_t stride, bool bt709);

} // namespace qvboardsim
