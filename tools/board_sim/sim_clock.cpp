// Frame clock and the board's 148.5 MHz hardware counter. Every time is
// derived from a count since an origin, so rounding never accumulates.
#include <cmath>
#include <ctime>

#include "sim_internal.h"

namespace qvboardsim {

int64_t now_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts); // what std::chrono::steady_clock reads on Linux
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void FrameClock::start(int64_t t_ns, uint64_t num, uint64_t den, double ppm)
{
    m_nStart = t_ns;
    m_nNum = num ? num : 1;
    m_nDen = den ? den : 1;
    m_fFactor = 1.0L + static_cast<long double>(ppm) * 1e-6L;
    m_bStalled = false;
}

double FrameClock::slots_per_second() const
{
    return double(static_cast<long double>(m_nNum) * m_fFactor / static_cast<long double>(m_nDen));
}

int64_t FrameClock::slot_time(uint64_t k) const
{
    // k * den / (num * factor) seconds after the origin.
    long double s = static_cast<long double>(k) * static_cast<long double>(m_nDen) /
                    (static_cast<long double>(m_nNum) * m_fFactor);
    return m_nStart + static_cast<int64_t>(std::ceil(s * 1e9L));
}

uint64_t FrameClock::slots_due(int64_t t_ns) const
{
    if (m_bStalled)
        t_ns = m_nStallStart;
    if (t_ns < m_nStart)
        return 0;
    long double s = static_cast<long double>(t_ns - m_nStart) * 1e-9L;
    uint64_t k = static_cast<uint64_t>(s * static_cast<long double>(m_nNum) * m_fFactor /
                                       static_cast<long double>(m_nDen));
    // The estimate can be one off either way after rounding; settle it on slot_time.
    while (k > 0 && slot_time(k) > t_ns)
        --k;
    while (slot_time(k + 1) <= t_ns)
        ++k;
    return k;
}

void FrameClock::stall(int64_t t_ns, bool stalled)
{
    if (stalled == m_bStalled)
        return;
    if (stalled) {
        m_nStallStart = t_ns;
    } else {
        // The frames that would have gone out while stalled are lost, not
        // sent in a burst: move the origin by the stall.
        m_nStart += t_ns - m_nStallStart;
    }
    m_bStalled = stalled;
}

uint32_t hw_ticks(int64_t boot_ns, double ppm, int64_t t_ns)
{
    long double s = static_cast<long double>(t_ns - boot_ns) * 1e-9L;
    long double ticks = s * static_cast<long double>(JUTVANE_HW_CLOCK_HZ) *
                        (1.0L + static_cast<long double>(ppm) * 1e-6L);
    if (ticks < 0)
        ticks = 0;
    return static_cast<uint32_t>(static_cast<uint64_t>(ticks) & 0xFFFFFFFFu);
}

} // namespace qvboardsim
