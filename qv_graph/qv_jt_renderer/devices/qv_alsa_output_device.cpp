#include "qv_alsa_output_device.h"

#include <glib.h>

#include <chrono>
#include <memory>

namespace {

struct hw_params_deleter {
    void operator()(snd_pcm_hw_params_t* p) const { snd_pcm_hw_params_free(p); }
};
struct sw_params_deleter {
    void operator()(snd_pcm_sw_params_t* p) const { snd_pcm_sw_params_free(p); }
};
using hw_params_ptr = std::unique_ptr<snd_pcm_hw_params_t, hw_params_deleter>;
using sw_params_ptr = std::unique_ptr<snd_pcm_sw_params_t, sw_params_deleter>;

// Never let the stream start by itself when the ring fills, nor stop on an underrun:
// the render loop starts it with the picture and keeps it running through gaps.
constexpr snd_pcm_uframes_t kNoAutomaticThreshold = 0x7fffffff;

} // namespace

qv_alsa_output_device::~qv_alsa_output_device()
{
    close_device();
}

bool qv_alsa_output_device::open_device(const std::string& name, uint32_t nNumberOfAudioLines)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound != nullptr)
        close_device();
    int err = snd_pcm_open(&m_hSound, name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (err < 0) {
        m_hSound = nullptr;
        g_print("qv_alsa_output_device: open_device error %s\n", snd_strerror(err));
        return false;
    }
    m_nNumberOfAudioLines = nNumberOfAudioLines;
    m_nTotalFrame = 0;
    if (!set_hwparams() || !set_swparams())
        return false;
    err = snd_pcm_prepare(m_hSound);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_prepare error %s\n", snd_strerror(err));
        return false;
    }
    return true;
}

bool qv_alsa_output_device::set_hwparams()
{
    snd_pcm_hw_params_t* raw = nullptr;
    int err = snd_pcm_hw_params_malloc(&raw);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_hw_params_malloc error %s\n", snd_strerror(err));
        return false;
    }
    hw_params_ptr params(raw);
    err = snd_pcm_hw_params_any(m_hSound, raw);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_hw_params_any error %s\n", snd_strerror(err));
        return false;
    }
    err = snd_pcm_hw_params_set_access(m_hSound, raw, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_hw_params_set_access error %s\n", snd_strerror(err));
        return false;
    }

    snd_pcm_format_t format = SND_PCM_FORMAT_S16_LE;
    err = snd_pcm_hw_params_set_format(m_hSound, raw, format);
    if (err < 0) {
        g_print("qv_alsa_output_device: Can't set format (SND_PCM_FORMAT_S16_LE) snd_pcm_hw_params_set_format "
                "error %s\n",
                snd_strerror(err));
        // Play in whatever sample format the device offers instead.
        err = snd_pcm_hw_params_get_format(raw, &format);
        if (err < 0) {
            g_print("qv_alsa_output_device: snd_pcm_hw_params_set_format error %s\n", snd_strerror(err));
            return false;
        }
    }
    const int width = snd_pcm_format_physical_width(format);

    unsigned int rate = 48000;
    err = snd_pcm_hw_params_set_rate_near(m_hSound, raw, &rate, nullptr);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_hw_params_set_rate_near error %s\n", snd_strerror(err));
        return false;
    }

    unsigned int channels = 2 * m_nNumberOfAudioLines;
    err = snd_pcm_hw_params_set_channels(m_hSound, raw, channels);
    if (err < 0) {
        err = snd_pcm_hw_params_get_channels(raw, &channels);
        if (err < 0) {
            g_print("qv_alsa_output_device: snd_pcm_hw_params_set_channels error %s\n", snd_strerror(err));
            return false;
        }
    }

    m_format.init(0, rate, static_cast<uint16_t>(width), 2);
    m_internal_format.init(0, rate, static_cast<uint16_t>(width), static_cast<uint16_t>(channels));

    // Three seconds' worth of bytes, counted as frames: a deep ring on purpose,
    // the render loop may run ahead of the sound card by a whole latency.
    snd_pcm_uframes_t buffer = static_cast<snd_pcm_uframes_t>(m_internal_format.m_avr_byte_per_sec) * 3;
    err = snd_pcm_hw_params_set_buffer_size_near(m_hSound, raw, &buffer);
    if (err < 0)
        g_print("qv_alsa_output_device: snd_pcm_hw_params_set_periods error %s\n", snd_strerror(err));

    err = snd_pcm_hw_params(m_hSound, raw);
    if (err >= 0)
        err = snd_pcm_hw_params_get_buffer_size(raw, &m_nBufferSize);
    if (err >= 0)
        err = snd_pcm_hw_params_get_period_size(raw, &m_nPeriodSize, nullptr);
    if (err < 0) {
        g_print("qv_alsa_output_device: snd_pcm_hw_params_set_channels error %s\n", snd_strerror(err));
        return false;
    }
    g_print("qv_alsa_output_device: nBufferSize = %lu, nPeriodSize = %lu\n", static_cast<unsigned long>(m_nBufferSize),
            static_cast<unsigned long>(m_nPeriodSize));
    return true;
}

