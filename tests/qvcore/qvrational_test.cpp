#include "qvrational.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

using QVSDK::QVRational;

namespace {

struct ReduceCase {
    int64_t n, d, max;
    int num, den;
    bool exact;
};

class ReduceTest : public testing::TestWithParam<ReduceCase> {};

TEST_P(ReduceTest, GivesExpectedTermsAndExactness)
{
    const ReduceCase& c = GetParam();
    int num = 99, den = 99;
    EXPECT_EQ(QVRational::reduce(&num, &den, c.n, c.d, c.max), c.exact);
    EXPECT_EQ(num, c.num);
    EXPECT_EQ(den, c.den);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ReduceTest,
    testing::Values(ReduceCase{0, 5, 0x100000, 0, 1, true}, ReduceCase{5, 0, 0x100000, 1, 0, true},
                    ReduceCase{-6, 4, 0x100000, -3, 2, true}, ReduceCase{6, -4, 0x100000, -3, 2, true},
                    ReduceCase{-6, -4, 0x100000, 3, 2, true}, ReduceCase{1001, 30000, 0x100000, 1001, 30000, true},
                    ReduceCase{30000, 1001, 0x100000, 30000, 1001, true},
                    ReduceCase{720 * 4, 576 * 3, 0x100000, 5, 3, true},
                    // Terms beyond the bound: best approximation, not exact.
                    ReduceCase{314159265, 100000000, 1000, 355, 113, false},
                    ReduceCase{2000001, 1000000, 1000, 2, 1, false},
                    // Value above the bound itself clamps to max/1.
                    ReduceCase{5000, 1, 1000, 1000, 1, false}, ReduceCase{1, 5000, 1000, 0, 1, false},
                    ReduceCase{std::numeric_limits<int64_t>::min(), 1, 0x100000, -0x100000, 1, false},
                    ReduceCase{0, 0, 0x100000, 0, 0, true}));

// Independent oracle: the closest fraction p/q with p, q <= max found by
// scanning every denominator. The reduction must be at least as close.
TEST(ReduceTest, IsABestApproximationAgainstExhaustiveSearch)
{
    std::mt19937_64 rng(12345);
    std::uniform_int_distribution<int64_t> value(1, 2000000000);
    for (int i = 0; i < 400; ++i) {
        const int64_t n = value(rng);
        const int64_t d = value(rng);
        const int64_t max = 1 + int64_t(rng() % 300);
        int num = 0, den = 0;
        QVRational::reduce(&num, &den, n, d, max);
        ASSERT_GE(num, 0);
        ASSERT_LE(num, max);
        ASSERT_LE(den, max);
        ASSERT_GT(den, 0);

        // |num/den - n/d| compared as exact cross products.
        auto error = [&](int64_t p, int64_t q) {
            __int128 diff = static_cast<__int128>(p) * d - static_cast<__int128>(n) * q;
            return std::pair<__int128, int64_t>(diff < 0 ? -diff : diff, q);
        };
        auto better = [](std::pair<__int128, int64_t> a, std::pair<__int128, int64_t> b) {
            return a.first * b.second < b.first * a.second;
        };
        const auto got = error(num, den);
        for (int64_t q = 1; q <= max; ++q) {
            const int64_t p0 = static_cast<int64_t>(static_cast<__int128>(n) * q / d);
            for (int64_t p = p0; p <= p0 + 1; ++p) {
                if (p > max)
                    continue;
                ASSERT_FALSE(better(error(p, q), got))
                    << n << "/" << d << " max " << max << " gave " << num << "/" << den << ", " << p << "/" << q
                    << " is closer";
            }
        }
    }
}

struct DoubleCase {
    double value;
    int max;
    int num, den;
};

class FromDoubleTest : public testing::TestWithParam<DoubleCase> {};

TEST_P(FromDoubleTest, GivesNearestBoundedFraction)
{
    const DoubleCase& c = GetParam();
    const QVRational r(c.value, c.max);
    EXPECT_EQ(r.num, c.num);
    EXPECT_EQ(r.den, c.den);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FromDoubleTest,
    testing::Values(DoubleCase{std::nan(""), 1000, 0, 1}, DoubleCase{3e9, 1000, 1, 0}, DoubleCase{-3e9, 1000, -1, 0},
                    DoubleCase{0.5, 1000, 1, 2}, DoubleCase{-0.5, 1000, -1, 2}, DoubleCase{0.0, 1000, 0, 1},
                    DoubleCase{M_PI, 1000, 355, 113}, DoubleCase{30000.0 / 1001.0, 0x100000, 30000, 1001},
                    DoubleCase{1.0 / 3.0, 1000, 1, 3}, DoubleCase{2147483647.0, 0x7fffffff, 2147483647, 1},
                    // Below 1/max: the second pass with the 32-bit bound rescues it.
                    DoubleCase{1e-4, 1000, 1, 10000}));

} // namespace
