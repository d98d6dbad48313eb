#include "qv_v4l2_buffers.h"

#include "qv_v4l2_common.h"

#include <sys/mman.h>

qv_v4l2_buffers::qv_v4l2_buffers(qv_v4l2_buffers&& other) noexcept
    : pData(other.pData), nSize(other.nSize), buff(other.buff)
{
    other.pData = nullptr;
    other.nSize = 0;
}

qv_v4l2_buffers& qv_v4l2_buffers::operator=(qv_v4l2_buffers&& other) noexcept
{
    if (this != &other) {
        unmap();
        pData = other.pData;
        nSize = other.nSize;
        buff = other.buff;
        other.pData = nullptr;
        other.nSize = 0;
    }
    return *this;
}

qv_v4l2_buffers::~qv_v4l2_buffers()
{
    unmap();
}

void qv_v4l2_buffers::unmap()
{
    if (pData != nullptr)
        munmap(pData, nSize);
    pData = nullptr;
    nSize = 0;
}

bool mmap_buffers(int fd, uint32_t type, uint32_t count, std::vector<qv_v4l2_buffers>& buffers)
{
    v4l2_requestbuffers req{};
    req.count = count;
    req.type = type;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(fd, VIDIOC_REQBUFS, &req) == -1)
        return false;
    for (uint32_t i = 0; i < req.count; ++i) {
        v4l2_buffer b{};
        b.index = i;
        b.type = type;
        b.memory = V4L2_MEMORY_MMAP;
        if (xioctl(fd, VIDIOC_QUERYBUF, &b) == -1)
            return false;
        // Touched now, so that the first frames do not pay a fault per 4 KiB in the render thread.
        void* p = qv_map_device_buffer(fd, b.length, b.m.offset);
        // A failed mapping is not fatal: the buffer still circulates, it just
        // carries nothing from us (the image lent over it is empty).
        buffers.emplace_back(p == MAP_FAILED ? nullptr : p, p == MAP_FAILED ? 0 : b.length, b);
    }
    return true;
}
