#include "qv_sound_format.h"

namespace QVSDK {

QVSoundFormat::QVSoundFormat(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels)
{
    m_tag = 0;
    init(tag, frequency, bits, channels);
}

QVSoundFormat::QVSoundFormat(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels,
                             uint16_t blockAlign)
{
    m_tag = 0;
    init(tag, frequency, bits, channels, blockAlign);
}

int QVSoundFormat::init(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels)
{
    return init(tag, frequency, bits, channels, static_cast<uint16_t>((bits / 8) * channels));
}

int QVSoundFormat::init(uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels, uint16_t blockAlign)
{
    m_tag = tag;
    m_channel = channels;
    m_frequency = frequency;
    m_bit_per_sample = bits;
    m_block_align = blockAlign;
    // The byte rate follows the sample size, not a padded block align.
    m_avr_byte_per_sec = uint32_t(channels) * uint32_t(bits / 8) * frequency;
    return 1;
}

bool QVSoundFormat::isValid() const
{
    return m_channel != 0 && m_frequency != 0 && m_block_align != 0 && m_bit_per_sample != 0;
}

bool QVSoundFormat::operator==(const QVSoundFormat& o) const
{
    return m_tag == o.m_tag && m_channel == o.m_channel && m_frequency == o.m_frequency &&
           m_avr_byte_per_sec == o.m_avr_byte_per_sec && m_block_align == o.m_block_align &&
           m_bit_per_sample == o.m_bit_per_sample;
}

} // namespace QVSDK
