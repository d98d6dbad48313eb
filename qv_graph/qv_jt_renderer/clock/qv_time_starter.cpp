#include "qv_time_starter.h"

void qv_time_starter::reset()
{
    m_time_start = 0;
    m_bFirst = true;
}

std::tuple<long, long, bool> qv_time_starter::set_time_stamp(long tStart, long tStop)
{
    if (m_bFirst) {
        m_time_start = tStart;
        m_bFirst = false;
        return {tStop - tStart, 0, true};
    }
    return {tStop - m_time_start, tStart - m_time_start, m_time_start <= tStart};
}
