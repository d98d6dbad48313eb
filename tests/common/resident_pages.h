// Bytes of a range that are resident in memory, read from the kernel's page
// tables: what a slot really costs, independent of the code's own bookkeeping.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

inline size_t resident_bytes(const void* p, size_t n)
{
    if (p == nullptr || n == 0)
        return 0;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t first = reinterpret_cast<uintptr_t>(p) / page * page;
    const uintptr_t end = reinterpret_cast<uintptr_t>(p) + n;
    const size_t pages = (end - first + page - 1) / page;
    std::vector<unsigned char> in(pages);
    if (mincore(reinterpret_cast<void*>(first), end - first, in.data()) != 0)
        return 0;
    size_t resident = 0;
    for (unsigned char c : in)
        resident += (c & 1) ? page : 0;
    return resident;
}
