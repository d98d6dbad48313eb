#include "qv_stream_copy.h"

#include <cstdint>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define QV_X86 1
#endif

namespace QVSDK {

namespace {

#if defined(QV_X86)
bool has_avx2()
{
    static const bool b = __builtin_cpu_supports("avx2");
    return b;
}

__attribute__((target("avx2"))) void stream_copy_avx2(uint8_t* d, const uint8_t* s, size_t n)
{
    size_t i = 0;
    const size_t head = (32 - reinterpret_cast<uintptr_t>(d) % 32) % 32;
    if (head != 0) {
        std::memcpy(d, s, head);
        i = head;
    }
    for (; i + 128 <= n; i += 128) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i + 32));
        const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i + 64));
        const __m256i e = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i + 96));
        _mm256_stream_si256(reinterpret_cast<__m256i*>(d + i), a);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(d + i + 32), b);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(d + i + 64), c);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(d + i + 96), e);
    }
    if (i < n)
        std::memcpy(d + i, s + i, n - i);
}
#endif

} // namespace

void stream_copy(void* dst, const void* src, size_t n)
{
#if defined(QV_X86)
    // A line of a picture is worth streaming once it spans a few cache lines.
    if (n >= 256 && has_avx2()) {
        stream_copy_avx2(static_cast<uint8_t*>(dst), static_cast<const uint8_t*>(src), n);
        return;
    }
#endif
    std::memcpy(dst, src, n);
}

void stream_fence()
{
#if defined(QV_X86)
    _mm_sfence();
#endif
}

} // namespace QVSDK
