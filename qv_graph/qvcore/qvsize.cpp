#include "qvsize.h"

#include <cmath>
#include <limits>

namespace QVSDK {

namespace {

// Truncation toward zero into 64 bits, then narrowing to 32 bits. Values that
// do not fit 64 bits (and NaN) give the integer indefinite, as the processor's
// own conversion does, instead of undefined behaviour.
int truncToInt(double v)
{
    int64_t t = std::numeric_limits<int64_t>::min();
    if (std::isfinite(v) && v > -9.2233720368547758e18 && v < 9.2233720368547758e18)
        t = static_cast<int64_t>(v);
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(t)));
}

int saturate(int64_t v)
{
    if (v > std::numeric_limits<int32_t>::max())
        return std::numeric_limits<int32_t>::max();
    if (v < std::numeric_limits<int32_t>::min())
        return std::numeric_limits<int32_t>::min();
    return static_cast<int>(v);
}

// Reduced to the geometry bound; a zero term (a zero width or height) gives 1/1.
QVAspectRatio reducedAspect(int64_t num, int64_t den)
{
    QVAspectRatio r;
    QVRational::reduce(&r.num, &r.den, num, den, QV_RATIONAL_MAX);
    if (r.num == 0 || r.den == 0)
        return QVAspectRatio(1, 1);
    return r;
}

} // namespace

int newWidth(int a, int b, int c)
{
    return truncToInt(static_cast<double>(b) / static_cast<double>(c) * static_cast<double>(a)) & ~1;
}

int newHeight(int a, int b, int c)
{
    return truncToInt(static_cast<double>(a) / static_cast<double>(c) * static_cast<double>(b)) & ~1;
}

QVSize::QVSize(int w, int h)
{
    setSize(w, h);
}

QVSize::QVSize(int w, int h, const QVAspectRatio& pictureAspect)
{
    setSize(w, h, pictureAspect);
}

void QVSize::setSize(int w, int h)
{
    m_nWidth = w;
    m_nHeight = h;
    m_sampleAspect = reducedAspect(1, 1);
}

void QVSize::setSize(int w, int h, const QVAspectRatio& pictureAspect)
{
    m_nWidth = w;
    m_nHeight = h;
    m_sampleAspect = calcSampleAspectRatio(w, h, pictureAspect);
}

QVAspectRatio QVSize::par() const
{
    return reducedAspect(int64_t(m_sampleAspect.num) * m_nWidth, int64_t(m_sampleAspect.den) * m_nHeight);
}

QVAspectRatio QVSize::calcPictureAspectRatio(int w, int h)
{
    return reducedAspect(w, h);
}

QVAspectRatio QVSize::calcSampleAspectRatio(int w, int h, const QVAspectRatio& pictureAspect)
{
    return reducedAspect(int64_t(pictureAspect.num) * h, int64_t(pictureAspect.den) * w);
}

bool QVSize::operator==(const QVSize& o) const
{
    return m_nWidth == o.m_nWidth && m_nHeight == o.m_nHeight &&
           static_cast<double>(m_sampleAspect.num) / static_cast<double>(m_sampleAspect.den) ==
               static_cast<double>(o.m_sampleAspect.num) / static_cast<double>(o.m_sampleAspect.den);
}

void QVSize::widthAlignment(int n)
{
    if (n != 0)
        m_nWidth = m_nWidth / n * n;
}

void QVSize::heightAlignment(int n)
{
    if (n != 0)
        m_nHeight = m_nHeight / n * n;
}

QVSize QVSize::crop(int w, int h) const
{
    QVSize s(w, h);
    s.m_sampleAspect = m_sampleAspect;
    return s;
}

// A product that does not fit 32 bits saturates; a zero term in the sample
// aspect (only possible when set by hand) leaves the dimension alone.
QVSize QVSize::toSquarePixelConstHeight() const
{
    if (m_sampleAspect.den == 0)
        return QVSize(m_nWidth, m_nHeight);
    return QVSize(saturate(int64_t(m_nWidth) * m_sampleAspect.num / m_sampleAspect.den), m_nHeight);
}

QVSize QVSize::toSquarePixelConstWidth() const
{
    if (m_sampleAspect.num == 0)
        return QVSize(m_nWidth, m_nHeight);
    return QVSize(m_nWidth, saturate(int64_t(m_nHeight) * m_sampleAspect.den / m_sampleAspect.num));
}

QVSize QVSize::scaled(const QVSize& target, QVAspectRatioMode mode) const
{
    if (mode != AspectRatio_Keep)
        return *this;

    const QVSize s = toSquarePixelConstHeight();
    const QVSize t = target.toSquarePixelConstHeight();
    if (s.m_nWidth == 0 || s.m_nHeight == 0 || t.m_nWidth == 0 || t.m_nHeight == 0)
        return QVSize(0, 0);

    // Fit to the target height first, to its width when that is too wide.
    int w = newWidth(s.m_nWidth, t.m_nHeight, s.m_nHeight);
    int h = t.m_nHeight;
    if (t.m_nWidth < w) {
        h = newHeight(t.m_nWidth, s.m_nHeight, s.m_nWidth);
        w = t.m_nWidth;
    }
    // Back from square samples to the target's sample grid.
    const int wTarget = truncToInt(static_cast<double>(target.m_nWidth) / static_cast<double>(t.m_nWidth) *
                                   static_cast<double>(w));
    return QVSize(wTarget, h, par());
}

void QVSize::scale(const QVSize& target, QVAspectRatioMode mode)
{
    const QVSize s = scaled(target, mode);
    m_nWidth = s.m_nWidth;
    m_nHeight = s.m_nHeight;
    m_sampleAspect = s.m_sampleAspect;
}

} // namespace QVSDK
