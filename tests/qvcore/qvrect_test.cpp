#include "qvrect.h"

#include <gtest/gtest.h>

#include <vector>

using namespace QVSDK;

namespace {

QVRect coords(int x1, int y1, int x2, int y2)
{
    QVRect r;
    r.setCoords(x1, y1, x2, y2);
    return r;
}

TEST(QVRectTest, ConstructionAndText)
{
    const QVRect r(QVSize(720, 576));
    EXPECT_EQ(r.toString(), "(0,0,720,576{720,576})");
    EXPECT_EQ(QVRect(10, 20, 30, 40).toString(), "(10,20,40,60{30,40})");
    EXPECT_EQ(coords(5, 5, -5, 0).toString(), "(5,5,-5,0{-10,-5})");
    EXPECT_TRUE(r.IsValid());
    EXPECT_FALSE(QVRect(0, 0, 0, 10).IsValid());
    EXPECT_FALSE(QVRect(0, 0, 10, -1).IsValid());
}

struct IntersectCase {
    QVRect a, b, expected;
};

class IntersectTest : public testing::TestWithParam<IntersectCase> {};

TEST_P(IntersectTest, InclusiveEdges)
{
    const IntersectCase& c = GetParam();
    EXPECT_EQ(c.a.intersect(c.b), c.expected) << c.a.intersect(c.b).toString();
    EXPECT_EQ(c.b.intersect(c.a), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, IntersectTest,
    testing::Values(IntersectCase{coords(0, 0, 10, 10), coords(10, 0, 20, 10), coords(10, 0, 10, 10)},
                    IntersectCase{coords(0, 0, 10, 10), coords(11, 0, 20, 10), QVRect()},
                    IntersectCase{coords(0, 0, 10, 10), coords(0, 12, 10, 20), QVRect()},
                    IntersectCase{coords(0, 0, 100, 100), coords(20, 30, 40, 50), coords(20, 30, 40, 50)},
                    IntersectCase{coords(0, 0, 100, 100), coords(50, -10, 150, 60), coords(50, 0, 100, 60)},
                    // A reversed rectangle is read with its edges swapped.
                    IntersectCase{coords(0, 0, 100, 100), coords(60, 60, 40, 40), coords(40, 40, 60, 60)}));

struct AlignCase {
    int mode;
    QVRect expected;
};

class AlignTest : public testing::TestWithParam<AlignCase> {};

TEST_P(AlignTest, MovesWithoutResizing)
{
    const QVRect ref(0, 0, 720, 576);
    QVRect r(300, 300, 100, 50);
    const QVRect& back = r.alignTo(ref, static_cast<QVAlignMode>(GetParam().mode));
    EXPECT_EQ(&back, &r);
    EXPECT_EQ(r, GetParam().expected) << r.toString();
}

INSTANTIATE_TEST_SUITE_P(Table, AlignTest,
                         testing::Values(AlignCase{AlignMode_center_all, QVRect(310, 263, 100, 50)},
                                         AlignCase{AlignMode_left | AlignMode_top, QVRect(0, 0, 100, 50)},
                                         AlignCase{AlignMode_right | AlignMode_bottom, QVRect(620, 526, 100, 50)},
                                         AlignCase{AlignMode_left, QVRect(0, 263, 100, 50)},
                                         AlignCase{AlignMode_bottom, QVRect(310, 526, 100, 50)},
                                         // Unknown parts stay centred.
                                         AlignCase{3 | 768, QVRect(310, 263, 100, 50)}));

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
