#include "qv_transform_image.h"

#include "qv_stream_copy.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define QV_X86 1
#endif

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace QVSDK {

namespace {

struct av_layout {
    AVPixelFormat fmt = AV_PIX_FMT_NONE;
    bool bSwapChroma = false; // YV12 keeps V in plane 1, swscale expects U there
    int nChromaShiftW = 0;    // log2 of horizontal chroma subsampling
    int nChromaShiftH = 0;    // log2 of vertical chroma subsampling
};

bool layout_of(QVEnumFormats f, av_layout& l)
{
    switch (f) {
    case FORMAT_UYVY: l = {AV_PIX_FMT_UYVY422, false, 1, 0}; return true;
    case FORMAT_YUY2: l = {AV_PIX_FMT_YUYV422, false, 1, 0}; return true;
    case FORMAT_YVYU: l = {AV_PIX_FMT_YVYU422, false, 1, 0}; return true;
    case FORMAT_BGR:
    case FORMAT_BGRp: l = {AV_PIX_FMT_BGR24, false, 0, 0}; return true;
    case FORMAT_BGRA:
    case FORMAT_BGRAp: l = {AV_PIX_FMT_BGRA, false, 0, 0}; return true;
    case FORMAT_YV12: l = {AV_PIX_FMT_YUV420P, true, 1, 1}; return true;
    case FORMAT_IYUV: l = {AV_PIX_FMT_YUV420P, false, 1, 1}; return true;
    case FORMAT_NV12: l = {AV_PIX_FMT_NV12, false, 1, 1}; return true;
    case FORMAT_YUVA: l = {AV_PIX_FMT_YUVA444P, false, 0, 0}; return true;
    default: return false;
    }
}

// Pictures larger than 576 lines or 1024 samples are HD/UHD and use BT.709;
// SD pictures use BT.601.
int colour_space_of(int w, int h)
{
    return (w > 1024 || h > 576) ? SWS_CS_ITU709 : SWS_CS_ITU601;
}

// Subsampled formats need whole chroma sites; the library lays planes out for those only.
bool geometry_ok(int w, int h, const av_layout& l)
{
    if (w <= 0 || h <= 0)
        return false;
    return (w & ((1 << l.nChromaShiftW) - 1)) == 0 && (h & ((1 << l.nChromaShiftH) - 1)) == 0;
}

uint8_t* row(uint8_t* base, int stride, int y)
{
    return base + static_cast<ptrdiff_t>(stride) * y;
}

// ---- Row packers into UYVY (U Y0 V Y1 per pixel pair). Pure byte moves. ----
// With bStream the output goes out with non-temporal stores (16-byte aligned
// rows only): a large picture is not read again by this thread, and skipping
// the cache saves the read-for-ownership of every output line.
#if defined(QV_X86)
inline void store16(uint8_t* d, __m128i v, bool bStream)
{
    if (bStream)
        _mm_stream_si128(reinterpret_cast<__m128i*>(d), v);
    else
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d), v);
}
#endif

// Planar luma and chroma rows (4:2:0 or 4:2:2 planes).
void pack_planar_row(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* d, int w, bool bStream)
{
    (void)bStream;
    int i = 0;
#if defined(QV_X86)
    for (; i + 32 <= w; i += 32) {
        const __m128i y0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i));
        const __m128i y1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i + 16));
        const __m128i uu = _mm_loadu_si128(reinterpret_cast<const __m128i*>(u + i / 2));
        const __m128i vv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + i / 2));
        const __m128i uv0 = _mm_unpacklo_epi8(uu, vv);
        const __m128i uv1 = _mm_unpackhi_epi8(uu, vv);
        uint8_t* out = d + 2 * i;
        store16(out + 0, _mm_unpacklo_epi8(uv0, y0), bStream);
        store16(out + 16, _mm_unpackhi_epi8(uv0, y0), bStream);
        store16(out + 32, _mm_unpacklo_epi8(uv1, y1), bStream);
        store16(out + 48, _mm_unpackhi_epi8(uv1, y1), bStream);
    }
#endif
    for (; i + 1 < w; i += 2) {
        d[2 * i + 0] = u[i / 2];
        d[2 * i + 1] = y[i];
        d[2 * i + 2] = v[i / 2];
        d[2 * i + 3] = y[i + 1];
    }
}

