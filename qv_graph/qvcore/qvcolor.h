// A fill colour in both the RGB and the Y'CbCr form, so fills of either kind of
// format need no per-pixel conversion.
#pragma once

namespace QVSDK {

class QVColor {
public:
    unsigned char m_bgra[4] = {0, 0, 0, 255};    // blue, green, red, alpha
    unsigned char m_yuva[4] = {16, 128, 128, 255}; // Y, Cb, Cr, alpha (studio range)

    QVColor() = default;
    // Studio-range BT.601 Y'CbCr of a full-range RGB colour, rounded.
    static QVColor fromRGB(unsigned char r, unsigned char g, unsigned char b, unsigned char a = 255);
};

} // namespace QVSDK
