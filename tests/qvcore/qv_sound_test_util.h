// Sample access and g_print capture for the sound tests.
#pragma once

#include <glib.h>

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

// Collects g_print lines for the lifetime of the object.
class PrintCapture {
public:
    PrintCapture() : m_old(g_set_print_handler(&PrintCapture::handler)) { current() = this; }
    ~PrintCapture()
    {
        g_set_print_handler(m_old);
        current() = nullptr;
    }
    const std::vector<std::string>& lines() const { return m_lines; }

private:
    static PrintCapture*& current()
    {
        static PrintCapture* instance = nullptr;
        return instance;
    }
    static void handler(const gchar* text)
    {
        if (current() != nullptr)
            current()->m_lines.emplace_back(text);
    }

    GPrintFunc m_old;
    std::vector<std::string> m_lines;
};
