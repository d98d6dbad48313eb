// First-order low-pass used to filter the clock error of the smoothing loop.
#pragma once

class CButterworth {
public:
    explicit CButterworth(long double k = 0.0L);

    // Restarts the filter in the steady state of input k: the next DigFil(k) returns k.
    void Reset(long double k);
    // One filter step (direct form II); returns the filtered value.
    long double DigFil(long double x);

    long double delay[2]; // [1] current state, [0] previous one
    long double znum[2];  // b0, b1
    long double zden[1];  // a1
    long double m_dK = 0.0L;
};
