#include "qvimage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

using namespace QVSDK;

namespace {

// Plane geometry of each format, written out independently of the library.
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

// Pictures large enough to be streamed past the caches, with destinations at
// every alignment and a width whose rows end off the copy's 128-byte steps:
// every byte must land, none beside the picture.
TEST(LargeCopyTest, FrameAndFieldCopiesAreExactAtAnyAlignment)
{
    const int w = 1283, h = 576, row = 2 * w;
    QVImage src(w, h, FieldOrder_Upper_First, FORMAT_YUY2);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < row; ++x)
            rowOf(src, 0, y)[x] = static_cast<unsigned char>(x * 7 + y * 13);
    for (int shift : {0, 1, 17, 31}) {
        std::vector<unsigned char> mem(size_t(row) * h + 64 + 2 * 4096, 0xEE);
        QVImage frame(mem.data() + shift, w, h, row, FieldOrder_Upper_First, FORMAT_YUY2);
        src.copyTo(frame);
        unsigned char* f0 = mem.data() + shift;
        QVImage up(f0, w, h / 2, row, Single_Field_Upper, FORMAT_YUY2);
        QVImage lo(f0 + size_t(row) * (h / 2) + 4096, w, h / 2, row, Single_Field_Lower, FORMAT_YUY2);
        for (int y = 0; y < h; ++y)
            ASSERT_EQ(std::memcmp(rowOf(frame, 0, y), rowOf(src, 0, y), row), 0) << "frame line " << y;
        EXPECT_EQ(mem[size_t(shift) + size_t(row) * h], 0xEE) << "written past the frame";
        std::fill(mem.begin(), mem.end(), 0xEE);
        src.copyFieldsTo(up, lo);
        for (int y = 0; y < h; ++y) {
            const unsigned char* got = rowOf(y % 2 == 0 ? up : lo, 0, y / 2);
            ASSERT_EQ(std::memcmp(got, rowOf(src, 0, y), row), 0) << "shift " << shift << " line " << y;
        }
        EXPECT_EQ(mem[size_t(shift) + size_t(row) * (h / 2)], 0xEE) << "written between the fields";
    }
}

} // namespace
