// Audio play-out through an ALSA PCM device, used beside a single-plane board
// that cannot carry audio itself. Every audio line is a stereo pair; the device
// is opened with all lines interleaved.
#pragma once

#include "qv_sound.h"

#include <alsa/asoundlib.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

class qv_alsa_output_device {
public:
    qv_alsa_output_device() = default;
    ~qv_alsa_output_device();
    qv_alsa_output_device(const qv_alsa_output_device&) = delete;
    qv_alsa_output_device& operator=(const qv_alsa_output_device&) = delete;

    bool open_device(const std::string& name, uint32_t nNumberOfAudioLines);
    void close_device();
    bool is_open() const;
    // Rate and sample width of the device, always 2 channels: the format of one audio line.
    QVSDK::QVSoundFormat get_format() const;
    // The device's own format: all lines interleaved.
    QVSDK::QVSoundFormat get_internal_format() const;

    bool start_device();
    void stop_device();

    bool write(const uint8_t* pData, size_t nBytes);
    bool write(const QVSDK::QVSound& sound);

    // Milliseconds of audio written since the last stop.
    uint64_t get_device_time() const;

private:
    bool set_hwparams();  // m_cs held
    bool set_swparams();  // m_cs held

    snd_pcm_t* m_hSound = nullptr;
    uint32_t m_nNumberOfAudioLines = 0;
    QVSDK::QVSoundFormat m_format;
    QVSDK::QVSoundFormat m_internal_format;
    snd_pcm_uframes_t m_nPeriodSize = 0;
    snd_pcm_uframes_t m_nBufferSize = 0;
    uint64_t m_nTotalFrame = 0; // bytes, despite the name
    mutable std::recursive_mutex m_cs; // every public operation holds it
};