// Luma row and an interleaved U/V row.
void pack_nv_row(const uint8_t* y, const uint8_t* uv, uint8_t* d, int w, bool bStream)
{
    (void)bStream;
    int i = 0;
#if defined(QV_X86)
    for (; i + 32 <= w; i += 32) {
        const __m128i y0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i));
        const __m128i y1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + i + 16));
        const __m128i uv0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(uv + i));
        const __m128i uv1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(uv + i + 16));
        uint8_t* out = d + 2 * i;
        store16(out + 0, _mm_unpacklo_epi8(uv0, y0), bStream);
        store16(out + 16, _mm_unpackhi_epi8(uv0, y0), bStream);
        store16(out + 32, _mm_unpacklo_epi8(uv1, y1), bStream);
        store16(out + 48, _mm_unpackhi_epi8(uv1, y1), bStream);
    }
#endif
    for (; i + 1 < w; i += 2) {
        d[2 * i + 0] = uv[i];
        d[2 * i + 1] = y[i];
        d[2 * i + 2] = uv[i + 1];
        d[2 * i + 3] = y[i + 1];
    }
}

// Packed 4:2:2 in another byte order: each 4-byte group is reordered into
// U Y0 V Y1, d[k] = s[order[k]]. SSE2 has no byte shuffle, so its variant
// does the same with shifts inside 16- or 32-bit lanes.
struct yuy2_order { // Y0 U Y1 V: swap the bytes of every pair
    static constexpr uint8_t order[4] = {1, 0, 3, 2};
#if defined(QV_X86)
    static __m128i sse2(__m128i v) { return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)); }
#endif
};

struct yvyu_order { // Y0 V Y1 U: rotate every group left by one byte
    static constexpr uint8_t order[4] = {3, 0, 1, 2};
#if defined(QV_X86)
    static __m128i sse2(__m128i v) { return _mm_or_si128(_mm_slli_epi32(v, 8), _mm_srli_epi32(v, 24)); }
#endif
};

void reorder_groups(const uint8_t* s, uint8_t* d, int n, const uint8_t (&order)[4])
{
    for (int i = 0; i + 3 < n; i += 4) {
        const uint8_t g[4] = {s[i], s[i + 1], s[i + 2], s[i + 3]};
        for (int k = 0; k < 4; ++k)
            d[i + k] = g[order[k]];
    }
}

template <typename Order>
void reorder_row(const uint8_t* s, uint8_t* d, int w, bool bStream)
{
    (void)bStream;
    const int n = 2 * w;
    int i = 0;
#if defined(QV_X86)
    for (; i + 16 <= n; i += 16)
        store16(d + i, Order::sse2(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i))), bStream);
#endif
    reorder_groups(s + i, d + i, n - i, Order::order);
}

// ---- Packed RGB into UYVY, studio range. ----
// Fixed point with 15 fractional bits; the chroma of a pixel pair is taken
// from the mean of the two pixels. BT.601 for SD pictures, BT.709 for HD/UHD.
struct rgb_matrix {
    int32_t yr, yg, yb; // luma, scaled by 219/255
    int32_t ur, ug, ub; // Cb, scaled by 224/255
    int32_t vr, vg, vb; // Cr, scaled by 224/255
};

constexpr int32_t fix15(double v)
{
    return static_cast<int32_t>(v * 32768.0 + (v < 0 ? -0.5 : 0.5));
}

constexpr rgb_matrix make_matrix(double kr, double kb)
{
    const double kg = 1.0 - kr - kb;
    const double ys = 219.0 / 255.0;
    const double cs = 224.0 / 255.0;
    return {fix15(kr * ys),
            fix15(kg * ys),
            fix15(kb * ys),
            fix15(-kr / (2.0 * (1.0 - kb)) * cs),
            fix15(-kg / (2.0 * (1.0 - kb)) * cs),
            fix15(0.5 * cs),
            fix15(0.5 * cs),
            fix15(-kg / (2.0 * (1.0 - kr)) * cs),
            fix15(-kb / (2.0 * (1.0 - kr)) * cs)};
}

constexpr rgb_matrix kBt601 = make_matrix(0.299, 0.114);
constexpr rgb_matrix kBt709 = make_matrix(0.2126, 0.0722);