bool qv_alsa_output_device::set_swparams()
{
    snd_pcm_sw_params_t* raw = nullptr;
    int err = snd_pcm_sw_params_malloc(&raw);
    if (err < 0) {
        g_print("qv_alsa_output_device set_swparam: snd_pcm_sw_params_malloc error %s\n", snd_strerror(err));
        return false;
    }
    sw_params_ptr params(raw);
    err = snd_pcm_sw_params_current(m_hSound, raw);
    if (err < 0) {
        g_print("qv_alsa_output_device set_swparam: snd_pcm_sw_params_current error %s\n", snd_strerror(err));
        return false;
    }
    err = snd_pcm_sw_params_set_start_threshold(m_hSound, raw, kNoAutomaticThreshold);
    if (err < 0) {
        g_print("qv_alsa_output_device set_swparam: snd_pcm_sw_params_set_start_threshold error %s\n",
                snd_strerror(err));
        return false;
    }
    err = snd_pcm_sw_params_set_stop_threshold(m_hSound, raw, kNoAutomaticThreshold);
    if (err < 0) {
        g_print("qv_alsa_output_device set_swparam: snd_pcm_sw_params_set_stop_threshold error %s\n",
                snd_strerror(err));
        return false;
    }
    err = snd_pcm_sw_params(m_hSound, raw);
    if (err < 0) {
        g_print("qv_alsa_output_device set_sw_param: snd_pcm_sw_params error %s\n", snd_strerror(err));
        return false;
    }
    return true;
}

void qv_alsa_output_device::close_device()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound == nullptr)
        return;
    const int err = snd_pcm_drop(m_hSound);
    if (err < 0)
        g_print("qv_alsa_output_device: close_device() snd_pcm_drop error %s\n", snd_strerror(err));
    snd_pcm_close(m_hSound);
    m_hSound = nullptr;
}

bool qv_alsa_output_device::is_open() const
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    return m_hSound != nullptr;
}

QVSDK::QVSoundFormat qv_alsa_output_device::get_format() const
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    return m_format;
}

QVSDK::QVSoundFormat qv_alsa_output_device::get_internal_format() const
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    return m_internal_format;
}

bool qv_alsa_output_device::start_device()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound == nullptr)
        return false;
    const auto start = std::chrono::steady_clock::now();
    const int err = snd_pcm_start(m_hSound);
    if (err < 0)
        g_print("qv_alsa_output_device: snd_pcm_start error %s\n", snd_strerror(err));
    const auto end = std::chrono::steady_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
    g_print("qv_jt_renderer: alsa prepare: %zu [ms]\n", static_cast<size_t>(ms));
    return true;
}

void qv_alsa_output_device::stop_device()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound != nullptr) {
        int err = snd_pcm_drop(m_hSound);
        if (err < 0)
            g_print("qv_alsa_output_device: stop_device() snd_pcm_drop error %s\n", snd_strerror(err));
        err = snd_pcm_drain(m_hSound);
        if (err < 0)
            g_print("qv_alsa_output_device: stop_device() snd_pcm_drain error %s\n", snd_strerror(err));
        // Dropping leaves the stream set up but not prepared; prepare it again so
        // that the frames written before the next start are accepted.
        if (snd_pcm_state(m_hSound) == SND_PCM_STATE_SETUP)
            snd_pcm_prepare(m_hSound);
    }
    m_nTotalFrame = 0;
}

bool qv_alsa_output_device::write(const uint8_t* pData, size_t nBytes)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound == nullptr)
        return false;
    const size_t align = m_internal_format.m_block_align;
    if (align != 0 && pData != nullptr) {
        const snd_pcm_sframes_t res = snd_pcm_writei(m_hSound, pData, nBytes / align);
        if (res < 0)
            g_print("qvjtrenderer: qv_alsa_output_device::write res = %d (%s)\n", static_cast<int>(res),
                    snd_strerror(static_cast<int>(res)));
    }
    // Counted even when the card refused it: the device time follows what the
    // render loop handed over, so that audio stays in step with the pictures.
    m_nTotalFrame += nBytes;
    return true;
}

bool qv_alsa_output_device::write(const QVSDK::QVSound& sound)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound == nullptr)
        return false;
    const QVSDK::QVSoundFormat& fmt = sound.format();
    if (fmt.m_channel != m_internal_format.m_channel || fmt.m_frequency != m_internal_format.m_frequency ||
        fmt.m_bit_per_sample != m_internal_format.m_bit_per_sample || fmt.m_block_align == 0 || sound.isEmpty())
        return false;
    const size_t frames = std::min<size_t>(sound.frames(), sound.size() / fmt.m_block_align);
    const snd_pcm_sframes_t res = snd_pcm_writei(m_hSound, sound.data(), frames);
    if (res < 0) {
        g_print("qvjtrenderer: qv_alsa_output_device::snd_pcm_writei = %d (%s)\n", static_cast<int>(res),
                snd_strerror(static_cast<int>(res)));
        return false;
    }
    m_nTotalFrame += frames * fmt.m_block_align;
    return true;
}

uint64_t qv_alsa_output_device::get_device_time() const
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_hSound == nullptr || m_internal_format.m_avr_byte_per_sec == 0)
        return 0;
    return m_nTotalFrame * 1000 / m_internal_format.m_avr_byte_per_sec;
}
