#include "qvrect.h"

#include <gtest/gtest.h>

#include <vector>

using namespace QVSDK;

namespace {

// Counts how often each cell of a small grid is covered by a set of rectangles.
std::vector<int> coverage(const std::vector<QVRect>& rects, int w, int h)
{
    std::vector<int> cells(size_t(w * h), 0);
    for (const QVRect& r : rects)
        for (int y = r.y1; y < r.y2; ++y)
            for (int x = r.x1; x < r.x2; ++x)
                if (x >= 0 && x < w && y >= 0 && y < h)
                    ++cells[size_t(y * w + x)];
    return cells;
}

struct SubtractCase {
    QVRect hole;
    size_t parts;
};

class SubtractTest : public testing::TestWithParam<SubtractCase> {};

// Oracle: the bands cover every cell of the rectangle outside the hole exactly
// once and no cell inside it.
TEST_P(SubtractTest, BandsTileTheRemainder)
{
    const QVRect outer(2, 2, 20, 16);
    const SubtractCase& c = GetParam();
    const std::vector<QVRect> parts = outer.subtract(c.hole);
    EXPECT_EQ(parts.size(), c.parts);
    const std::vector<int> cells = coverage(parts, 30, 30);
    for (int y = 0; y < 30; ++y) {
        for (int x = 0; x < 30; ++x) {
            const bool inOuter = x >= outer.x1 && x < outer.x2 && y >= outer.y1 && y < outer.y2;
            const bool inHole = x >= c.hole.x1 && x < c.hole.x2 && y >= c.hole.y1 && y < c.hole.y2;
            EXPECT_EQ(cells[size_t(y * 30 + x)], inOuter && !inHole ? 1 : 0) << "cell " << x << "," << y;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Table, SubtractTest,
                         testing::Values(SubtractCase{QVRect(6, 6, 4, 4), 4}, SubtractCase{QVRect(0, 0, 30, 30), 0},
                                         SubtractCase{QVRect(0, 0, 10, 30), 1}, SubtractCase{QVRect(0, 0, 10, 8), 2},
                                         SubtractCase{QVRect(25, 25, 3, 3), 1}, SubtractCase{QVRect(20, 2, 5, 5), 2}));

} // namespace
