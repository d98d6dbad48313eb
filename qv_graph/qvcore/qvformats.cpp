#include "qvformats.h"

namespace QVSDK {

const int cDepthFromFormat[cDepthFromFormatCount] = {
    2, // UYVY
    0, 0, 0, 0,
    2, // YUY2
    2, // YVYU
    3, // BGR
    4, // BGRA
    0,
    2, // YV12 (luma plane)
    2, // IYUV (luma plane)
    4, // YUVA
    0, 0, 0, 0,
    3, // BGRp
    4, // BGRAp
};

int depthFromFormat(QVEnumFormats f)
{
    const int i = static_cast<int>(f);
    return i >= 0 && i < cDepthFromFormatCount ? cDepthFromFormat[i] : 0;
}

bool isPlanarFormat(QVEnumFormats f)
{
    return f == FORMAT_YV12 || f == FORMAT_IYUV || f == FORMAT_YUVA || f == FORMAT_NV12;
}

bool isRGBFormat(QVEnumFormats f)
{
    return f == FORMAT_BGR || f == FORMAT_BGRp;
}

bool isRGBAFormat(QVEnumFormats f)
{
    return f == FORMAT_BGRA || f == FORMAT_BGRAp;
}

bool isProgressiveImage(QVFieldOrder order)
{
    return order > FieldOrder_Lower_First;
}

} // namespace QVSDK
