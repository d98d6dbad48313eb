// Clock smoothing: the low-pass and the loop.
#include "Butterworth.h"
#include "QVPLL.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <random>

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


// The loop against a separate re-implementation of its steps, on a board
// clock 1000 ppm fast with 2 ms of jitter, for long enough that the averaging
// stage runs (from the 501st step) and its history is full (1000 values). The
// averaging moves the regulator by well under a percent, so nothing looser
// than an oracle sees a mistake in it: a missing stage, another threshold,
// history length or weight, or a running sum that does not collapse to the mean.
TEST(QVPLL, FollowsTheReferenceLoopOnANoisyDriftingClock)
{
    struct reference {
        CButterworth filter{0.0L};
        long double regulator = 0.0L;
        long double sum = 0.0L;
        std::deque<long double> history;

        long step(long sys, long stream)
        {
            const auto seconds = [](long t) { return static_cast<long double>(static_cast<double>(t) / 1e7); };
            regulator += 0.0001L * filter.DigFil(seconds(sys) - (regulator + seconds(stream)));
            history.push_back(regulator);
            sum += regulator;
            if (history.size() > 1000) {
                sum -= history.front();
                history.pop_front();
            }
            if (history.size() > 500) {
                sum /= static_cast<long double>(history.size());
                regulator += 0.01L * sum;
            }
            return static_cast<long>(std::trunc((seconds(stream) + regulator) * 10000000.0L));
        }
    };

    CQVPLL pll;
    pll.ResetPLL(0, 0);
    reference ref;
    std::mt19937 rng(7);
    std::normal_distribution<double> jitter(0.0, 20000.0); // 2 ms in 100 ns units
    constexpr long kFrame = 400000;                         // 25 frames/s
    for (long i = 1; i <= 3000; ++i) {
        const long stream = i * kFrame;
        const auto sys = static_cast<long>(static_cast<double>(stream) * 1.001 + jitter(rng));
        const long out = pll.SetTimeToPLL(sys, stream);
        ASSERT_EQ(out, ref.step(sys, stream)) << "step " << i;
        ASSERT_NEAR(static_cast<double>(pll.m_dRegulator), static_cast<double>(ref.regulator), 1e-15)
            << "step " << i;
    }
    // The loop has pulled in towards the fast clock.
    EXPECT_GT(pll.m_dRegulator, 0.001L);
}
