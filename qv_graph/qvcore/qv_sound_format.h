// Interleaved little-endian signed PCM: what one sample frame looks like.
#pragma once

#include <cstdint>

namespace QVSDK {

class QVSoundFormat {
public:
    uint16_t m_tag = 0;              // format tag, 0 for PCM
    uint16_t m_channel = 0;
    uint32_t m_frequency = 0;        // sample frames per second
    uint32_t m_avr_byte_per_sec = 0;
    uint16_t m_block_align = 0;      // bytes per sample frame, all channels
    uint16_t m_bit_per_sample = 0;   // 24-bit samples are packed in 3 bytes

    QVSoundFormat() = default;
    QVSoundFormat(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels);
    QVSoundFormat(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels, uint16_t blockAlign);

    // Block align and byte rate follow from bits and channels. Returns 1.
    int init(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels);
    int init(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels, uint16_t blockAlign);

    bool isValid() const;
    uint16_t bytesPerSample() const { return static_cast<uint16_t>(m_bit_per_sample / 8); }

    bool operator==(const QVSoundFormat& o) const;
    bool operator!=(const QVSoundFormat& o) const { return !(*this == o); }
};

} // namespace QVSDK
