// Bit-depth conversion of interleaved little-endian PCM samples.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QVSDK {

// The supported conversions; down-conversion truncates, nothing dithers.
enum class QVSampleConversion {
    Copy,        // same depth
    From16To24,  // {0, low, high}
    From32To24,  // bytes 1..3
    From32To16,  // upper 16 bits
    From16To32,  // sign-extended sample x 65536
    From8To16,   // signed 8-bit sample x 256
    From8To24,
    From8To32,
    From24To16,  // upper 16 bits
    From24To32,  // sample x 256
    Unsupported,
};

// The conversions a sound's copyFrom/convert_to offer (16, 24 and 32 bits).
QVSampleConversion sampleConversion(uint16_t fromBits, uint16_t toBits);
// Every conversion between 8, 16, 24 and 32 bits, for input that the sound
// FIFOs take from upstream in whatever depth it comes.
QVSampleConversion anySampleConversion(uint16_t fromBits, uint16_t toBits);

// Converts `frames` frames of `channels` channels. Block aligns give the frame
// strides of each side; sample widths follow from the conversion.
void convertSamples(QVSampleConversion conversion, const uint8_t* src, size_t srcBlockAlign, uint8_t* dst,
                    size_t dstBlockAlign, size_t frames, unsigned channels);

} // namespace QVSDK
