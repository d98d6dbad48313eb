// Memory-mapped buffers of a single-plane V4L2 node (video or raw VBI).
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// One mapped driver buffer. Owns its mapping: moving hands it over, the
// destructor unmaps it.
struct qv_v4l2_buffers {
    void* pData = nullptr;
    size_t nSize = 0;
    v4l2_buffer buff{};

    qv_v4l2_buffers() = default;
    qv_v4l2_buffers(void* p, size_t n, const v4l2_buffer& b) : pData(p), nSize(n), buff(b) {}
    qv_v4l2_buffers(qv_v4l2_buffers&& other) noexcept;
    qv_v4l2_buffers& operator=(qv_v4l2_buffers&& other) noexcept;
    qv_v4l2_buffers(const qv_v4l2_buffers&) = delete;
    qv_v4l2_buffers& operator=(const qv_v4l2_buffers&) = delete;
    ~qv_v4l2_buffers();

    void unmap();
};

// Requests count MMAP buffers of the given type and maps every granted one,
// appending to buffers. A driver that grants none is not an error.
bool mmap_buffers(int fd, uint32_t type, uint32_t count, std::vector<qv_v4l2_buffers>& buffers);
