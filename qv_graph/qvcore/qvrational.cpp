#include "qvrational.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace QVSDK {

namespace {

// Products of convergent terms with quotients can exceed 64 bits for extreme
// inputs; the comparisons are done wide so they never overflow.
using wide = __int128;

struct Fraction {
    int64_t num;
    int64_t den;
};

uint64_t magnitude(int64_t v)
{
    return v < 0 ? uint64_t(0) - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
}

} // namespace

bool QVRational::reduce(int* num, int* den, int64_t num64, int64_t den64, int64_t max)
{
    // The terms end up in 32-bit fields, so a wider bound buys nothing; a
    // negative one would make every quotient below meaningless.
    max = std::clamp<int64_t>(max, 0, std::numeric_limits<int32_t>::max());
    const bool negative = (num64 < 0) != (den64 < 0);
    uint64_t n = magnitude(num64);
    uint64_t d = magnitude(den64);

    uint64_t g = n | d;
    if (n != 0 && d != 0) {
        uint64_t a = n;
        uint64_t b = d;
        while (b != 0) {
            const uint64_t r = a % b;
            a = b;
            b = r;
        }
        g = a;
    }
    if (g != 0) {
        n /= g;
        d /= g;
    }

    Fraction a0{0, 1};
    Fraction a1{1, 0};
    bool exact = true;
    if (static_cast<wide>(n) <= max && static_cast<wide>(d) <= max) {
        a1 = Fraction{static_cast<int64_t>(n), static_cast<int64_t>(d)};
    } else {
        while (d != 0) {
            uint64_t x = n / d;
            const uint64_t next = n - d * x;
            const wide a2n = static_cast<wide>(x) * a1.num + a0.num;
            const wide a2d = static_cast<wide>(x) * a1.den + a0.den;
            if (a2n > max || a2d > max) {
                // Past the bound: the best semiconvergent may still beat a1.
                if (a1.num != 0)
                    x = static_cast<uint64_t>((max - a0.num) / a1.num);
                if (a1.den != 0)
                    x = std::min<uint64_t>(x, static_cast<uint64_t>((max - a0.den) / a1.den));
                const wide lhs = static_cast<wide>(d) * (2 * static_cast<wide>(x) * a1.den + a0.den);
                const wide rhs = static_cast<wide>(n) * a1.den;
                if (lhs > rhs)
                    a1 = Fraction{static_cast<int64_t>(x * a1.num + a0.num),
                                  static_cast<int64_t>(x * a1.den + a0.den)};
                exact = false;
                break;
            }
            a0 = a1;
            a1 = Fraction{static_cast<int64_t>(a2n), static_cast<int64_t>(a2d)};
            n = d;
            d = next;
        }
    }

    *num = static_cast<int>(negative ? -a1.num : a1.num);
    *den = static_cast<int>(a1.den);
    return exact;
}

QVRational::QVRational(double value, int max) : num(0), den(1)
{
    if (std::isnan(value))
        return;
    if (std::fabs(value) > double(std::numeric_limits<int32_t>::max()) + 3.0) {
        num = value < 0 ? -1 : 1;
        den = 0;
        return;
    }
    int exponent = 0;
    std::frexp(value, &exponent);
    exponent = std::max(exponent - 1, 0);
    const int64_t d = int64_t(1) << (61 - exponent);
    const int64_t n = static_cast<int64_t>(std::floor(value * static_cast<double>(d) + 0.5));
    reduce(&num, &den, n, d, max);
    if ((num == 0 || den == 0) && value != 0 && max > 0 && max < std::numeric_limits<int32_t>::max())
        reduce(&num, &den, n, d, std::numeric_limits<int32_t>::max());
}

} // namespace QVSDK
