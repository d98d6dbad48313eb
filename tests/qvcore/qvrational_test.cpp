#include "qvrational.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

using QVSDK::QVRational;

namespace {

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
