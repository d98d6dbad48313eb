// Plane geometry of each format, written out independently of the library so
// that tests do not check the code against itself.
#pragma once

#include <vector>

#include "qvimage.h"

struct PlaneRows {
    int rows;
    int bytes;
};

inline std::vector<PlaneRows> planeRows(QVSDK::QVEnumFormats f, int w, int h)
{
    using namespace QVSDK;
    switch (f) {
    case FORMAT_UYVY:
    case FORMAT_YUY2:
    case FORMAT_YVYU:
        return {{h, 2 * w}};
    case FORMAT_BGR:
    case FORMAT_BGRp:
        return {{h, 3 * w}};
    case FORMAT_BGRA:
    case FORMAT_BGRAp:
        return {{h, 4 * w}};
    case FORMAT_NV12:
        return {{h, w}, {h / 2, w}};
    case FORMAT_YV12:
    case FORMAT_IYUV:
        return {{h, w}, {h / 2, w / 2}, {h / 2, w / 2}};
    case FORMAT_YUVA:
        return {{h, w}, {h, w}, {h, w}, {h, w}};
    default:
        return {};
    }
}

inline unsigned char* rowOf(const QVSDK::QVImage& img, int plane, int y)
{
    return img.data(plane) + std::ptrdiff_t(y) * img.stride(plane);
}