__attribute__((always_inline)) inline uint8_t clamp8(int32_t v)
{
    return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

// bpp is 3 (BGR) or 4 (BGRA); plain integer code that the compiler vectorises.
// Inlined into both the plain and the AVX2 row functions, so that they share
// one spelling of the arithmetic and differ only in the code generated.
template <int bpp>
__attribute__((always_inline)) inline void rgb_row_to_uyvy_body(const uint8_t* s, uint8_t* d, int w,
                                                                const rgb_matrix& m)
{
    // A local copy: the vectoriser then knows the output cannot alias the matrix.
    const rgb_matrix mm = m;
    for (int i = 0; i + 1 < w; i += 2) {
        const uint8_t* p = s + bpp * i;
        const int32_t b0 = p[0], g0 = p[1], r0 = p[2];
        const int32_t b1 = p[bpp], g1 = p[bpp + 1], r1 = p[bpp + 2];
        const int32_t y0 = (mm.yr * r0 + mm.yg * g0 + mm.yb * b0 + (16 << 15) + (1 << 14)) >> 15;
        const int32_t y1 = (mm.yr * r1 + mm.yg * g1 + mm.yb * b1 + (16 << 15) + (1 << 14)) >> 15;
        const int32_t rs = r0 + r1, gs = g0 + g1, bs = b0 + b1;
        const int32_t u = (mm.ur * rs + mm.ug * gs + mm.ub * bs + (128 << 16) + (1 << 15)) >> 16;
        const int32_t v = (mm.vr * rs + mm.vg * gs + mm.vb * bs + (128 << 16) + (1 << 15)) >> 16;
        d[2 * i + 0] = clamp8(u);
        d[2 * i + 1] = clamp8(y0);
        d[2 * i + 2] = clamp8(v);
        d[2 * i + 3] = clamp8(y1);
    }
}

template <int bpp>
void rgb_row_to_uyvy(const uint8_t* s, uint8_t* d, int w, const rgb_matrix& m)
{
    rgb_row_to_uyvy_body<bpp>(s, d, w, m);
}

#if defined(QV_X86)
// Clang vectorises at every optimisation level; GCC needs asking below -O3.
#if defined(__clang__)
#define QV_AVX2_VECTORISED __attribute__((target("avx2")))
#else
#define QV_AVX2_VECTORISED __attribute__((target("avx2"), optimize("tree-vectorize")))
#endif
template <int bpp>
QV_AVX2_VECTORISED void rgb_row_to_uyvy_avx2(const uint8_t* s, uint8_t* d, int w, const rgb_matrix& m)
{
    rgb_row_to_uyvy_body<bpp>(s, d, w, m);
}
#endif

#if defined(QV_X86)
// AVX2 versions of the packers: one shuffle or unpack per 32 bytes. Chosen at
// run time; the SSE2 ones above serve processors without AVX2.
__attribute__((target("avx2"))) inline void store32(uint8_t* d, __m256i v, bool bStream)
{
    if (bStream)
        _mm256_stream_si256(reinterpret_cast<__m256i*>(d), v);
    else
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), v);
}

// Output of 32 pixels from 16 U/V pairs (lanes: pairs 0-7 | 8-15) and 32 luma.
__attribute__((target("avx2"))) inline void store_uyvy32(uint8_t* d, __m256i uv, __m256i y, bool bStream)
{
    const __m256i lo = _mm256_unpacklo_epi8(uv, y); // pixels 0-7 | 16-23
    const __m256i hi = _mm256_unpackhi_epi8(uv, y); // pixels 8-15 | 24-31
    store32(d, _mm256_permute2x128_si256(lo, hi, 0x20), bStream);
    store32(d + 32, _mm256_permute2x128_si256(lo, hi, 0x31), bStream);
}

__attribute__((target("avx2"))) void pack_planar_row_avx2(const uint8_t* y, const uint8_t* u, const uint8_t* v,
                                                          uint8_t* d, int w, bool bStream)
{
    int i = 0;
    if (bStream && reinterpret_cast<uintptr_t>(d) % 32 != 0)
        bStream = false;
    for (; i + 32 <= w; i += 32) {
        const __m128i uu = _mm_loadu_si128(reinterpret_cast<const __m128i*>(u + i / 2));
        const __m128i vv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + i / 2));
        const __m256i uv = _mm256_set_m128i(_mm_unpackhi_epi8(uu, vv), _mm_unpacklo_epi8(uu, vv));
        store_uyvy32(d + 2 * i, uv, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + i)), bStream);
    }
    if (i < w)
        pack_planar_row(y + i, u + i / 2, v + i / 2, d + 2 * i, w - i, false);
}

__attribute__((target("avx2"))) void pack_nv_row_avx2(const uint8_t* y, const uint8_t* uv, uint8_t* d, int w,
                                                      bool bStream)
{
    int i = 0;
    if (bStream && reinterpret_cast<uintptr_t>(d) % 32 != 0)
        bStream = false;
    for (; i + 32 <= w; i += 32)
        store_uyvy32(d + 2 * i, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(uv + i)),
                     _mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + i)), bStream);
    if (i < w)
        pack_nv_row(y + i, uv + i, d + 2 * i, w - i, false);
}

