#include "qvcolor.h"

namespace QVSDK {

// Coefficients are the BT.601 matrix scaled to studio range in 15-bit fixed
// point; the constants carry the 16/128 offsets plus one half for rounding.
QVColor QVColor::fromRGB(unsigned char r, unsigned char g, unsigned char b, unsigned char a)
{
    const int R = r;
    const int G = g;
    const int B = b;
    QVColor c;
    c.m_bgra[0] = b;
    c.m_bgra[1] = g;
    c.m_bgra[2] = r;
    c.m_bgra[3] = a;
    c.m_yuva[0] = static_cast<unsigned char>((8453 * R + 16594 * G + 3223 * B + 524288) >> 15);
    c.m_yuva[1] = static_cast<unsigned char>((-4878 * R - 9578 * G + 14456 * B + 4210688) >> 15);
    c.m_yuva[2] = static_cast<unsigned char>((14456 * R - 12105 * G - 2351 * B + 4210688) >> 15);
    c.m_yuva[3] = a;
    return c;
}

} // namespace QVSDK
