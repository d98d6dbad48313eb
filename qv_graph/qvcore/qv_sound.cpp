#include "qv_sound.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "qv_sample_convert.h"

namespace QVSDK {

namespace {

// Storage for owned sounds is aligned to 8 bytes.
constexpr size_t cSoundAlign = 8;

bool sameStream(const QVSoundFormat& a, const QVSoundFormat& b)
{
    return a.m_frequency == b.m_frequency && a.m_bit_per_sample == b.m_bit_per_sample && a.m_tag == b.m_tag;
}

// A frame must hold all its channels' samples, or the per-channel loops would
// run past the buffer.
bool framesHoldSamples(const QVSoundFormat& f)
{
    return f.m_block_align != 0 && size_t(f.m_block_align) >= size_t(f.m_channel) * f.bytesPerSample();
}

} // namespace

QVSound::QVSound(QVSound&& o) noexcept
{
    *this = std::move(o);
}

QVSound& QVSound::operator=(QVSound&& o) noexcept
{
    if (this != &o) {
        m_pData = std::move(o.m_pData);
        m_nSamples = o.m_nSamples;
        m_format = o.m_format;
        o.m_nSamples = 0;
        o.m_format = QVSoundFormat();
    }
    return *this;
}

bool QVSound::initOwned(size_t bytes, const QVSoundFormat& format)
{
    if (bytes == 0 || !format.isValid())
        return false;
    m_pData.alloc(bytes, cSoundAlign);
    m_nSamples = 0;
    m_format = format;
    return true;
}

bool QVSound::initBorrowed(uint8_t* data, size_t bytes, const QVSoundFormat& format)
{
    if (data == nullptr || bytes == 0 || !format.isValid())
        return false;
    m_pData.attach(data, bytes);
    m_nSamples = 0;
    m_format = format;
    return true;
}

bool QVSound::init(size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels)
{
    return initOwned(bytes, QVSoundFormat(tag, frequency, bits, channels));
}

bool QVSound::init(size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels,
                   uint16_t blockAlign)
{
    return initOwned(bytes, QVSoundFormat(tag, frequency, bits, channels, blockAlign));
}

bool QVSound::init(size_t bytes, const QVSoundFormat& format)
{
    return initOwned(bytes, format);
}

bool QVSound::init(uint8_t* data, size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits,
                   uint16_t channels)
{
    return initBorrowed(data, bytes, QVSoundFormat(tag, frequency, bits, channels));
}

bool QVSound::init(uint8_t* data, size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits,
                   uint16_t channels, uint16_t blockAlign)
{
    return initBorrowed(data, bytes, QVSoundFormat(tag, frequency, bits, channels, blockAlign));
}

bool QVSound::init(uint8_t* data, size_t bytes, const QVSoundFormat& format)
{
    return initBorrowed(data, bytes, format);
}

void QVSound::release()
{
    m_pData.dealloc();
    m_nSamples = 0;
    m_format = QVSoundFormat();
}

size_t QVSound::capacity() const
{
    return m_format.m_block_align != 0 ? m_pData.size() / m_format.m_block_align : 0;
}

size_t QVSound::frames() const
{
    const size_t cap = capacity();
    return m_nSamples == 0 ? cap : size_t(std::min<uint64_t>(m_nSamples, cap));
}

void QVSound::zeroFrames(size_t first, size_t count)
{
    if (data() != nullptr && count != 0)
        std::memset(data() + first * m_format.m_block_align, 0, count * m_format.m_block_align);
}

void QVSound::silense(size_t n)
{
    silense(0, n);
}

void QVSound::silense(size_t first, size_t n)
{
    const size_t cap = capacity();
    if (first > cap || n > cap - first) {
        // Past the end: clear from `first` to the very last byte, partial frame included.
        if (first < cap && data() != nullptr)
            std::memset(data() + first * m_format.m_block_align, 0, size() - first * m_format.m_block_align);
        m_nSamples = cap;
        return;
    }
    zeroFrames(first, n);
    m_nSamples = first + n;
}

void QVSound::copy(const void* p, size_t bytes)
{
    const size_t n = std::min(bytes, size());
    if (n != 0 && p != nullptr)
        std::memmove(data(), p, n);
    m_nSamples = m_format.m_block_align != 0 ? n / m_format.m_block_align : 0;
}

bool QVSound::markFilled(size_t n)
{
    const size_t cap = capacity();
    if (n > cap) {
        m_nSamples = cap;
        return false;
    }
    m_nSamples = n;
    return true;
}

bool QVSound::splitFrom(const QVSound& source, uint16_t nMonoIndex, bool bClearTail)
{
    const uint16_t bits = m_format.m_bit_per_sample;
    if (!sameStream(m_format, source.m_format) || (bits != 16 && bits != 24 && bits != 32))
        return false;
    if (size_t(nMonoIndex) + m_format.m_channel > source.m_format.m_channel)
        return false;
    if (isEmpty() || source.isEmpty() || !framesHoldSamples(m_format) || !framesHoldSamples(source.m_format))
        return false;

    const size_t bps = m_format.bytesPerSample();
    const size_t own = frames();
    const size_t n = std::min(source.frames(), own);
    const size_t bytes = bps * m_format.m_channel;
    const uint8_t* src = source.data() + bps * nMonoIndex;
    for (size_t f = 0; f < n; ++f)
        std::memmove(data() + f * m_format.m_block_align, src + f * source.m_format.m_block_align, bytes);

    if (bClearTail)
        zeroFrames(n, own - n);
    else
        m_nSamples = n;
    return true;
}

// Only whole pairs are split: a line is a stereo pair.
QVSound QVSound::split(uint16_t nIndex, uint16_t nChannels) const
{
    QVSound out;
    const uint16_t bits = m_format.m_bit_per_sample;
    if ((nChannels & 1) != 0 || (bits != 16 && bits != 32) || !framesHoldSamples(m_format))
        return out;
    if ((size_t(nIndex) + 1) * nChannels > m_format.m_channel)
        return out;

    const size_t n = frames();
    const size_t bps = m_format.bytesPerSample();
    const size_t bytes = bps * nChannels;
    if (!out.init(n * bytes, m_format.m_tag, m_format.m_frequency, bits, nChannels))
        return QVSound();
    const uint8_t* src = data() + bps * nChannels * nIndex;
    for (size_t f = 0; f < n; ++f)
        std::memcpy(out.data() + f * bytes, src + f * m_format.m_block_align, bytes);
    out.m_nSamples = n;
    return out;
}

bool QVSound::mux(unsigned nChannelTo, unsigned nChannelFrom, unsigned nChannelCnt, const QVSound& srcFrame)
{
    const uint16_t bits = m_format.m_bit_per_sample;
    if (!sameStream(m_format, srcFrame.m_format) || (bits != 16 && bits != 32))
        return false;
    if (size_t(nChannelTo) + nChannelCnt > m_format.m_channel ||
        size_t(nChannelFrom) + nChannelCnt > srcFrame.m_format.m_channel)
        return false;
    if (isEmpty() || srcFrame.isEmpty() || !framesHoldSamples(m_format) || !framesHoldSamples(srcFrame.m_format))
        return false;

    const size_t bps = m_format.bytesPerSample();
    const size_t n = std::min(srcFrame.capacity(), capacity());
    const size_t bytes = bps * nChannelCnt;
    uint8_t* dst = data() + bps * nChannelTo;
    const uint8_t* src = srcFrame.data() + bps * nChannelFrom;
    for (size_t f = 0; f < n; ++f)
        std::memmove(dst + f * m_format.m_block_align, src + f * srcFrame.m_format.m_block_align, bytes);
    return true;
}

bool QVSound::copyFrom(const QVSound& src)
{
    if (m_format.m_frequency != src.m_format.m_frequency || m_format.m_channel != src.m_format.m_channel ||
        m_format.m_tag != src.m_format.m_tag)
        return false;
    if (!framesHoldSamples(m_format) || !framesHoldSamples(src.m_format))
        return false;

    const size_t n = std::min(frames(), src.frames());
    m_nSamples = n;
    const QVSampleConversion conversion = sampleConversion(src.m_format.m_bit_per_sample, m_format.m_bit_per_sample);
    if (conversion == QVSampleConversion::Unsupported) {
        g_print("QVSound::copyFrom ERROR - not supported %d bps -> %d bps !!!\n", src.m_format.m_bit_per_sample,
                m_format.m_bit_per_sample);
        zeroFrames(0, n);
        return true;
    }
    if (n != 0)
        convertSamples(conversion, src.data(), src.m_format.m_block_align, data(), m_format.m_block_align, n,
                       m_format.m_channel);
    return true;
}

QVSound QVSound::convert_to(uint16_t bits) const
{
    if (bits == m_format.m_bit_per_sample)
        return *this;

    const size_t n = frames();
    QVSound out;
    if (!out.init(n * m_format.m_channel * (bits / 8u), m_format.m_tag, m_format.m_frequency, bits,
                  m_format.m_channel))
        return QVSound();
    out.m_nSamples = n;

    QVSampleConversion conversion = sampleConversion(m_format.m_bit_per_sample, bits);
    // Widening 16 to 32 bits is offered by copyFrom only; kept that way.
    if (conversion == QVSampleConversion::From16To32 || !framesHoldSamples(m_format))
        conversion = QVSampleConversion::Unsupported;
    if (conversion == QVSampleConversion::Unsupported) {
        g_print("QVSound::convert_to ERROR - not supported %d bps -> %d bps !!!\n", m_format.m_bit_per_sample, bits);
        out.zeroFrames(0, n);
        return out;
    }
    convertSamples(conversion, data(), m_format.m_block_align, out.data(), out.m_format.m_block_align, n,
                   m_format.m_channel);
    return out;
}

} // namespace QVSDK
