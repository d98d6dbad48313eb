// Makes stream stamps relative to the first one seen since the last reset.
#pragma once

#include <tuple>

class qv_time_starter {
public:
    void reset();
    // Returns (relative stop, relative start, accepted); a start before the
    // first stamp is not accepted.
    std::tuple<long, long, bool> set_time_stamp(long tStart, long tStop);

    long m_time_start = 0;
    bool m_bFirst = true;
};
