// Software phase-locked loop that steers stream time stamps towards the
// board's hardware clock. Times go in and out in 100 ns units; the regulator
// is in seconds. All arithmetic is extended precision (long double).
#pragma once

#include "Butterworth.h"

#include <cstddef>
#include <cstdint>
#include <list>

class CQVPLL {
public:
    CQVPLL();

    // Forgets the loop state; the start times and the call counter stay.
    void clear();
    // Anchors both clocks (100 ns units) and clears the loop.
    void ResetPLL(long llSystemTime, long llStreamTime);
    // One loop step per frame of the driving stream; returns the smoothed stream time (100 ns units).
    long SetTimeToPLL(long llSystemTime, long llStreamTime);

    long double m_dRegulator = 0.0L;       // correction in seconds, added to stream time
    long double m_dA = 0.0L;               // last filtered error, seconds
    long double m_dSystemTimeStart = 0.0L; // seconds
    long double m_dStreamTimeStart = 0.0L; // seconds
    CButterworth m_Filter;
    long double m_dSystemTimeLast = 0.0L;
    long double m_dStreamTimeLast = 0.0L;
    long double m_dK = 0.0001L;            // loop gain per call
    uint32_t m_ulCounter = 0;              // SetTimeToPLL calls, informational
    int32_t m_lP = 0;
    std::list<long double> m_listIRegulator; // last regulator values, at most kHistory
    long double m_dIRegulator = 0.0L;

    static constexpr size_t kHistory = 1000;
    static constexpr size_t kAverageFrom = 500;
};
