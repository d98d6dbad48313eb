// Small pictures whose bytes carry a number, so that a test can tell which
// input frame came out.
#pragma once

#include "qvimage.h"

#include <cstdint>
#include <cstring>

namespace fifo_test {

constexpr int kW = 64;
constexpr int kH = 16;

inline QVSDK::QVImage numbered_uyvy(uint8_t n, int w = kW, int h = kH)
{
    QVSDK::QVImage img(w, h, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
    for (int y = 0; y < h; ++y)
        std::memset(img.data(0) + static_cast<ptrdiff_t>(y) * img.stride(0), n, static_cast<size_t>(w) * 2);
    return img;
}

inline uint8_t number_of(const QVSDK::QVImage& img)
{
    return img.data(0)[0];
}

} // namespace fifo_test
