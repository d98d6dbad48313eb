// A buffer of interleaved PCM with a fill count, owned or laid over memory that
// the caller owns. Copies share the bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qv_align_memory.h"
#include "qv_sound_format.h"

namespace QVSDK {

class QVSound {
public:
    QVSound() = default;
    QVSound(const QVSound&) = default;
    QVSound& operator=(const QVSound&) = default;
    QVSound(QVSound&& o) noexcept;
    QVSound& operator=(QVSound&& o) noexcept;

    // Owned memory of `bytes` bytes, aligned to 8, not cleared. False (and the
    // sound unchanged) when bytes, frequency, bits, channels or block align is 0.
    bool init(size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels);
    bool init(size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels,
              uint16_t blockAlign);
    bool init(size_t bytes, const QVSoundFormat& format);
    // Laid over caller memory of `bytes` bytes, which must outlive the sound.
    bool init(uint8_t* data, size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels);
    bool init(uint8_t* data, size_t bytes, uint16_t tag, uint32_t frequency, uint16_t bits, uint16_t channels,
              uint16_t blockAlign);
    bool init(uint8_t* data, size_t bytes, const QVSoundFormat& format);
    void release();

    uint8_t* data() const { return m_pData.data(); }
    size_t size() const { return m_pData.size(); }        // byte capacity
    size_t capacity() const;                              // capacity in sample frames
    uint64_t samples() const { return m_nSamples; }       // as stored: 0 means the whole capacity
    size_t frames() const;                                // filled frames, 0 read as capacity
    const QVSoundFormat& format() const { return m_format; }
    const QVAlignMemory<unsigned char>& memory() const { return m_pData; }
    bool isEmpty() const { return m_pData.empty(); }

    // Zero n frames from the start (from frame `first`) and count them filled;
    // clipped to the capacity.
    void silense(size_t n);
    void silense(size_t first, size_t n);
    // Copies min(bytes, capacity) bytes in and counts whole frames filled.
    void copy(const void* p, size_t bytes);
    // False when n exceeds the capacity (the count is then the capacity).
    bool markFilled(size_t n);

    // This sound's channel count of channels from `source`, starting at channel
    // nMonoIndex. bClearTail zeroes the rest of this sound and keeps its count.
    bool splitFrom(const QVSound& source, uint16_t nMonoIndex, bool bClearTail);
    // nChannels channels from channel nIndex * nChannels, as a new sound; empty
    // unless nChannels is even and the channels exist.
    QVSound split(uint16_t nIndex, uint16_t nChannels) const;
    // nChannelCnt channels of srcFrame from nChannelFrom into this sound from
    // nChannelTo, for the frames both capacities hold. 16 and 32 bits only.
    bool mux(unsigned nChannelTo, unsigned nChannelFrom, unsigned nChannelCnt, const QVSound& srcFrame);
    // Same rate, channels and tag; converts the bit depth where needed.
    bool copyFrom(const QVSound& src);
    // A sound at `bits` with the same frames; 16 -> 32 is not offered here.
    QVSound convert_to(uint16_t bits) const;

private:
    bool initOwned(size_t bytes, const QVSoundFormat& format);
    bool initBorrowed(uint8_t* data, size_t bytes, const QVSoundFormat& format);
    void zeroFrames(size_t first, size_t count);

    QVAlignMemory<unsigned char> m_pData;
    uint64_t m_nSamples = 0;
    QVSoundFormat m_format;
};

} // namespace QVSDK
