// The planes of one picture: either one owned aligned block shared between
// copies, or pointers into memory that someone else owns.
#pragma once

#include <cstddef>
#include <memory>

#include "qv_align_memory.h"
#include "qvformats.h"

namespace QVSDK {

class QVImageMemory {
public:
    static constexpr int cMaxPlanes = 4;
    // Alignment of every owned allocation, in bytes.
    static constexpr size_t cAlign = 64;

    QVAlignMemory<unsigned char> m_pMemory;                 // empty when attached to outside memory
    unsigned char* m_pDatas[cMaxPlanes] = {};               // start of each plane, null when unused
    int m_nStrides[cMaxPlanes] = {};                        // bytes per line, 0 when unused
    size_t m_nSize = 0;                                     // bytes of all planes
    // Whoever owns the outside memory of a view, kept alive with it and every
    // copy; any new layout (alloc, attach, dealloc) lets go of it.
    std::shared_ptr<const void> m_pOwner;

    QVImageMemory() = default;
    QVImageMemory(const QVImageMemory&) = default;
    QVImageMemory& operator=(const QVImageMemory&) = default;
    QVImageMemory(QVImageMemory&& o) noexcept;
    QVImageMemory& operator=(QVImageMemory&& o) noexcept;

    // Owned allocations. The block is reused when it is already big enough.
    bool alloc(int w, int h, QVEnumFormats f);
    bool alloc(int h, const int* strides, QVEnumFormats f);
    bool alloc(int w, int h, int stride, QVEnumFormats f);

    // Views of outside memory; nothing is copied and nothing is owned.
    bool attach(unsigned char* p, int w, int h, int stride, QVEnumFormats f);
    bool attach(int w, int h, unsigned char* const* planes, const int* strides, QVEnumFormats f);
    // View of a shared block that then stays alive with this object.
    bool attach(const QVAlignMemory<unsigned char>& m, int w, int h, int stride, QVEnumFormats f);

    void dealloc();

    unsigned char* data(int plane) const { return plane >= 0 && plane < cMaxPlanes ? m_pDatas[plane] : nullptr; }
    int stride(int plane) const { return plane >= 0 && plane < cMaxPlanes ? m_nStrides[plane] : 0; }
    size_t size() const { return m_nSize; }
    bool empty() const { return m_pDatas[0] == nullptr; }

private:
    void clearPlanes();
    // Places the planes one after another from base with the given strides.
    void layPlanes(unsigned char* base, int h, const int* strides, QVEnumFormats f);
};

} // namespace QVSDK
