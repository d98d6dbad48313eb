#include "qv_sample_convert.h"

#include <cstring>

namespace QVSDK {

QVSampleConversion sampleConversion(uint16_t fromBits, uint16_t toBits)
{
    if (fromBits == toBits)
        return QVSampleConversion::Copy;
    if (fromBits == 16 && toBits == 24)
        return QVSampleConversion::From16To24;
    if (fromBits == 32 && toBits == 24)
        return QVSampleConversion::From32To24;
    if (fromBits == 32 && toBits == 16)
        return QVSampleConversion::From32To16;
    if (fromBits == 16 && toBits == 32)
        return QVSampleConversion::From16To32;
    return QVSampleConversion::Unsupported;
}

QVSampleConversion anySampleConversion(uint16_t fromBits, uint16_t toBits)
{
    const QVSampleConversion c = sampleConversion(fromBits, toBits);
    if (c != QVSampleConversion::Unsupported)
        return c;
    if (fromBits == 8 && toBits == 16)
        return QVSampleConversion::From8To16;
    if (fromBits == 8 && toBits == 24)
        return QVSampleConversion::From8To24;
    if (fromBits == 8 && toBits == 32)
        return QVSampleConversion::From8To32;
    if (fromBits == 24 && toBits == 16)
        return QVSampleConversion::From24To16;
    if (fromBits == 24 && toBits == 32)
        return QVSampleConversion::From24To32;
    return QVSampleConversion::Unsupported;
}

namespace {

// Per-sample byte moves: the samples are little-endian, so widening puts zero
// bytes below the original ones and narrowing drops the lowest bytes.
template <size_t SrcBytes, size_t DstBytes, size_t Drop>
void moveSamples(const uint8_t* src, size_t srcBlockAlign, uint8_t* dst, size_t dstBlockAlign, size_t frames,
                 unsigned channels)
{
    constexpr size_t pad = DstBytes > SrcBytes ? DstBytes - SrcBytes : 0;
    constexpr size_t keep = SrcBytes - Drop;
    for (size_t f = 0; f < frames; ++f) {
        const uint8_t* s = src + f * srcBlockAlign;
        uint8_t* d = dst + f * dstBlockAlign;
        for (unsigned c = 0; c < channels; ++c, s += SrcBytes, d += DstBytes) {
            std::memset(d, 0, pad);
            std::memcpy(d + pad, s + Drop, keep);
        }
    }
}

} // namespace

void convertSamples(QVSampleConversion conversion, const uint8_t* src, size_t srcBlockAlign, uint8_t* dst,
                    size_t dstBlockAlign, size_t frames, unsigned channels)
{
    switch (conversion) {
    case QVSampleConversion::From16To24:
        moveSamples<2, 3, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From32To24:
        moveSamples<4, 3, 1>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From32To16:
        moveSamples<4, 2, 2>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From16To32:
        moveSamples<2, 4, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From8To16:
        moveSamples<1, 2, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From8To24:
        moveSamples<1, 3, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From8To32:
        moveSamples<1, 4, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From24To16:
        moveSamples<3, 2, 1>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::From24To32:
        moveSamples<3, 4, 0>(src, srcBlockAlign, dst, dstBlockAlign, frames, channels);
        break;
    case QVSampleConversion::Copy: {
        const size_t bytes = srcBlockAlign < dstBlockAlign ? srcBlockAlign : dstBlockAlign;
        for (size_t f = 0; f < frames; ++f)
            std::memmove(dst + f * dstBlockAlign, src + f * srcBlockAlign, bytes);
        break;
    }
    case QVSampleConversion::Unsupported:
        break;
    }
}

} // namespace QVSDK