// The same group reordering with one byte shuffle per 32 bytes; the shuffle
// works inside each 16-byte lane, hence the lane-relative indices.
template <typename Order>
__attribute__((target("avx2"))) void reorder_row_avx2(const uint8_t* s, uint8_t* d, int w, bool bStream)
{
    alignas(32) int8_t m[32];
    for (int k = 0; k < 32; ++k)
        m[k] = static_cast<int8_t>((k & 12) + Order::order[k & 3]);
    const __m256i mask = _mm256_load_si256(reinterpret_cast<const __m256i*>(m));
    const int n = 2 * w;
    int i = 0;
    if (bStream && reinterpret_cast<uintptr_t>(d) % 32 != 0)
        bStream = false;
    for (; i + 32 <= n; i += 32)
        store32(d + i, _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i)), mask), bStream);
    reorder_groups(s + i, d + i, n - i, Order::order);
}
#endif

// The packers this processor runs best, chosen once.
struct packers {
    void (*planar)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, int, bool) = pack_planar_row;
    void (*nv)(const uint8_t*, const uint8_t*, uint8_t*, int, bool) = pack_nv_row;
    void (*yuy2)(const uint8_t*, uint8_t*, int, bool) = reorder_row<yuy2_order>;
    void (*yvyu)(const uint8_t*, uint8_t*, int, bool) = reorder_row<yvyu_order>;
    void (*bgra)(const uint8_t*, uint8_t*, int, const rgb_matrix&) = rgb_row_to_uyvy<4>;
    void (*bgr)(const uint8_t*, uint8_t*, int, const rgb_matrix&) = rgb_row_to_uyvy<3>;

    packers()
    {
#if defined(QV_X86)
        if (__builtin_cpu_supports("avx2")) {
            planar = pack_planar_row_avx2;
            nv = pack_nv_row_avx2;
            yuy2 = reorder_row_avx2<yuy2_order>;
            yvyu = reorder_row_avx2<yvyu_order>;
            bgra = rgb_row_to_uyvy_avx2<4>;
            bgr = rgb_row_to_uyvy_avx2<3>;
        }
#endif
    }
};

const packers& pack()
{
    static const packers p;
    return p;
}

// Rows and bytes per row of each plane, as the library lays them out.
int plane_rows(QVEnumFormats f, int w, int h, int rowBytes[4], int rows[4])
{
    switch (f) {
    case FORMAT_NV12:
        rowBytes[0] = w, rows[0] = h;
        rowBytes[1] = w, rows[1] = h / 2;
        return 2;
    case FORMAT_YV12:
    case FORMAT_IYUV:
        rowBytes[0] = w, rows[0] = h;
        rowBytes[1] = rowBytes[2] = w / 2;
        rows[1] = rows[2] = h / 2;
        return 3;
    case FORMAT_YUVA:
        for (int i = 0; i < 4; ++i)
            rowBytes[i] = w, rows[i] = h;
        return 4;
    default:
        rowBytes[0] = w * depthFromFormat(f), rows[0] = h;
        return 1;
    }
}

bool use_streaming_stores(const QVImage& dst);

// Rows [y0, y1) of plane p (in that plane's own rows).
void copy_plane_rows(const QVImage& src, QVImage& dst, int p, int rowBytes, int y0, int y1)
{
    const int ss = src.stride(p);
    const int ds = dst.stride(p);
    if (ss == rowBytes && ds == rowBytes) {
        const size_t n = static_cast<size_t>(rowBytes) * static_cast<size_t>(y1 - y0);
        if (use_streaming_stores(dst)) {
            stream_copy(row(dst.data(p), ds, y0), row(src.data(p), ss, y0), n);
            stream_fence();
        } else {
            std::memcpy(row(dst.data(p), ds, y0), row(src.data(p), ss, y0), n);
        }
        return;
    }
    for (int y = y0; y < y1; ++y)
        std::memcpy(row(dst.data(p), ds, y), row(src.data(p), ss, y), static_cast<size_t>(rowBytes));
}

