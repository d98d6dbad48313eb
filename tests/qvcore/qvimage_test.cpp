#include "qvimage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "qvimage_test_util.h"

using namespace QVSDK;

namespace {

unsigned char pattern(int plane, int y, int x)
{
    return static_cast<unsigned char>(plane * 71 + y * 13 + x * 7 + 1);
}

void paint(const QVImage& img, int w, int h)
{
    const std::vector<PlaneRows> rows = planeRows(img.format(), w, h);
    for (size_t p = 0; p < rows.size(); ++p)
        for (int y = 0; y < rows[p].rows; ++y)
            for (int x = 0; x < rows[p].bytes; ++x)
                rowOf(img, int(p), y)[x] = pattern(int(p), y, x);
}

class CopyToTest : public testing::TestWithParam<QVEnumFormats> {};

// The destination has wider lines than the source: every row lands at the
// destination's own stride and the padding after it stays as it was.
TEST_P(CopyToTest, CopiesRowsBetweenDifferentStrides)
{
    const QVEnumFormats f = GetParam();
    const int w = 10, h = 7;
    const QVImage src(w, h, FieldOrder_Progressive, f);
    QVImage dst(w, h, 64, FieldOrder_Progressive, f);
    ASSERT_GT(dst.stride(0), src.stride(0));
    std::memset(dst.data(0), 0xEE, dst.memory().size());
    paint(src, w, h);

    src.copyTo(dst);

    const std::vector<PlaneRows> rows = planeRows(f, w, h);
    ASSERT_FALSE(rows.empty());
    for (size_t p = 0; p < rows.size(); ++p) {
        for (int y = 0; y < rows[p].rows; ++y) {
            const unsigned char* r = rowOf(dst, int(p), y);
            for (int x = 0; x < rows[p].bytes; ++x)
                ASSERT_EQ(r[x], pattern(int(p), y, x)) << "plane " << p << " row " << y << " byte " << x;
            for (int x = rows[p].bytes; x < dst.stride(int(p)); ++x)
                ASSERT_EQ(r[x], 0xEE) << "padding overwritten, plane " << p << " row " << y;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, CopyToTest,
                         testing::Values(FORMAT_UYVY, FORMAT_YUY2, FORMAT_YVYU, FORMAT_BGR, FORMAT_BGRA, FORMAT_BGRp,
                                         FORMAT_BGRAp, FORMAT_NV12, FORMAT_YV12, FORMAT_YUVA));

struct NoCopyCase {
    QVEnumFormats srcFormat;
    int srcW, srcH;
    QVEnumFormats dstFormat;
    int dstW, dstH;
};

class CopyToRefusesTest : public testing::TestWithParam<NoCopyCase> {};

TEST_P(CopyToRefusesTest, LeavesDestinationUntouched)
{
    const NoCopyCase& c = GetParam();
    const QVImage src(c.srcW, c.srcH, FieldOrder_Progressive, c.srcFormat);
    std::memset(src.data(0), 0x11, src.memory().size());
    QVImage dst(c.dstW, c.dstH, FieldOrder_Progressive, c.dstFormat);
    std::memset(dst.data(0), 0xEE, dst.memory().size());
    src.copyTo(dst);
    for (size_t i = 0; i < dst.memory().size(); ++i)
        ASSERT_EQ(dst.data(0)[i], 0xEE) << "byte " << i;
}

INSTANTIATE_TEST_SUITE_P(Cases, CopyToRefusesTest,
                         testing::Values(NoCopyCase{FORMAT_UYVY, 16, 4, FORMAT_UYVY, 18, 4},
                                         NoCopyCase{FORMAT_UYVY, 16, 4, FORMAT_UYVY, 16, 5},
                                         NoCopyCase{FORMAT_UYVY, 16, 4, FORMAT_YUY2, 16, 4},
                                         NoCopyCase{FORMAT_IYUV, 16, 4, FORMAT_IYUV, 16, 4}));

struct FieldCase {
    QVEnumFormats format;
    int h;
};

class FieldViewTest : public testing::TestWithParam<FieldCase> {};

// Line k of the upper field is frame line 2k, of the lower field 2k + 1, in
// every plane; the views share the frame's bytes.
TEST_P(FieldViewTest, AddressesEveryOtherLine)
{
    const FieldCase& c = GetParam();
    const int w = 16;
    const QVImage frame(w, c.h, FieldOrder_Upper_First, c.format);
    const QVImage upper = frame.getUpperField();
    const QVImage lower = frame.getLowerField();
    EXPECT_EQ(upper.order(), Single_Field_Upper);
    EXPECT_EQ(lower.order(), Single_Field_Lower);
    EXPECT_EQ(upper.height(), (c.h + 1) / 2);
    EXPECT_EQ(lower.height(), c.h / 2);
    EXPECT_EQ(upper.width(), w);
    EXPECT_EQ(upper.format(), c.format);
    EXPECT_EQ(upper.size().par(), frame.size().par());

    const std::vector<PlaneRows> rows = planeRows(c.format, w, c.h);
    for (size_t p = 0; p < rows.size(); ++p) {
        const int plane = int(p);
        EXPECT_EQ(upper.stride(plane), 2 * frame.stride(plane));
        EXPECT_EQ(lower.stride(plane), 2 * frame.stride(plane));
        for (int k = 0; 2 * k < rows[p].rows; ++k)
            EXPECT_EQ(rowOf(upper, plane, k), rowOf(frame, plane, 2 * k)) << "plane " << p << " line " << k;
        for (int k = 0; 2 * k + 1 < rows[p].rows; ++k)
            EXPECT_EQ(rowOf(lower, plane, k), rowOf(frame, plane, 2 * k + 1)) << "plane " << p << " line " << k;
    }
    rowOf(lower, 0, 0)[0] = 0x5A;
    EXPECT_EQ(rowOf(frame, 0, 1)[0], 0x5A);

    // A field of a field is every fourth line.
    const QVImage quarter = upper.getLowerField();
    EXPECT_EQ(rowOf(quarter, 0, 1), rowOf(frame, 0, 6));
}

INSTANTIATE_TEST_SUITE_P(Formats, FieldViewTest,
                         testing::Values(FieldCase{FORMAT_UYVY, 8}, FieldCase{FORMAT_UYVY, 9}, FieldCase{FORMAT_BGRA, 8},
                                         FieldCase{FORMAT_BGR, 7}, FieldCase{FORMAT_NV12, 8},
                                         FieldCase{FORMAT_YV12, 8}, FieldCase{FORMAT_IYUV, 12},
                                         FieldCase{FORMAT_YUVA, 8}));

TEST(FieldViewTest, WeavesTwoFieldsIntoAFrame)
{
    const int w = 8, h = 6;
    QVImage frame(w, h, FieldOrder_Upper_First, FORMAT_UYVY);
    QVImage top(w, h / 2, Single_Field_Upper, FORMAT_UYVY);
    QVImage bottom(w, h / 2, Single_Field_Lower, FORMAT_UYVY);
    std::memset(top.data(0), 'T', top.memory().size());
    std::memset(bottom.data(0), 'B', bottom.memory().size());
    QVImage upper = frame.getUpperField();
    QVImage lower = frame.getLowerField();
    top.copyTo(upper);
    bottom.copyTo(lower);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < 2 * w; ++x)
            ASSERT_EQ(rowOf(frame, 0, y)[x], y % 2 == 0 ? 'T' : 'B') << "line " << y;
}

} // namespace
