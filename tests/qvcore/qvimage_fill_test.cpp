#include "qvimage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "qvimage_test_util.h"

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

// Expected bytes of one filled row start per plane, for colour (r, g, b).
struct FillCase {
    QVEnumFormats format;
    std::vector<std::vector<uint8_t>> planeUnits; // repeating unit of each plane
};

class FillColorTest : public testing::TestWithParam<FillCase> {};

// Red is a colour whose Y, Cb and Cr all differ, so swapped components show.
TEST_P(FillColorTest, WritesEveryPlaneInItsLayout)
{
    const FillCase& c = GetParam();
    const int w = 8, h = 4;
    QVImage img(w, h, FieldOrder_Progressive, c.format);
    std::memset(img.data(0), 0, img.memory().size());
    img.fillColor(255, 0, 0);
    const std::vector<PlaneRows> rows = planeRows(c.format, w, h);
    ASSERT_EQ(rows.size(), c.planeUnits.size());
    for (size_t p = 0; p < rows.size(); ++p) {
        const std::vector<uint8_t>& unit = c.planeUnits[p];
        for (int y = 0; y < rows[p].rows; ++y)
            for (int x = 0; x < rows[p].bytes; ++x)
                ASSERT_EQ(rowOf(img, int(p), y)[x], unit[size_t(x) % unit.size()])
                    << "plane " << p << " row " << y << " byte " << x;
    }
}

// Red: Y 81, Cb 90, Cr 240.
INSTANTIATE_TEST_SUITE_P(
    Formats, FillColorTest,
    testing::Values(FillCase{FORMAT_UYVY, {{90, 81, 240, 81}}}, FillCase{FORMAT_YUY2, {{81, 90, 81, 240}}},
                    FillCase{FORMAT_YVYU, {{81, 240, 81, 90}}}, FillCase{FORMAT_BGR, {{0, 0, 255}}},
                    FillCase{FORMAT_BGRp, {{0, 0, 255}}}, FillCase{FORMAT_BGRA, {{0, 0, 255, 255}}},
                    FillCase{FORMAT_BGRAp, {{0, 0, 255, 255}}}, FillCase{FORMAT_YV12, {{81}, {240}, {90}}},
                    FillCase{FORMAT_IYUV, {{81}, {90}, {240}}}, FillCase{FORMAT_NV12, {{81}, {90, 240}}},
                    FillCase{FORMAT_YUVA, {{81}, {90}, {240}, {255}}}));

} // namespace
