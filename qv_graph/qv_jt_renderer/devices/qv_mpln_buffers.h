// One buffer of the board's multi-plane output node and its plane mappings.
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>

// One driver buffer with its three plane mappings. Owns the mappings; buff's
// plane pointer always points at this entry's own planes, also after a move.
struct qv_mpln_buffers {
    static constexpr unsigned kPlanes = 3;

    v4l2_buffer buff{};
    v4l2_plane planes[kPlanes]{};
    uint8_t* data[kPlanes] = {nullptr, nullptr, nullptr};
    size_t mapped[kPlanes] = {0, 0, 0}; // mapped lengths, for unmapping
    // Bytes at the start of plane 0 known to hold packed blank VBI/VANC lines:
    // a blank field need not be packed into this buffer again.
    size_t nBlankVbiBytes = 0;

    qv_mpln_buffers();
    qv_mpln_buffers(qv_mpln_buffers&& other) noexcept;
    qv_mpln_buffers& operator=(qv_mpln_buffers&& other) noexcept;
    qv_mpln_buffers(const qv_mpln_buffers&) = delete;
    qv_mpln_buffers& operator=(const qv_mpln_buffers&) = delete;
    ~qv_mpln_buffers();

    void unmap();
    // Takes the driver's view of the buffer and its planes, keeping the mappings.
    void assign_from_driver(const v4l2_buffer& b, const v4l2_plane* p);
};
