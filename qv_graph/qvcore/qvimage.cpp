#include "qvimage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "qv_stream_copy.h"

namespace QVSDK {

namespace {

QVSize squareSamples(int w, int h)
{
    return QVSize(w, h, QVSize::calcPictureAspectRatio(w, h));
}

// The bytes `rows` rows of `bytes` from p with stride s cover, as [lo, hi).
void rowSpan(const unsigned char* p, int s, int rows, size_t bytes, const unsigned char*& lo, const unsigned char*& hi)
{
    const unsigned char* last = p + std::ptrdiff_t(rows - 1) * s;
    lo = std::min(p, last);
    hi = std::max(p, last) + bytes;
}

// Copies rows of `bytes` bytes; either side may have any stride, including a
// negative one for bottom-up pictures. Memory shared between the two images
// (a frame and one of its own fields) is moved; whole pictures between
// separate blocks are streamed past the caches.
void copyRows(const unsigned char* src, int srcStride, unsigned char* dst, int dstStride, int rows, size_t bytes)
{
    if (src == nullptr || dst == nullptr || bytes == 0 || rows <= 0)
        return;
    if (size_t(std::abs(srcStride)) < bytes || size_t(std::abs(dstStride)) < bytes)
        return;
    const unsigned char *sLo, *sHi, *dLo, *dHi;
    rowSpan(src, srcStride, rows, bytes, sLo, sHi);
    rowSpan(dst, dstStride, rows, bytes, dLo, dHi);
    const bool bApart = sHi <= dLo || dHi <= sLo;
    if (bApart && size_t(rows) * bytes >= kStreamCopyMinBytes) {
        if (srcStride == dstStride && size_t(srcStride) == bytes) {
            stream_copy(dst, src, size_t(rows) * bytes);
        } else {
            for (int y = 0; y < rows; ++y)
                stream_copy(dst + std::ptrdiff_t(y) * dstStride, src + std::ptrdiff_t(y) * srcStride, bytes);
        }
        stream_fence();
        return;
    }
    for (int y = 0; y < rows; ++y)
        std::memmove(dst + std::ptrdiff_t(y) * dstStride, src + std::ptrdiff_t(y) * srcStride, bytes);
}

bool isSinglePlane(QVEnumFormats f)
{
    return f != FORMAT_NV12 && f != FORMAT_YV12 && f != FORMAT_YUVA && f != FORMAT_IYUV;
}

// Writes a repeating pixel pattern of `patternBytes` bytes over columns
// [x1, x2) (in pattern units) of rows [y1, y2) of one plane.
void fillPlane(unsigned char* plane, int stride, int x1, int x2, int y1, int y2, const unsigned char* pattern,
               size_t patternBytes)
{
    if (plane == nullptr || x2 <= x1 || y2 <= y1)
        return;
    if (size_t(std::abs(stride)) < size_t(x2) * patternBytes)
        return;
    // The first row is written pixel by pixel, the others copied from it:
    // whole FIFOs are blanked this way when they are allocated.
    unsigned char* first = plane + std::ptrdiff_t(y1) * stride + size_t(x1) * patternBytes;
    const size_t rowBytes = size_t(x2 - x1) * patternBytes;
    for (size_t o = 0; o < rowBytes; o += patternBytes)
        std::memcpy(first + o, pattern, patternBytes);
    for (int y = y1 + 1; y < y2; ++y)
        std::memcpy(first + std::ptrdiff_t(y - y1) * stride, first, rowBytes);
}

} // namespace

QVImage::QVImage(int w, int h, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(w, h, o, f);
}

QVImage::QVImage(const QVSize& s, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(s, o, f);
}

QVImage::QVImage(int w, int h, int stride, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(w, h, stride, o, f);
}

QVImage::QVImage(const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(s, stride, o, f);
}

QVImage::QVImage(unsigned char* p, int w, int h, int stride, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(p, w, h, stride, o, f);
}

QVImage::QVImage(unsigned char* p, const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f)
{
    InitImage(p, s, stride, o, f);
}

QVImage::QVImage(const QVAlignMemory<unsigned char>& m, const QVSize& s, int stride, QVFieldOrder o,
                 QVEnumFormats f)
{
    InitImage(m, s, stride, o, f);
}

QVImage::QVImage(unsigned char* const* planes, const int* strides, const QVSize& s, QVFieldOrder o,
                 QVEnumFormats f)
{
    InitImage(planes, strides, s, o, f);
}

QVImage::QVImage(QVImage&& o) noexcept
{
    *this = std::move(o);
}

QVImage& QVImage::operator=(QVImage&& o) noexcept
{
    if (this != &o) {
        m_pMemory = std::move(o.m_pMemory);
        m_sizeImage = o.m_sizeImage;
        m_eFormat = o.m_eFormat;
        m_eOrder = o.m_eOrder;
        m_pImage_i = std::move(o.m_pImage_i);
        o.m_sizeImage = QVSize();
    }
    return *this;
}

bool QVImage::InitImage(const QVSize& s, QVFieldOrder o, QVEnumFormats f)
{
    if (!m_pMemory.alloc(s.m_nWidth, s.m_nHeight, f)) {
        Release();
        return false;
    }
    m_sizeImage = s;
    m_eOrder = o;
    m_eFormat = f;
    return true;
}

bool QVImage::InitImage(int w, int h, QVFieldOrder o, QVEnumFormats f)
{
    return InitImage(squareSamples(w, h), o, f);
}

bool QVImage::InitImage(int w, int h, int stride, QVFieldOrder o, QVEnumFormats f)
{
    return InitImage(squareSamples(w, h), stride, o, f);
}

bool QVImage::InitImage(const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f)
{
    if (s.m_nWidth < 0 || !m_pMemory.alloc(s.m_nWidth, s.m_nHeight, stride, f)) {
        Release();
        return false;
    }
    m_sizeImage = s;
    m_eOrder = o;
    m_eFormat = f;
    return true;
}

bool QVImage::InitImage(unsigned char* p, int w, int h, int stride, QVFieldOrder o, QVEnumFormats f)
{
    return InitImage(p, squareSamples(w, h), stride, o, f);
}

bool QVImage::InitImage(unsigned char* p, const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f)
{
    Release();
    if (!m_pMemory.attach(p, s.m_nWidth, s.m_nHeight, stride, f))
        return false;
    m_sizeImage = s;
    m_eOrder = o;
    m_eFormat = f;
    return true;
}

bool QVImage::InitImage(const QVAlignMemory<unsigned char>& m, const QVSize& s, int stride, QVFieldOrder o,
                        QVEnumFormats f)
{
    // m may be this image's own block: hold it across Release.
    const QVAlignMemory<unsigned char> keep = m;
    Release();
    if (!m_pMemory.attach(keep, s.m_nWidth, s.m_nHeight, stride, f))
        return false;
    m_sizeImage = s;
    m_eOrder = o;
    m_eFormat = f;
    return true;
}

bool QVImage::InitImage(unsigned char* const* planes, const int* strides, const QVSize& s, QVFieldOrder o,
                        QVEnumFormats f)
{
    Release();
    if (!m_pMemory.attach(s.m_nWidth, s.m_nHeight, planes, strides, f))
        return false;
    m_sizeImage = s;
    m_eOrder = o;
    m_eFormat = f;
    return true;
}

void QVImage::Release()
{
    m_pMemory.dealloc();
    m_sizeImage = QVSize();
}

void QVImage::setPictureAspect(const QVAspectRatio& pictureAspect)
{
    m_sizeImage.setSize(m_sizeImage.m_nWidth, m_sizeImage.m_nHeight, pictureAspect);
}

// For the 4:2:0 formats the value is w x h + w/2 + h/2, not 1.5 x w x h:
// buffer sizes elsewhere were set up against exactly this figure.
int QVImage::sizeImage() const
{
    const int64_t w = m_sizeImage.m_nWidth;
    const int64_t h = m_sizeImage.m_nHeight;
    int64_t bytes = 0;
    switch (m_eFormat) {
    case FORMAT_UYVY:
    case FORMAT_YUY2:
        bytes = w * h * 2;
        break;
    case FORMAT_YV12:
    case FORMAT_NV12:
        bytes = w * h + w / 2 + h / 2;
        break;
    case FORMAT_BGR:
    case FORMAT_BGRp:
        bytes = w * h * 3;
        break;
    case FORMAT_BGRA:
    case FORMAT_BGRAp:
        bytes = w * h * 4;
        break;
    default:
        break;
    }
    return static_cast<int>(bytes);
}

bool QVImage::operator!=(const QVImage& o) const
{
    return m_sizeImage != o.m_sizeImage || stride(0) != o.stride(0) || m_eFormat != o.m_eFormat ||
           m_eOrder != o.m_eOrder;
}

bool QVImage::isChangeOrder(const QVImage& other) const
{
    if (isProgressiveImage(m_eOrder) || isProgressiveImage(other.m_eOrder))
        return false;
    return m_eOrder != other.m_eOrder;
}

void QVImage::copyTo(QVImage& dst) const
{
    const int w = width();
    const int h = height();
    if (w != dst.width() || h != dst.height() || m_eFormat != dst.m_eFormat)
        return;
    if (w <= 0 || h <= 0)
        return;

    auto rows = [&](int plane, int n, size_t bytes) {
        copyRows(data(plane), stride(plane), dst.data(plane), dst.stride(plane), n, bytes);
    };
    switch (m_eFormat) {
    case FORMAT_NV12:
        rows(0, h, size_t(w));
        rows(1, h / 2, size_t(w));
        break;
    case FORMAT_YV12:
        rows(0, h, size_t(w));
        rows(1, h / 2, size_t(w / 2));
        rows(2, h / 2, size_t(w / 2));
        break;
    case FORMAT_YUVA:
        for (int p = 0; p < 4; ++p)
            rows(p, h, size_t(w));
        break;
    case FORMAT_IYUV:
        // Planar without a copy rule of its own: left untouched on purpose.
        break;
    default:
        rows(0, h, size_t(w) * size_t(depthFromFormat(m_eFormat)));
        break;
    }
}

void QVImage::copyFieldsTo(QVImage& upper, QVImage& lower) const
{
    const int w = width();
    const int h = height();
    const bool bFits = upper.width() == w && lower.width() == w && upper.height() == (h + 1) / 2 &&
                       lower.height() == h / 2 && upper.format() == m_eFormat && lower.format() == m_eFormat;
    const size_t bytes = size_t(std::max(w, 0)) * size_t(std::max(depthFromFormat(m_eFormat), 0));
    if (!bFits || !isSinglePlane(m_eFormat) || h <= 0 || bytes == 0 || size_t(std::abs(stride(0))) < bytes ||
        size_t(std::abs(upper.stride(0))) < bytes || size_t(std::abs(lower.stride(0))) < bytes ||
        upper.data(0) == nullptr || lower.data(0) == nullptr || data(0) == nullptr) {
        getUpperField().copyTo(upper);
        getLowerField().copyTo(lower);
        return;
    }
    // One pass down the frame in line order: each line is read once and the
    // reads run in address order, which the prefetcher follows; the field
    // buffers are written past the caches.
    for (int y = 0; y < h; ++y) {
        QVImage& f = (y & 1) == 0 ? upper : lower;
        stream_copy(f.data(0) + std::ptrdiff_t(y / 2) * f.stride(0), data(0) + std::ptrdiff_t(y) * stride(0), bytes);
    }
    stream_fence();
}

// Every other line of every plane, from firstLine: the plane pointers move
// down firstLine lines and the strides double. The view keeps the frame's
// display aspect, so its samples are twice as tall.
QVImage QVImage::fieldView(int firstLine, QVFieldOrder o) const
{
    if (isEmpty())
        return QVImage();
    QVImage field(*this);
    QVImageMemory& mem = field.m_pMemory;
    for (int i = 0; i < QVImageMemory::cMaxPlanes; ++i) {
        if (mem.m_pDatas[i] == nullptr)
            continue;
        mem.m_pDatas[i] += std::ptrdiff_t(firstLine) * mem.m_nStrides[i];
        mem.m_nStrides[i] *= 2;
    }
    const size_t skipped = size_t(firstLine) * size_t(std::abs(stride(0)));
    mem.m_nSize = mem.m_nSize > skipped ? mem.m_nSize - skipped : 0;
    const int h = height();
    const int fieldLines = firstLine == 0 ? (h + 1) / 2 : h / 2;
    field.m_sizeImage = QVSize(width(), fieldLines, m_sizeImage.par());
    field.m_eOrder = o;
    return field;
}

QVImage QVImage::getUpperField() const
{
    return fieldView(0, Single_Field_Upper);
}

QVImage QVImage::getLowerField() const
{
    return fieldView(1, Single_Field_Lower);
}

QVImage QVImage::getFieldByTime(QVFieldByTime t) const
{
    const bool lowerFirst = m_eOrder == FieldOrder_Lower_First;
    switch (t) {
    case First_Field:
        return lowerFirst ? getLowerField() : getUpperField();
    case Second_Field:
        return lowerFirst ? getUpperField() : getLowerField();
    default:
        return QVImage();
    }
}

void QVImage::fill(const QVColor& color)
{
    fillRect(color, QVRect(0, 0, width(), height()));
}

void QVImage::fillRect(const QVColor& color, const QVRect& rect)
{
    const int w = width();
    const int h = height();
    const int x1 = std::max(std::min(rect.x1, rect.x2), 0);
    const int x2 = std::min(std::max(rect.x1, rect.x2), w);
    const int y1 = std::max(std::min(rect.y1, rect.y2), 0);
    const int y2 = std::min(std::max(rect.y1, rect.y2), h);
    if (isEmpty() || x2 <= x1 || y2 <= y1)
        return;

    const unsigned char Y = color.m_yuva[0];
    const unsigned char U = color.m_yuva[1];
    const unsigned char V = color.m_yuva[2];
    const unsigned char A = color.m_yuva[3];

    // 4:2:2 packed: whole Y'CbCr pairs; a last lone column of an odd width
    // gets the first half of a pair.
    auto fill422 = [&](const unsigned char (&pair)[4]) {
        const int px1 = x1 / 2;
        const int px2 = std::min((x2 + 1) / 2, w / 2);
        fillPlane(data(0), stride(0), px1, px2, y1, y2, pair, 4);
        if ((w & 1) && x2 == w)
            fillPlane(data(0), stride(0), w - 1, w, y1, y2, pair, 2);
    };
    // 4:2:0: the chroma sites touched by the rectangle.
    const int cx1 = x1 / 2;
    const int cx2 = std::min((x2 + 1) / 2, w / 2);
    const int cy1 = y1 / 2;
    const int cy2 = std::min((y2 + 1) / 2, h / 2);

    switch (m_eFormat) {
    case FORMAT_UYVY: {
        const unsigned char pair[4] = {U, Y, V, Y};
        fill422(pair);
        break;
    }
    case FORMAT_YUY2: {
        const unsigned char pair[4] = {Y, U, Y, V};
        fill422(pair);
        break;
    }
    case FORMAT_YVYU: {
        const unsigned char pair[4] = {Y, V, Y, U};
        fill422(pair);
        break;
    }
    case FORMAT_BGR:
    case FORMAT_BGRp:
        fillPlane(data(0), stride(0), x1, x2, y1, y2, color.m_bgra, 3);
        break;
    case FORMAT_BGRA:
    case FORMAT_BGRAp:
        fillPlane(data(0), stride(0), x1, x2, y1, y2, color.m_bgra, 4);
        break;
    case FORMAT_YV12:
    case FORMAT_IYUV: {
        // YV12 stores Cr before Cb, IYUV Cb before Cr.
        const bool crFirst = m_eFormat == FORMAT_YV12;
        fillPlane(data(0), stride(0), x1, x2, y1, y2, &Y, 1);
        fillPlane(data(1), stride(1), cx1, cx2, cy1, cy2, crFirst ? &V : &U, 1);
        fillPlane(data(2), stride(2), cx1, cx2, cy1, cy2, crFirst ? &U : &V, 1);
        break;
    }
    case FORMAT_NV12: {
        const unsigned char uv[2] = {U, V};
        fillPlane(data(0), stride(0), x1, x2, y1, y2, &Y, 1);
        fillPlane(data(1), stride(1), cx1, cx2, cy1, cy2, uv, 2);
        break;
    }
    case FORMAT_YUVA:
        fillPlane(data(0), stride(0), x1, x2, y1, y2, &Y, 1);
        fillPlane(data(1), stride(1), x1, x2, y1, y2, &U, 1);
        fillPlane(data(2), stride(2), x1, x2, y1, y2, &V, 1);
        fillPlane(data(3), stride(3), x1, x2, y1, y2, &A, 1);
        break;
    default:
        break;
    }
}

void QVImage::fillColor(unsigned char r, unsigned char g, unsigned char b)
{
    fill(QVColor::fromRGB(r, g, b));
}

void QVImage::fillAlfa(unsigned char a)
{
    if (!isRGBAFormat(m_eFormat) || isEmpty())
        return;
    const int w = width();
    const int s = stride(0);
    if (w <= 0 || std::abs(s) < 4 * w)
        return;
    for (int y = 0; y < height(); ++y) {
        unsigned char* p = data(0) + std::ptrdiff_t(y) * s;
        for (int x = 0; x < w; ++x)
            p[4 * x + 3] = a;
    }
}

void QVImage::toGray()
{
    if ((m_eFormat != FORMAT_UYVY && m_eFormat != FORMAT_UYVY_HD) || isEmpty())
        return;
    const int groups = width() / 2;
    const int s = stride(0);
    if (groups <= 0 || std::abs(s) < 4 * groups)
        return;
    for (int y = 0; y < height(); ++y) {
        unsigned char* p = data(0) + std::ptrdiff_t(y) * s;
        for (int g = 0; g < groups; ++g, p += 4) {
            p[0] = 128;
            p[2] = 128;
        }
    }
}

} // namespace QVSDK
