// A byte ring that hands out contiguous chunks and takes them back in the
// order it gave them. Not thread-safe: its owner locks.
//
// The write side wraps only at the ring's end, so that the whole ring is
// always available: starting over early to keep fewer pages resident made a
// wrapped ring hold less than its size, and a slow start-up then overflowed
// it. `window()` tells how far into the ring the write side has been.
#pragma once

#include "qv_align_memory.h"

#include <cstddef>
#include <cstdint>

namespace QVSDK {

class QVMemoryManager {
public:
    QVMemoryManager() = default;
    QVMemoryManager(const QVMemoryManager&) = delete;
    QVMemoryManager& operator=(const QVMemoryManager&) = delete;
    QVMemoryManager(QVMemoryManager&& o) noexcept;
    QVMemoryManager& operator=(QVMemoryManager&& o) noexcept;

    // Sizes the ring to n bytes (keeping storage that is big enough) and empties it.
    void reset(size_t n);
    // Empties the ring.
    void reset();

    // Room for n contiguous bytes at the write side, or null. Does not commit;
    // may move the write side to the ring's start when the tail is too short.
    unsigned char* lock(size_t n);
    bool tryLock(size_t n) const;
    void commit(size_t n);
    unsigned char* get(size_t n);
    // Releases everything up to p + n (chunks go back in the order they were handed out).
    void put(const unsigned char* p, size_t n);
    size_t length() const;

    size_t size() const { return m_Size; }
    size_t window() const { return m_Window; }
    const unsigned char* begin() const { return reinterpret_cast<const unsigned char*>(m_Begin); }

    QVAlignMemory<unsigned char> m_pData;
    size_t m_Begin = 0;    // address of the first byte
    size_t m_End = 0;      // one past the last byte
    size_t m_curStart = 0; // oldest byte in use (read side)
    size_t m_curStop = 0;  // next byte to hand out (write side)
    size_t m_Size = 0;
    size_t m_Window = 0;   // bytes from the beginning that the write side has reached

private:
    // The start address of n bytes of room and whether the write side must wrap first; 0 = no room.
    size_t find_room(size_t n, bool& bWrap) const;
};

} // namespace QVSDK
