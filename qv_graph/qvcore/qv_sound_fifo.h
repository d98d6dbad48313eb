// A queue of sound chunks stamped with stream byte positions, stored in a
// byte ring. Positions count bytes of the stream from an arbitrary origin.
// Not thread-safe: its owner locks.
#pragma once

#include "qv_memory_manager.h"
#include "qv_sound.h"
#include "qv_sound_format.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QVSDK {

// A double-ended queue over a circular array that keeps its storage: in the
// steady state of a live feed, queueing and releasing chunks allocates nothing.
template <typename T>
class QVRingDeque {
public:
    bool empty() const { return m_nCount == 0; }
    size_t size() const { return m_nCount; }
    T& front() { return m_items[m_nHead]; }
    const T& front() const { return m_items[m_nHead]; }
    T& back() { return at(m_nCount - 1); }
    const T& back() const { return at(m_nCount - 1); }
    T& at(size_t i) { return m_items[(m_nHead + i) % m_items.size()]; }
    const T& at(size_t i) const { return m_items[(m_nHead + i) % m_items.size()]; }

    void push_back(const T& v)
    {
        if (m_nCount == m_items.size())
            grow();
        m_items[(m_nHead + m_nCount) % m_items.size()] = v;
        ++m_nCount;
    }
    void pop_front()
    {
        m_nHead = (m_nHead + 1) % m_items.size();
        --m_nCount;
    }
    void clear() { m_nHead = m_nCount = 0; }
    // Room for n items without growing.
    void reserve(size_t n)
    {
        while (m_items.size() < n)
            grow();
    }

private:
    void grow()
    {
        std::vector<T> bigger(m_items.empty() ? 16 : 2 * m_items.size());
        for (size_t i = 0; i < m_nCount; ++i)
            bigger[i] = at(i);
        m_items.swap(bigger);
        m_nHead = 0;
    }

    std::vector<T> m_items;
    size_t m_nHead = 0;
    size_t m_nCount = 0;
};

class QVSoundFifo {
public:
    struct QVSoundFifoItem {
        int64_t m_nStartPos = 0;       // position of the first unread byte
        int64_t m_nStopPos = 0;        // one past the chunk
        unsigned char* m_pCurData = nullptr;
        unsigned char* m_pData = nullptr; // chunk start in the ring
        size_t m_nSize = 0;
    };

    QVSoundFifo() = default;
    QVSoundFifo(QVSoundFifo&&) noexcept = default;
    QVSoundFifo& operator=(QVSoundFifo&&) noexcept = default;

    // A ring of `bytes` bytes; stamps within `jitter` bytes of the running
    // position are taken as contiguous. False for an invalid format.
    bool init(size_t bytes, const QVSoundFormat& format, unsigned jitter);
    void clear();

    bool put(int64_t pos, const uint8_t* data, size_t n);
    bool put(const uint8_t* data, size_t n);
    // A sound in another depth or channel count is converted on the way in
    // (8 to 32 bits; mono fills both channels); only the rate must match.
    bool put(int64_t pos, const QVSound& s);
    bool put(const QVSound& s);

    // Fills out (its whole byte length) from position pos; missing bytes are zero.
    bool get(int64_t pos, QVSound& out);
    // Moves the read side forward to pos, dropping what lies before it.
    bool skipToPos(int64_t pos);
    void PrintDebugInfo(const char* tag) const;

    size_t chunks() const { return m_queue.size(); }

    QVSoundFormat m_format;
    QVMemoryManager m_memory;
    QVRingDeque<QVSoundFifoItem> m_queue; // oldest first
    int64_t m_nReadPos = 0;
    int64_t m_nWritePos = 0;
    uint32_t m_nJitter = 0; // bytes

private:
    bool _convert(int64_t pos, const QVSound& s);
    bool _mark_ready_data(int64_t pos, unsigned char* p, size_t n);
    void release_front();
};

} // namespace QVSDK
