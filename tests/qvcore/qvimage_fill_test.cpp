#include "qvimage.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace QVSDK;

namespace {

// Independent oracle: BT.601 studio-range conversion in floating point.
void referenceYuv(int r, int g, int b, double* y, double* u, double* v)
{
    *y = 16.0 + (65.481 * r + 128.553 * g + 24.966 * b) / 255.0;
    *u = 128.0 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255.0;
    *v = 128.0 + (112.0 * r - 93.786 * g - 18.214 * b) / 255.0;
}

TEST(QVColorTest, MatchesFloatingPointConversionOverTheRgbCube)
{
    for (int r = 0; r < 256; r += 15) {
        for (int g = 0; g < 256; g += 15) {
            for (int b = 0; b < 256; b += 15) {
                const QVColor c = QVColor::fromRGB(uint8_t(r), uint8_t(g), uint8_t(b));
                double y, u, v;
                referenceYuv(r, g, b, &y, &u, &v);
                ASSERT_NEAR(c.m_yuva[0], y, 1.0) << r << "," << g << "," << b;
                ASSERT_NEAR(c.m_yuva[1], u, 1.0) << r << "," << g << "," << b;
                ASSERT_NEAR(c.m_yuva[2], v, 1.0) << r << "," << g << "," << b;
                ASSERT_EQ(c.m_bgra[0], b);
                ASSERT_EQ(c.m_bgra[2], r);
                ASSERT_EQ(c.m_bgra[3], 255);
            }
        }
    }
    const QVColor black = QVColor::fromRGB(0, 0, 0);
    EXPECT_EQ(black.m_yuva[0], 16);
    EXPECT_EQ(black.m_yuva[1], 128);
    EXPECT_EQ(black.m_yuva[2], 128);
    EXPECT_EQ(QVColor::fromRGB(255, 255, 255).m_yuva[0], 235);
}

} // namespace
