#include "qvsize.h"

#include <gtest/gtest.h>

using namespace QVSDK;

namespace {

struct SarCase {
    int w, h;
    QVAspectRatio picture;
    QVAspectRatio sample;
};

class SampleAspectTest : public testing::TestWithParam<SarCase> {};

TEST_P(SampleAspectTest, FromPictureAspectAndBack)
{
    const SarCase& c = GetParam();
    const QVAspectRatio sar = QVSize::calcSampleAspectRatio(c.w, c.h, c.picture);
    EXPECT_EQ(sar, c.sample);
    const QVSize s(c.w, c.h, c.picture);
    EXPECT_EQ(s.sar(), c.sample);
    // A degenerate size falls back to 1/1 and so cannot give the display aspect back.
    if (c.w != 0 && c.h != 0) {
        EXPECT_EQ(s.par(), c.picture);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SampleAspectTest,
    testing::Values(SarCase{720, 576, {4, 3}, {16, 15}}, SarCase{720, 576, {16, 9}, {64, 45}},
                    SarCase{720, 480, {4, 3}, {8, 9}}, SarCase{720, 486, {4, 3}, {9, 10}},
                    SarCase{1920, 1080, {16, 9}, {1, 1}}, SarCase{1440, 1080, {16, 9}, {4, 3}},
                    SarCase{0, 576, {4, 3}, {1, 1}}, SarCase{720, 0, {4, 3}, {1, 1}}));

TEST(QVSizeTest, EqualityComparesSampleAspectByValue)
{
    QVSize a(720, 576);
    QVSize b(720, 576);
    b.m_sampleAspect = QVAspectRatio(2, 2);
    EXPECT_TRUE(a == b);
    b.m_sampleAspect = QVAspectRatio(16, 15);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(QVSize(720, 576) != QVSize(720, 578));
}

TEST(QVSizeTest, SquarePixelConversions)
{
    const QVSize pal(720, 576, QVAspectRatio(4, 3));
    const QVSize h = pal.toSquarePixelConstHeight();
    EXPECT_EQ(h.width(), 768);
    EXPECT_EQ(h.height(), 576);
    EXPECT_EQ(h.sar(), QVAspectRatio(1, 1));
    const QVSize w = pal.toSquarePixelConstWidth();
    EXPECT_EQ(w.width(), 720);
    EXPECT_EQ(w.height(), 540);

    // Products beyond 32 bits saturate instead of wrapping.
    QVSize huge(0x7fffff00, 2);
    huge.m_sampleAspect = QVAspectRatio(1000, 1);
    EXPECT_EQ(huge.toSquarePixelConstHeight().width(), 0x7fffffff);
}

TEST(QVSizeTest, AlignmentAndCrop)
{
    QVSize s(721, 577, QVAspectRatio(4, 3));
    s.widthAlignment(16);
    s.heightAlignment(2);
    EXPECT_EQ(s.width(), 720);
    EXPECT_EQ(s.height(), 576);
    s.widthAlignment(0);
    EXPECT_EQ(s.width(), 720);
    EXPECT_EQ(s.crop(100, 50).sar(), s.sar());
}

TEST(QVSizeTest, NewWidthAndHeightAreEvenAndTruncated)
{
    EXPECT_EQ(newWidth(1920, 576, 1080), 1024);
    EXPECT_EQ(newWidth(3, 1, 1), 2);
    EXPECT_EQ(newHeight(768, 1080, 1920), 432);
    EXPECT_EQ(newWidth(-3, 1, 1), -4 & ~1);
    // Division by zero must not be undefined behaviour.
    EXPECT_EQ(newWidth(1, 1, 0), 0);
    EXPECT_EQ(newHeight(0, 0, 0), 0);
}

struct ScaleCase {
    QVSize source;
    QVSize target;
    QVAspectRatioMode mode;
    int w, h;
    QVAspectRatio sar;
};

class ScaledTest : public testing::TestWithParam<ScaleCase> {};

TEST_P(ScaledTest, FitsKeepingDisplayAspect)
{
    const ScaleCase& c = GetParam();
    const QVSize r = c.source.scaled(c.target, c.mode);
    EXPECT_EQ(r.width(), c.w);
    EXPECT_EQ(r.height(), c.h);
    EXPECT_EQ(r.sar(), c.sar);
    QVSize inPlace = c.source;
    inPlace.scale(c.target, c.mode);
    EXPECT_TRUE(inPlace == r);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScaledTest,
    testing::Values(
        // HD into a 4:3 SD raster: letterboxed, target's sample grid.
        ScaleCase{QVSize(1920, 1080), QVSize(720, 576, QVAspectRatio(4, 3)), AspectRatio_Keep, 720, 432, {16, 15}},
        // 4:3 SD into HD: pillarboxed.
        ScaleCase{QVSize(720, 576, QVAspectRatio(4, 3)), QVSize(1920, 1080), AspectRatio_Keep, 1440, 1080, {1, 1}},
        // 16:9 SD into HD fills it.
        ScaleCase{QVSize(720, 576, QVAspectRatio(16, 9)), QVSize(1920, 1080), AspectRatio_Keep, 1920, 1080, {1, 1}},
        ScaleCase{QVSize(1920, 1080), QVSize(0, 0), AspectRatio_Keep, 0, 0, {1, 1}},
        ScaleCase{QVSize(0, 1080), QVSize(1920, 1080), AspectRatio_Keep, 0, 0, {1, 1}},
        // Ignore gives the source back, not the target.
        ScaleCase{QVSize(720, 576, QVAspectRatio(4, 3)), QVSize(1920, 1080), AspectRatio_Ignore, 720, 576, {16, 15}}));

} // namespace
