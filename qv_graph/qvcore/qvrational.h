// Exact fractions: frame rates, sample and picture aspect ratios.
#pragma once

#include <cstdint>

namespace QVSDK {

// Every aspect ratio the geometry code computes is bounded by this.
constexpr int64_t QV_RATIONAL_MAX = 0x100000;

class QVRational {
public:
    int32_t num = 0;
    int32_t den = 1;

    QVRational() = default;
    QVRational(int32_t n, int32_t d) : num(n), den(d) {}
    // Nearest fraction to value whose terms do not exceed max. NaN gives 0/1,
    // values beyond the 32-bit range give 1/0 or -1/0.
    QVRational(double value, int max);

    // Best approximation of num64/den64 with both terms at most max, written to
    // *num and *den (sign on the numerator). True when the result is exact.
    static bool reduce(int* num, int* den, int64_t num64, int64_t den64, int64_t max);

    double toDouble() const { return static_cast<double>(num) / static_cast<double>(den); }
    bool operator==(const QVRational& o) const { return num == o.num && den == o.den; }
    bool operator!=(const QVRational& o) const { return !(*this == o); }
};

// A fraction read as an aspect ratio: sample (pixel) aspect or picture
// (display) aspect, depending on the operation that uses it.
class QVAspectRatio : public QVRational {
public:
    using QVRational::QVRational;
    QVAspectRatio() = default;
    QVAspectRatio(const QVRational& r) : QVRational(r) {}
};

} // namespace QVSDK