// Repacks output rows [y0, y1) of a same-size picture into UYVY.
void repack_rows(const QVImage& src, QVImage& dst, int y0, int y1, bool bStream)
{
    const int w = src.width();
    uint8_t* d = dst.data(0);
    const int ds = dst.stride(0);
    switch (src.format()) {
    case FORMAT_YUY2:
        for (int r = y0; r < y1; ++r)
            pack().yuy2(row(src.data(0), src.stride(0), r), row(d, ds, r), w, bStream);
        break;
    case FORMAT_YVYU:
        for (int r = y0; r < y1; ++r)
            pack().yvyu(row(src.data(0), src.stride(0), r), row(d, ds, r), w, bStream);
        break;
    case FORMAT_IYUV:
    case FORMAT_YV12: {
        // The chroma of a 4:2:0 line pair serves both lines.
        const int iu = src.format() == FORMAT_IYUV ? 1 : 2;
        const int iv = 3 - iu;
        for (int r = y0; r < y1; ++r)
            pack().planar(row(src.data(0), src.stride(0), r), row(src.data(iu), src.stride(iu), r / 2),
                            row(src.data(iv), src.stride(iv), r / 2), row(d, ds, r), w, bStream);
        break;
    }
    case FORMAT_BGRA:
    case FORMAT_BGRAp:
    case FORMAT_BGR:
    case FORMAT_BGRp: {
        const rgb_matrix& m = colour_space_of(dst.width(), dst.height()) == SWS_CS_ITU709 ? kBt709 : kBt601;
        const bool b4 = src.format() == FORMAT_BGRA || src.format() == FORMAT_BGRAp;
        for (int r = y0; r < y1; ++r) {
            if (b4)
                pack().bgra(row(src.data(0), src.stride(0), r), row(d, ds, r), w, m);
            else
                pack().bgr(row(src.data(0), src.stride(0), r), row(d, ds, r), w, m);
        }
        break;
    }
    case FORMAT_NV12:
        for (int r = y0; r < y1; ++r)
            pack().nv(row(src.data(0), src.stride(0), r), row(src.data(1), src.stride(1), r / 2), row(d, ds, r), w,
                        bStream);
        break;
    default:
        break;
    }
#if defined(QV_X86)
    if (bStream)
        _mm_sfence();
#endif
}

// A converted picture waits a latency in the FIFO before it is read again, long
// after it has left the caches: storing it past them saves the read-for-
// ownership of every line. The packers' stores need 16-byte aligned rows.
bool use_streaming_stores(const QVImage& dst)
{
    const size_t bytes = static_cast<size_t>(dst.stride(0)) * static_cast<size_t>(dst.height());
    return bytes >= kStreamCopyMinBytes && reinterpret_cast<uintptr_t>(dst.data(0)) % 16 == 0 && dst.stride(0) % 16 == 0;
}

bool repackable_to_uyvy(QVEnumFormats f)
{
    return f == FORMAT_YUY2 || f == FORMAT_YVYU || f == FORMAT_IYUV || f == FORMAT_YV12 || f == FORMAT_NV12 ||
           f == FORMAT_BGRA || f == FORMAT_BGRAp || f == FORMAT_BGR || f == FORMAT_BGRp;
}

// A fixed set of worker threads that run the parts of one job while the
// caller runs its own share. Started once, stopped with the engine.
class worker_pool {
public:
    using part_fn = void (*)(void* ctx, int part);

    explicit worker_pool(int nWorkers)
    {
        for (int i = 0; i < nWorkers; ++i)
            m_threads.emplace_back([this] { work(); });
    }
    ~worker_pool()
    {
        {
            std::lock_guard<std::mutex> lock(m_cs);
            m_bStop = true;
        }
        m_cvWork.notify_all();
        for (std::thread& t : m_threads)
            t.join();
    }
    worker_pool(const worker_pool&) = delete;
    worker_pool& operator=(const worker_pool&) = delete;

    // Runs fn(ctx, i) for every i in [0, nParts) and returns when all are done.
    void run(int nParts, part_fn fn, void* ctx)
    {
        {
            std::lock_guard<std::mutex> lock(m_cs);
            m_fn = fn;
            m_ctx = ctx;
            m_nParts = nParts;
            m_nNext = 0;
            m_nPending = nParts;
            ++m_nGeneration;
        }
        m_cvWork.notify_all();
        take_parts();
        std::unique_lock<std::mutex> lock(m_cs);
        while (m_nPending > 0)
            m_cvDone.wait_for(lock, std::chrono::milliseconds(100));
    }

private:
    // Runs parts until none is left unclaimed.
    void take_parts()
    {
        for (;;) {
            int part;
            part_fn fn;
            void* ctx;
            {
                std::lock_guard<std::mutex> lock(m_cs);
                if (m_nNext >= m_nParts)
                    return;
                part = m_nNext++;
                fn = m_fn;
                ctx = m_ctx;
            }
            fn(ctx, part);
            bool bLast;
            {
                std::lock_guard<std::mutex> lock(m_cs);
                bLast = --m_nPending == 0;
            }
            if (bLast)
                m_cvDone.notify_all();
        }
    }

