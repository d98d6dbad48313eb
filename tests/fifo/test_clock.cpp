// Clock smoothing: the low-pass and the loop.
#include "Butterworth.h"
#include "QVPLL.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(Butterworth, StepResponseRisesMonotonicallyTowardsTheStep)
{
    // Independent check of the coefficients: a first-order low-pass with
    // cut-off 2e-5 of the step rate has a time constant of about
    // 1 / (2 pi 2e-5) ~ 7958 steps; after that many steps it is near 1 - 1/e.
    CButterworth f(0.0L);
    long double prev = 0.0L;
    long double y = 0.0L;
    for (int i = 0; i < 7958; ++i) {
        y = f.DigFil(1.0L);
        ASSERT_GE(y, prev);
        prev = y;
    }
    EXPECT_NEAR(static_cast<double>(y), 1.0 - std::exp(-1.0), 0.01);
}

TEST(QVPLL, StepRightAfterResetReturnsTheStreamTime)
{
    // Frame-aligned stream times as a feed produces them. (Arbitrary values may
    // come back one unit low: the result is truncated after a double division.)
    for (long s : {0L, 400000L, 3600000000L, 36000000000L}) {
        CQVPLL pll;
        const long h = 987654321L;
        pll.ResetPLL(h, s);
        EXPECT_EQ(pll.SetTimeToPLL(h, s), s);
        EXPECT_EQ(pll.m_dRegulator, 0.0L);
    }
}

