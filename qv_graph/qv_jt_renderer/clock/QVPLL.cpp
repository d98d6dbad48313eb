#include "QVPLL.h"

#include <cmath>

namespace {

// The loop works in seconds; its callers in 100 ns units.
constexpr double kUnitsPerSecond = 10000000.0;

// Inputs are divided in double precision first, as the loop's callers expect.
long double to_seconds(long llTime)
{
    return static_cast<long double>(static_cast<double>(llTime) / kUnitsPerSecond);
}

} // namespace

CQVPLL::CQVPLL() : m_Filter(0.0L)
{
    clear();
}

void CQVPLL::clear()
{
    m_dSystemTimeLast = 0.0L;
    m_dStreamTimeLast = 0.0L;
    m_lP = 0;
    m_dK = 0.0001L;
    m_dRegulator = 0.0L;
    m_Filter.Reset(0.0L);
    m_dIRegulator = 0.0L;
    m_listIRegulator.clear();
}

void CQVPLL::ResetPLL(long llSystemTime, long llStreamTime)
{
    m_dSystemTimeStart = to_seconds(llSystemTime);
    m_dStreamTimeStart = to_seconds(llStreamTime);
    clear();
}

long CQVPLL::SetTimeToPLL(long llSystemTime, long llStreamTime)
{
    ++m_ulCounter;
    const long double dSys = to_seconds(llSystemTime) - m_dSystemTimeStart;
    const long double dStr = to_seconds(llStreamTime) - m_dStreamTimeStart;

    // How far the corrected stream has fallen behind the hardware clock.
    const long double err = dSys - (m_dRegulator + dStr);
    const long double f = m_Filter.DigFil(err);
    m_dA = f;
    m_dRegulator += m_dK * f;

    m_listIRegulator.push_back(m_dRegulator);
    m_dIRegulator += m_dRegulator;
    if (m_listIRegulator.size() > kHistory) {
        m_dIRegulator -= m_listIRegulator.front();
        m_listIRegulator.pop_front();
    }
    if (m_listIRegulator.size() > kAverageFrom) {
        // The running sum collapses to the mean on purpose: from here on the
        // average leans on its own past, which damps the loop further.
        const long double avg = m_dIRegulator / static_cast<long double>(m_listIRegulator.size());
        m_dIRegulator = avg;
        m_dRegulator += 0.01L * avg;
    }

    m_dSystemTimeLast = dSys;
    m_dStreamTimeLast = m_dRegulator + dStr + m_dStreamTimeStart;
    return static_cast<long>(std::trunc((m_dStreamTimeStart + dStr + m_dRegulator) * 10000000.0L));
}