    void work()
    {
        uint64_t seen = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_cs);
                // Bounded wait: the stop flag is checked at least every 100 ms.
                while (!m_bStop && m_nGeneration == seen)
                    m_cvWork.wait_for(lock, std::chrono::milliseconds(100));
                if (m_bStop)
                    return;
                seen = m_nGeneration;
            }
            take_parts();
        }
    }

    // Everything below guarded by m_cs.
    std::mutex m_cs;
    std::condition_variable m_cvWork;
    std::condition_variable m_cvDone;
    part_fn m_fn = nullptr;
    void* m_ctx = nullptr;
    int m_nParts = 0;
    int m_nNext = 0;
    int m_nPending = 0;
    uint64_t m_nGeneration = 0;
    bool m_bStop = false;
    std::vector<std::thread> m_threads;
};

} // namespace

struct QVTransformImage::impl {
    struct key {
        int sw = 0, sh = 0, sf = -1;
        int dw = 0, dh = 0, df = -1;
        int nParts = 0;
        bool bFields = false;
        bool operator==(const key& o) const
        {
            return sw == o.sw && sh == o.sh && sf == o.sf && dw == o.dw && dh == o.dh && df == o.df &&
                   nParts == o.nParts && bFields == o.bFields;
        }
    };
    // One scaler run: source rows sY0, sY0 + step, ... into the same pattern of output rows.
    struct part {
        SwsContext* ctx = nullptr;
        int sY0 = 0, sRows = 0;
        int dY0 = 0, dRows = 0;
        int step = 1; // 2 for a field
    };

    int nThreads = 0;
    unsigned long nContextsMade = 0;
    std::unique_ptr<worker_pool> pool;
    int nPoolWorkers = -1;

    key k;
    std::vector<part> parts;
    // Planar 4:2:2 staging picture that UYVY output is packed from: the
    // scaler's planar output paths are far faster than its packed ones.
    QVAlignMemory<unsigned char> staging;
    uint8_t* stagePlane[3] = {};
    int stageStride[3] = {};
    bool bStaging = false;

    // Per call, read by the parts.
    const QVImage* pSrc = nullptr;
    QVImage* pDst = nullptr;
    int nBandRows = 0;

    ~impl() { drop_contexts(); }

    int thread_count() const
    {
        // Asking the system reads a file each time: once is enough.
        static const int nOnline = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
        return std::min(nThreads > 0 ? nThreads : nOnline, 16);
    }

    void run(int nParts, worker_pool::part_fn fn)
    {
        const int workers = std::min(thread_count(), nParts) - 1;
        if (workers <= 0) {
            for (int i = 0; i < nParts; ++i)
                fn(this, i);
            return;
        }
        if (!pool || nPoolWorkers != thread_count() - 1) {
            pool.reset();
            nPoolWorkers = thread_count() - 1;
            pool = std::make_unique<worker_pool>(nPoolWorkers);
        }
        pool->run(nParts, fn, this);
    }

    void drop_contexts()
    {
        for (part& p : parts)
            if (p.ctx != nullptr)
                sws_freeContext(p.ctx);
        parts.clear();
        k = key{};
    }

    // Bands of whole chroma rows for parallel row work. Below about a million
    // pixels waking a worker costs more than the rows it would take over.
    int bands_for(int w, int h) const
    {
        if (static_cast<long>(w) * h < 1000000L)
            return 1;
        return std::max(1, std::min(thread_count(), h / 16));
    }
    static void band_range(int h, int nBands, int i, int& y0, int& y1)
    {
        y0 = (h * i / nBands) & ~1;
        y1 = i + 1 == nBands ? h : (h * (i + 1) / nBands) & ~1;
    }

    static void copy_part(void* self, int i)
    {
        auto* p = static_cast<impl*>(self);
        const QVImage& src = *p->pSrc;
        int rowBytes[4] = {};
        int rows[4] = {};
        const int planes = plane_rows(src.format(), src.width(), src.height(), rowBytes, rows);
        for (int pl = 0; pl < planes; ++pl) {
            int y0, y1;
            band_range(rows[pl], p->nBandRows, i, y0, y1);
            copy_plane_rows(src, *p->pDst, pl, rowBytes[pl], y0, y1);
        }
    }

    static void repack_part(void* self, int i)
    {
        auto* p = static_cast<impl*>(self);
        int y0, y1;
        band_range(p->pSrc->height(), p->nBandRows, i, y0, y1);
        repack_rows(*p->pSrc, *p->pDst, y0, y1, use_streaming_stores(*p->pDst));
    }

