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

} // namespace
