#include "qv_image_memory.h"

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>

namespace QVSDK {

namespace {

// Planes a format uses; packed formats have one.
int planeCount(QVEnumFormats f)
{
    switch (f) {
    case FORMAT_NV12:
        return 2;
    case FORMAT_YV12:
    case FORMAT_IYUV:
        return 3;
    case FORMAT_YUVA:
        return 4;
    default:
        return 1;
    }
}

// Bytes from the start of plane i to the start of plane i + 1 when the planes
// lie one after another. 4:2:0 chroma planes have half the lines; YUVA has four
// full planes.
size_t planeBytes(int plane, int h, int stride, QVEnumFormats f)
{
    const size_t rows = (plane > 0 && f != FORMAT_YUVA) ? size_t(h / 2) : size_t(h);
    return size_t(std::abs(stride)) * rows;
}

// Strides of every plane from the first plane's stride; the 4:2:0 chroma
// planes take `chroma`, which the callers derive differently.
void planeStrides(QVEnumFormats f, int luma, int chroma, int* strides)
{
    strides[0] = luma;
    strides[1] = strides[2] = strides[3] = 0;
    switch (f) {
    case FORMAT_NV12:
        strides[1] = luma;
        break;
    case FORMAT_YV12:
    case FORMAT_IYUV:
        strides[1] = strides[2] = chroma;
        break;
    case FORMAT_YUVA:
        strides[1] = strides[2] = strides[3] = luma;
        break;
    default:
        break;
    }
}

} // namespace

QVImageMemory::QVImageMemory(QVImageMemory&& o) noexcept
{
    *this = std::move(o);
}

QVImageMemory& QVImageMemory::operator=(QVImageMemory&& o) noexcept
{
    if (this != &o) {
        m_pMemory = std::move(o.m_pMemory);
        for (int i = 0; i < cMaxPlanes; ++i) {
            m_pDatas[i] = o.m_pDatas[i];
            m_nStrides[i] = o.m_nStrides[i];
        }
        m_nSize = o.m_nSize;
        m_pOwner = std::move(o.m_pOwner);
        o.clearPlanes();
    }
    return *this;
}

void QVImageMemory::clearPlanes()
{
    for (int i = 0; i < cMaxPlanes; ++i) {
        m_pDatas[i] = nullptr;
        m_nStrides[i] = 0;
    }
    m_nSize = 0;
    m_pOwner.reset();
}

void QVImageMemory::layPlanes(unsigned char* base, int h, const int* strides, QVEnumFormats f)
{
    clearPlanes();
    const int n = planeCount(f);
    size_t offset = 0;
    for (int i = 0; i < n; ++i) {
        m_pDatas[i] = base + offset;
        m_nStrides[i] = std::abs(strides[i]);
        offset += planeBytes(i, h, strides[i], f);
    }
    m_nSize = offset;
}

bool QVImageMemory::alloc(int w, int h, QVEnumFormats f)
{
    if (w < 0 || h < 0)
        return false;
    int strides[cMaxPlanes] = {};
    switch (f) {
    case FORMAT_NV12:
        strides[0] = strides[1] = w;
        break;
    case FORMAT_YV12:
    case FORMAT_IYUV:
        strides[0] = w;
        strides[1] = strides[2] = w / 2;
        break;
    case FORMAT_YUVA:
        strides[0] = strides[1] = strides[2] = strides[3] = w;
        break;
    default:
        if (int64_t(w) * depthFromFormat(f) > std::numeric_limits<int>::max())
            return false;
        strides[0] = w * depthFromFormat(f);
        break;
    }
    return alloc(h, strides, f);
}

// Planes lie one after another in plane order; with equal strides the YUVA
// block is 4 x |s0| x h.
bool QVImageMemory::alloc(int h, const int* strides, QVEnumFormats f)
{
    if (h < 0 || strides == nullptr)
        return false;
    size_t total = 0;
    for (int i = 0; i < planeCount(f); ++i)
        total += planeBytes(i, h, strides[i], f);
    m_pMemory.alloc(total, cAlign);
    layPlanes(m_pMemory.data(), h, strides, f);
    return true;
}

bool QVImageMemory::alloc(int w, int h, int stride, QVEnumFormats f)
{
    const int s = std::abs(stride);
    int strides[cMaxPlanes];
    planeStrides(f, s, w / 2, strides);
    return alloc(h, strides, f);
}

bool QVImageMemory::attach(unsigned char* p, int w, int h, int stride, QVEnumFormats f)
{
    if (p == nullptr || h < 0) {
        dealloc();
        return false;
    }
    int strides[cMaxPlanes];
    planeStrides(f, stride, stride / 2, strides);
    unsigned char* planes[cMaxPlanes] = {};
    size_t offset = 0;
    for (int i = 0; i < planeCount(f); ++i) {
        planes[i] = p + offset;
        offset += planeBytes(i, h, strides[i], f);
    }
    return attach(w, h, planes, strides, f);
}

bool QVImageMemory::attach(int w, int h, unsigned char* const* planes, const int* strides, QVEnumFormats f)
{
    dealloc();
    if (planes == nullptr || strides == nullptr || planes[0] == nullptr || w < 0 || h < 0)
        return false;
    const int n = planeCount(f);
    for (int i = 0; i < n; ++i) {
        m_pDatas[i] = planes[i];
        m_nStrides[i] = strides[i];
    }
    auto a = [&](int i) { return size_t(std::abs(strides[i])); };
    // Chroma halves are |s| x h / 2, which differs from |s| x (h / 2) for odd h.
    auto half = [&](int i) { return size_t(int64_t(std::abs(strides[i])) * h / 2); };
    switch (f) {
    case FORMAT_NV12:
        m_nSize = a(0) * size_t(h) + half(1);
        break;
    case FORMAT_YV12:
    case FORMAT_IYUV:
        m_nSize = a(0) * size_t(h) + half(1) + half(2);
        break;
    case FORMAT_YUVA:
        m_nSize = (a(0) + a(1) + a(2) + a(3)) * size_t(h);
        break;
    default:
        m_nSize = a(0) * size_t(h);
        break;
    }
    return true;
}

bool QVImageMemory::attach(const QVAlignMemory<unsigned char>& m, int w, int h, int stride, QVEnumFormats f)
{
    // Take the reference first: m may be this object's own block.
    QVAlignMemory<unsigned char> keep = m;
    if (!attach(keep.data(), w, h, stride, f))
        return false;
    m_pMemory = std::move(keep);
    return true;
}

void QVImageMemory::dealloc()
{
    m_pMemory.dealloc();
    clearPlanes();
}

} // namespace QVSDK
