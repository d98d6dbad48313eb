// Sample access for the sound tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qv_sound.h"

// Little-endian signed sample of `bits` bits at (frame, channel).
inline int32_t readSample(const QVSDK::QVSound& s, size_t frame, unsigned channel)
{
    const unsigned bytes = s.format().m_bit_per_sample / 8;
    const uint8_t* p = s.data() + frame * s.format().m_block_align + channel * bytes;
    uint32_t v = 0;
    for (unsigned i = 0; i < bytes; ++i)
        v |= uint32_t(p[i]) << (8 * i);
    const unsigned shift = 32 - 8 * bytes;
    return static_cast<int32_t>(v << shift) >> shift;
}

inline void writeSample(QVSDK::QVSound& s, size_t frame, unsigned channel, int32_t value)
{
    const unsigned bytes = s.format().m_bit_per_sample / 8;
    uint8_t* p = s.data() + frame * s.format().m_block_align + channel * bytes;
    for (unsigned i = 0; i < bytes; ++i)
        p[i] = uint8_t(uint32_t(value) >> (8 * i));
}
