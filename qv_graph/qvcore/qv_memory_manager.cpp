#include "qv_memory_manager.h"

#include <algorithm>
#include <utility>

namespace QVSDK {

namespace {

constexpr size_t kAlign = 8;

} // namespace

QVMemoryManager::QVMemoryManager(QVMemoryManager&& o) noexcept
{
    *this = std::move(o);
}

QVMemoryManager& QVMemoryManager::operator=(QVMemoryManager&& o) noexcept
{
    if (this != &o) {
        m_pData = std::move(o.m_pData);
        m_Begin = std::exchange(o.m_Begin, 0);
        m_End = std::exchange(o.m_End, 0);
        m_curStart = std::exchange(o.m_curStart, 0);
        m_curStop = std::exchange(o.m_curStop, 0);
        m_Size = std::exchange(o.m_Size, 0);
        m_Window = std::exchange(o.m_Window, 0);
    }
    return *this;
}

void QVMemoryManager::reset(size_t n)
{
    const bool bAligned = reinterpret_cast<uintptr_t>(m_pData.data()) % kAlign == 0;
    if (m_pData.empty() || m_pData.fullSize() < n || !bAligned)
        m_pData.alloc(n, kAlign);
    const size_t base = reinterpret_cast<size_t>(m_pData.data());
    m_Size = n;
    m_Window = 0;
    m_Begin = base;
    m_End = base + n;
    m_curStart = m_curStop = base;
}

void QVMemoryManager::reset()
{
    m_curStart = m_curStop = m_Begin;
}

size_t QVMemoryManager::find_room(size_t n, bool& bWrap) const
{
    bWrap = false;
    if (n == 0 || m_Size == 0)
        return 0;
    if (m_curStop < m_curStart) {
        // Strictly less: a full ring must never look empty.
        return m_curStop + n < m_curStart ? m_curStop : 0;
    }
    const bool bRoomAtBegin = m_Begin + n < m_curStart;
    if (m_curStop + n <= m_Begin + m_Window)
        return m_curStop;
    if (m_curStop + n <= m_End)
        return m_curStop;
    if (!bRoomAtBegin)
        return 0;
    bWrap = true;
    return m_Begin;
}

unsigned char* QVMemoryManager::lock(size_t n)
{
    bool bWrap = false;
    const size_t p = find_room(n, bWrap);
    if (p == 0)
        return nullptr;
    // The tail between the old write side and the end stays unused until the ring wraps again.
    if (bWrap)
        m_curStop = m_Begin;
    m_Window = std::max(m_Window, p + n - m_Begin);
    return reinterpret_cast<unsigned char*>(p);
}

bool QVMemoryManager::tryLock(size_t n) const
{
    bool bWrap = false;
    return find_room(n, bWrap) != 0;
}

void QVMemoryManager::commit(size_t n)
{
    m_curStop += n;
}

unsigned char* QVMemoryManager::get(size_t n)
{
    unsigned char* p = lock(n);
    if (p != nullptr)
        commit(n);
    return p;
}

void QVMemoryManager::put(const unsigned char* p, size_t n)
{
    m_curStart = reinterpret_cast<size_t>(p) + n;
}

size_t QVMemoryManager::length() const
{
    if (m_curStart < m_curStop)
        return m_curStop - m_curStart;
    if (m_curStart == m_curStop)
        return 0;
    return (m_curStop - m_Begin) + (m_End - m_curStart);
}

} // namespace QVSDK
