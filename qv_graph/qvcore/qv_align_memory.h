// A byte block aligned inside its allocation and shared by reference count, or
// a view of memory that someone else owns.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

namespace QVSDK {

template <typename T>
class QVAlignMemory {
public:
    std::shared_ptr<T[]> m_p;   // the allocation as obtained; empty for borrowed memory
    T* m_pAlign = nullptr;      // first aligned element inside the allocation
    size_t m_size = 0;          // elements in use
    size_t m_fullSize = 0;      // elements available from m_pAlign
    size_t m_align = 0;         // alignment in bytes, 0 = none
    bool m_bMapped = false;     // the block was mapped from the system (see kMapBytes)

    QVAlignMemory() = default;
    QVAlignMemory(size_t size, size_t align) { alloc(size, align); }

    // Copies share the block; moves hand it over.
    QVAlignMemory(const QVAlignMemory&) = default;
    QVAlignMemory& operator=(const QVAlignMemory&) = default;
    QVAlignMemory(QVAlignMemory&& o) noexcept { *this = std::move(o); }
    QVAlignMemory& operator=(QVAlignMemory&& o) noexcept
    {
        if (this != &o) {
            m_p = std::move(o.m_p);
            m_pAlign = o.m_pAlign;
            m_size = o.m_size;
            m_fullSize = o.m_fullSize;
            m_align = o.m_align;
            m_bMapped = o.m_bMapped;
            o.m_pAlign = nullptr;
            o.m_size = o.m_fullSize = o.m_align = 0;
            o.m_bMapped = false;
        }
        return *this;
    }

    // Blocks from this size on are mapped from the system directly and given
    // back to it when freed. A mapped block costs no memory until its pages
    // are first written, so a large reservation is cheap until used. Through the heap, the allocator's moving mmap
    // threshold would soon keep freed picture-sized blocks in per-thread
    // arenas, and a process that restarts its play-out would hold megabytes
    // it no longer uses.
    static constexpr size_t kMapBytes = 256 * 1024;

    // Keeps the current block when it is big enough and aligned the same way, so
    // that recycled pictures and sounds do not allocate; the block stays shared
    // with whoever else holds it. Otherwise a new block replaces it.
    void alloc(size_t size, size_t align)
    {
        if (m_p && size <= m_fullSize && align == m_align) {
            m_size = size;
            return;
        }
        if (std::is_trivial<T>::value && size >= kMapBytes / sizeof(T) && align <= 4096) {
            // Page aligned already.
            const size_t bytes = size * sizeof(T);
            void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (p == MAP_FAILED)
                throw std::bad_alloc();
            m_p = std::shared_ptr<T[]>(static_cast<T*>(p), [bytes](T* q) { munmap(q, bytes); });
            m_pAlign = m_p.get();
            m_fullSize = size;
            m_size = size;
            m_align = align;
            m_bMapped = true;
            return;
        }
        const size_t extra = align != 0 ? align - 1 : 0;
        std::shared_ptr<T[]> block(new T[size + extra]);
        T* start = block.get();
        if (align != 0) {
            const uintptr_t addr = reinterpret_cast<uintptr_t>(start);
            const uintptr_t aligned = (addr + extra) / align * align;
            start = reinterpret_cast<T*>(aligned);
        }
        m_p = std::move(block);
        m_pAlign = start;
        m_fullSize = size;
        m_size = size;
        m_align = align;
        m_bMapped = false;
    }

    // Gives a mapped block's pages back to the system while keeping the block:
    // it reads as zeros afterwards and costs memory again only where it is
    // written. False (and nothing done) for heap and borrowed blocks.
    bool releasePages()
    {
        if (!m_bMapped || !m_p)
            return false;
        return madvise(m_pAlign, m_fullSize * sizeof(T), MADV_DONTNEED) == 0;
    }

    // Lays this object over memory the caller owns and keeps alive.
    void attach(T* p, size_t size)
    {
        m_p.reset();
        m_pAlign = p;
        m_size = size;
        m_fullSize = size;
        m_align = 0;
        m_bMapped = false;
    }

    void dealloc()
    {
        m_p.reset();
        m_pAlign = nullptr;
        m_size = m_fullSize = m_align = 0;
        m_bMapped = false;
    }

    T* data() const { return m_pAlign; }
    size_t size() const { return m_size; }
    size_t fullSize() const { return m_fullSize; }
    size_t align() const { return m_align; }
    bool isOwner() const { return static_cast<bool>(m_p); }
    bool isMapped() const { return m_bMapped && m_p; }
    bool empty() const { return m_pAlign == nullptr; }
    // Holders of the block, this one included; 0 for borrowed memory.
    long useCount() const { return m_p.use_count(); }
};

} // namespace QVSDK