    static void scale_part(void* self, int i)
    {
        auto* p = static_cast<impl*>(self);
        p->scale_one(p->parts[static_cast<size_t>(i)]);
    }

    bool build(const key& nk, const av_layout& ls, const av_layout& ld);
    void scale_one(const part& pt);
};

bool QVTransformImage::impl::build(const key& nk, const av_layout& ls, const av_layout& ld)
{
    drop_contexts();
    bStaging = nk.df == FORMAT_UYVY;
    if (bStaging) {
        // Y plane, then U and V planes of half width, full height.
        const size_t w = static_cast<size_t>(nk.dw);
        const size_t h = static_cast<size_t>(nk.dh);
        staging.alloc(w * h * 2, 64);
        stagePlane[0] = staging.data();
        stagePlane[1] = stagePlane[0] + w * h;
        stagePlane[2] = stagePlane[1] + (w / 2) * h;
        stageStride[0] = nk.dw;
        stageStride[1] = stageStride[2] = nk.dw / 2;
    }
    const AVPixelFormat outFmt = bStaging ? AV_PIX_FMT_YUV422P : ld.fmt;
    const bool bScale = nk.sw != nk.dw || nk.sh != nk.dh;
    // Bicubic where the picture is resized; without resizing only chroma is
    // resampled, where bilinear is enough.
    const int64_t flags = bScale ? SWS_BICUBIC : SWS_BILINEAR;

    std::vector<part> made;
    for (int i = 0; i < nk.nParts; ++i) {
        part pt;
        if (nk.bFields) {
            pt.step = 2;
            pt.sY0 = i;
            pt.sRows = nk.sh / 2;
            pt.dY0 = i;
            pt.dRows = nk.dh / 2;
        } else {
            int y0, y1;
            band_range(nk.sh, nk.nParts, i, y0, y1);
            pt.sY0 = pt.dY0 = y0;
            pt.sRows = pt.dRows = y1 - y0;
            if (bScale) {
                pt.sY0 = pt.dY0 = 0;
                pt.sRows = nk.sh;
                pt.dRows = nk.dh;
            }
        }
        SwsContext* ctx = sws_alloc_context();
        if (ctx == nullptr)
            break;
        av_opt_set_int(ctx, "srcw", nk.sw, 0);
        av_opt_set_int(ctx, "srch", pt.sRows, 0);
        av_opt_set_int(ctx, "src_format", ls.fmt, 0);
        av_opt_set_int(ctx, "dstw", nk.dw, 0);
        av_opt_set_int(ctx, "dsth", pt.dRows, 0);
        av_opt_set_int(ctx, "dst_format", outFmt, 0);
        av_opt_set_int(ctx, "sws_flags", flags, 0);
        // Studio range on both sides; the matrix follows each side's picture size.
        av_opt_set_int(ctx, "src_range", 0, 0);
        av_opt_set_int(ctx, "dst_range", 0, 0);
        if (sws_init_context(ctx, nullptr, nullptr) < 0) {
            sws_freeContext(ctx);
            break;
        }
        sws_setColorspaceDetails(ctx, sws_getCoefficients(colour_space_of(nk.sw, nk.sh)), 0,
                                 sws_getCoefficients(colour_space_of(nk.dw, nk.dh)), 0, 0, 1 << 16, 1 << 16);
        pt.ctx = ctx;
        made.push_back(pt);
        ++nContextsMade;
    }
    parts = std::move(made);
    if (static_cast<int>(parts.size()) != nk.nParts) {
        drop_contexts();
        return false;
    }
    k = nk;
    return true;
}

