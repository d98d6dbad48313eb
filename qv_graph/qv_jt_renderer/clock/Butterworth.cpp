#include "Butterworth.h"

namespace {

// First-order Butterworth low-pass by the bilinear transform, cut-off at
// 2e-5 of the step rate: w = tan(pi * 2e-5), b = w / (1 + w), a1 = (w - 1) / (w + 1).
constexpr long double kB = 6.282790556074308e-05L;
constexpr long double kA1 = -0.9998743441888785L;
// 1 / (b0 + b1): the state that makes the output equal the input in the steady state.
constexpr long double kSteadyState = 7958.247144122791L;

} // namespace

CButterworth::CButterworth(long double k)
{
    Reset(k);
}

void CButterworth::Reset(long double k)
{
    znum[0] = kB;
    znum[1] = kB;
    zden[0] = kA1;
    delay[0] = delay[1] = k * kSteadyState;
}

long double CButterworth::DigFil(long double x)
{
    const long double w = x - zden[0] * delay[1];
    const long double y = znum[0] * delay[1] + znum[1] * w;
    delay[0] = delay[1];
    delay[1] = w;
    return y;
}
