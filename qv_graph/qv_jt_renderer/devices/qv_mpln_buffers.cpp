#include "qv_mpln_buffers.h"

#include <algorithm>
#include <iterator>
#include <sys/mman.h>

qv_mpln_buffers::qv_mpln_buffers()
{
    buff.m.planes = planes;
    buff.length = kPlanes;
}

qv_mpln_buffers::qv_mpln_buffers(qv_mpln_buffers&& other) noexcept
{
    *this = std::move(other);
}

qv_mpln_buffers& qv_mpln_buffers::operator=(qv_mpln_buffers&& other) noexcept
{
    if (this != &other) {
        unmap();
        buff = other.buff;
        std::copy(std::begin(other.planes), std::end(other.planes), planes);
        std::copy(std::begin(other.data), std::end(other.data), data);
        std::copy(std::begin(other.mapped), std::end(other.mapped), mapped);
        nBlankVbiBytes = other.nBlankVbiBytes;
        buff.m.planes = planes;
        std::fill(std::begin(other.data), std::end(other.data), nullptr);
        std::fill(std::begin(other.mapped), std::end(other.mapped), 0);
    }
    return *this;
}

qv_mpln_buffers::~qv_mpln_buffers()
{
    unmap();
}

void qv_mpln_buffers::unmap()
{
    for (unsigned p = 0; p < kPlanes; ++p) {
        if (data[p] != nullptr)
            munmap(data[p], mapped[p]);
        data[p] = nullptr;
        mapped[p] = 0;
    }
    nBlankVbiBytes = 0;
}

void qv_mpln_buffers::assign_from_driver(const v4l2_buffer& b, const v4l2_plane* p)
{
    buff = b;
    const unsigned n = std::min<unsigned>(b.length, kPlanes);
    for (unsigned i = 0; i < n; ++i)
        planes[i] = p[i];
    buff.m.planes = planes;
}