void QVTransformImage::impl::scale_one(const part& pt)
{
    const QVImage& src = *pSrc;
    QVImage& dst = *pDst;
    av_layout ls;
    layout_of(src.format(), ls);

    const uint8_t* sData[4] = {};
    int sStride[4] = {};
    // Fields are only used where chroma is not shared between lines, so a
    // part's first chroma row follows its first luma row directly.
    for (int i = 0; i < 4; ++i) {
        const int y0 = (i == 0 || i == 3) ? pt.sY0 : pt.sY0 >> ls.nChromaShiftH;
        sData[i] = src.data(i) != nullptr ? row(src.data(i), src.stride(i), y0) : nullptr;
        sStride[i] = src.stride(i) * pt.step;
    }
    if (ls.bSwapChroma) {
        std::swap(sData[1], sData[2]);
        std::swap(sStride[1], sStride[2]);
    }

    uint8_t* dData[4] = {};
    int dStride[4] = {};
    if (bStaging) {
        for (int i = 0; i < 3; ++i) {
            dData[i] = row(stagePlane[i], stageStride[i], pt.dY0);
            dStride[i] = stageStride[i] * pt.step;
        }
    } else {
        av_layout ld;
        layout_of(dst.format(), ld);
        for (int i = 0; i < 4; ++i) {
            const int y0 = (i == 0 || i == 3) ? pt.dY0 : pt.dY0 >> ld.nChromaShiftH;
            dData[i] = dst.data(i) != nullptr ? row(dst.data(i), dst.stride(i), y0) : nullptr;
            dStride[i] = dst.stride(i) * pt.step;
        }
        if (ld.bSwapChroma) {
            std::swap(dData[1], dData[2]);
            std::swap(dStride[1], dStride[2]);
        }
    }
    sws_scale(pt.ctx, sData, sStride, 0, pt.sRows, dData, dStride);

    if (bStaging) {
        const bool bStream = use_streaming_stores(dst);
        for (int r = 0; r < pt.dRows; ++r) {
            const int y = pt.dY0 + r * pt.step;
            pack().planar(row(stagePlane[0], stageStride[0], y), row(stagePlane[1], stageStride[1], y),
                            row(stagePlane[2], stageStride[2], y), row(dst.data(0), dst.stride(0), y), dst.width(),
                            bStream);
        }
#if defined(QV_X86)
        if (bStream)
            _mm_sfence();
#endif
    }
}

QVTransformImage::QVTransformImage() : m_p(std::make_unique<impl>()) {}

QVTransformImage::~QVTransformImage() = default;

QVTransformImage::QVTransformImage(QVTransformImage&& o) noexcept : m_p(std::move(o.m_p))
{
    o.m_p = std::make_unique<impl>();
}

QVTransformImage& QVTransformImage::operator=(QVTransformImage&& o) noexcept
{
    if (this != &o) {
        m_p = std::move(o.m_p);
        o.m_p = std::make_unique<impl>();
    }
    return *this;
}

void QVTransformImage::setThreads(int nThreads)
{
    m_p->nThreads = std::max(0, nThreads);
}

int QVTransformImage::threads() const
{
    return m_p->thread_count();
}

unsigned long QVTransformImage::contextsMade() const
{
    return m_p->nContextsMade;
}

bool QVTransformImage::isSupported(QVEnumFormats f)
{
    av_layout l;
    return layout_of(f, l);
}

bool QVTransformImage::transform(const QVImage& src, QVImage& dst)
{
    if (src.isEmpty() || dst.isEmpty())
        return false;
    av_layout ls, ld;
    if (!layout_of(src.format(), ls) || !layout_of(dst.format(), ld))
        return false;
    if (!geometry_ok(src.width(), src.height(), ls) || !geometry_ok(dst.width(), dst.height(), ld))
        return false;

    impl& p = *m_p;
    p.pSrc = &src;
    p.pDst = &dst;
    const bool bSameSize = src.width() == dst.width() && src.height() == dst.height();
    if (bSameSize && src.format() == dst.format()) {
        // A plain copy is bound by memory, not by a core: a second thread adds
        // little speed and costs two wake-ups a picture.
        p.nBandRows = 1;
        p.run(p.nBandRows, &impl::copy_part);
        return true;
    }
    if (bSameSize && dst.format() == FORMAT_UYVY && repackable_to_uyvy(src.format())) {
        p.nBandRows = p.bands_for(src.width(), src.height());
        p.run(p.nBandRows, &impl::repack_part);
        return true;
    }

    impl::key k;
    k.sw = src.width(), k.sh = src.height(), k.sf = src.format();
    k.dw = dst.width(), k.dh = dst.height(), k.df = dst.format();
    if (!bSameSize) {
        // An interlaced picture is resized field by field, so that the fields
        // do not mix; each field has its own context and thread.
        k.bFields = !isProgressiveImage(dst.order()) && src.height() % 2 == 0 && dst.height() % 2 == 0 &&
                    ls.nChromaShiftH == 0 && ld.nChromaShiftH == 0;
        k.nParts = k.bFields ? 2 : 1;
    } else {
        // Same size: bands are exact only where no chroma is shared between lines.
        k.nParts = (ls.nChromaShiftH == 0 && ld.nChromaShiftH == 0) ? p.bands_for(src.width(), src.height()) : 1;
    }
    if (!(p.k == k) && !p.build(k, ls, ld))
        return false;
    p.run(static_cast<int>(p.parts.size()), &impl::scale_part);
    return true;
}

} // namespace QVSDK
