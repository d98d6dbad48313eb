// Renderer lifecycle: construction, properties, state changes, open / start /
// stop / close / reset.
#include "qv_renderer.h"

#include "gstqvjtrenderer.h"
#include "qv_v4l2_common.h"

#include "qvrational.h"
#include "qvsize.h"

#include <unistd.h>

#include <cstring>

void qv_bus_alarm_install(qv_alarms_dispatcher& dispatcher, GstElement* pElement);

qv_renderer::qv_renderer(_Gstqvjtrenderer* pElement, GstElementClass* pParentClass)
    : m_video_device(m_statistics),
      m_mpln_device(m_statistics),
      m_pElement(pElement),
      m_pParentClass(pParentClass),
      m_fifo(m_statistics, m_alarmDispatcher)
{
    // Without an alarm manager the application still sees alarms, on the bus.
    qv_bus_alarm_install(m_alarmDispatcher, GST_ELEMENT(pElement));

    create_video_pad();
    create_teletext_pad();
    create_scte104_pad();
    create_scte35_pad();
    create_audio_pad(0);
    create_vbi_pad(m_bUseVBI);
}

qv_renderer::~qv_renderer() = default;

void qv_renderer::set_property(guint id, const GValue* value, GParamSpec* pspec)
{
    switch (id) {
    case PROP_V4L2:
        m_strV4l2Name = std::string(g_value_get_string(value));
        break;
    case PROP_MODE:
        m_nMode = static_cast<uint32_t>(g_value_get_ulong(value));
        break;
    case PROP_ALSA:
        m_strAlsaName = std::string(g_value_get_string(value));
        break;
    case PROP_BUFFER_CAPACITY:
        m_nBufferCapacity = static_cast<uint32_t>(g_value_get_ulong(value));
        break;
    case PROP_LATENCY:
        m_nLatency = static_cast<uint32_t>(g_value_get_ulong(value));
        break;
    case PROP_VBI_LINES:
        // The caller hands 64 bytes, one per line; no length can be checked through a pointer.
        if (const void* p = g_value_get_pointer(value))
            std::memcpy(m_nVBILines, p, sizeof m_nVBILines);
        break;
    case PROP_NUMBER_OF_AUDIO_LINES:
        update_audio_pad(g_value_get_ulong(value));
        break;
    case PROP_USE_VBI:
        update_vbi_pad(g_value_get_boolean(value) != FALSE);
        break;
    case PROP_TIMECODE_TYPE:
        m_eTimeCodeType = static_cast<v4l2_jutvane_timecode_type>(g_value_get_uint(value));
        break;
    case PROP_USE_PLL:
        m_bUsePLL = g_value_get_boolean(value) != FALSE;
        break;
    case PROP_ALARM_SOURCE_NAME: {
        const gchar* p = g_value_get_string(value);
        m_alarmDispatcher.set_source_name(p ? p : "");
        break;
    }
    case PROP_ALARM_MANAGER:
        m_alarmDispatcher.set_alarm_manager(static_cast<qv_alarm_manager*>(g_value_get_pointer(value)));
        break;
    case PROP_WATCHDOG:
        m_bUseWatchdog = g_value_get_boolean(value) != FALSE;
        break;
    case PROP_HW_BUFFERS:
        m_nHWBuffers = static_cast<uint32_t>(g_value_get_ulong(value));
        break;
    case PROP_USE_HWTIME:
        m_bUseHWLock = g_value_get_boolean(value) != FALSE;
        break;
    case PROP_COLOR_RANGE:
        m_bFullColorRange = g_value_get_boolean(value) != FALSE;
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(m_pElement, id, pspec);
        break;
    }
}

void qv_renderer::get_property(guint id, GValue* value, GParamSpec* pspec)
{
    switch (id) {
    case PROP_V4L2:
        g_value_set_string(value, m_strV4l2Name.c_str());
        break;
    case PROP_MODE:
        g_value_set_ulong(value, m_nMode);
        break;
    case PROP_ALSA:
        g_value_set_string(value, m_strAlsaName.c_str());
        break;
    case PROP_BUFFER_CAPACITY:
        g_value_set_ulong(value, m_nBufferCapacity);
        break;
    case PROP_LATENCY:
        g_value_set_ulong(value, m_nLatency);
        break;
    case PROP_HW_BUFFERS:
        g_value_set_ulong(value, m_nHWBuffers);
        break;
    case PROP_NUMBER_OF_AUDIO_LINES:
        g_value_set_ulong(value, m_list_audio_pad.size());
        break;
    case PROP_STATISTICS:
        g_value_set_pointer(value, &m_statistics);
        break;
    case PROP_USE_VBI:
        g_value_set_boolean(value, m_bUseVBI);
        break;
    case PROP_TIMECODE_TYPE:
        g_value_set_uint(value, m_eTimeCodeType);
        break;
    case PROP_USE_PLL:
        g_value_set_boolean(value, m_bUsePLL);
        break;
    case PROP_ALARM_SOURCE_NAME:
        g_value_set_string(value, m_alarmDispatcher.get_source_name().c_str());
        break;
    case PROP_WATCHDOG:
        g_value_set_boolean(value, m_bUseWatchdog);
        break;
    case PROP_USE_HWTIME:
        g_value_set_boolean(value, m_bUseHWLock);
        break;
    case PROP_COLOR_RANGE:
        g_value_set_boolean(value, m_bFullColorRange);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(m_pElement, id, pspec);
        break;
    }
}

GstStateChangeReturn qv_renderer::change_state(GstStateChange transition)
{
    GstElement* pElement = GST_ELEMENT(m_pElement);
    GstStateChangeReturn ret;
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        // A failed open still reaches READY: the render thread then finds no device.
        open();
        return m_pParentClass->change_state(pElement, transition);
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        start();
        return m_pParentClass->change_state(pElement, transition);
    case GST_STATE_CHANGE_READY_TO_NULL:
        ret = m_pParentClass->change_state(pElement, transition);
        if (ret != GST_STATE_CHANGE_FAILURE)
            close();
        return ret;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        ret = m_pParentClass->change_state(pElement, transition);
        if (ret != GST_STATE_CHANGE_FAILURE)
            stop();
        return ret;
    default:
        return m_pParentClass->change_state(pElement, transition);
    }
}

bool qv_renderer::open()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);

    float fps = 25.0f;
    QVSDK::QVEnumFormats format = QVSDK::FORMAT_UYVY;
    int width = 720;
    int height = 576;
    QVSDK::QVAspectRatio aspect;
    QVSDK::QVRational::reduce(&aspect.num, &aspect.den, 16, 9, QVSDK::QV_RATIONAL_MAX);
    QVSDK::QVSoundFormat soundFormat(0, 48000, 16, 2);

    close();

    const auto nAudioLines = static_cast<uint32_t>(m_list_audio_pad.size());
    const qv_v4l2_enum_sdi_mode mode = static_cast<qv_v4l2_enum_sdi_mode>(m_nMode);
    bool bDevice = false;
    if (!m_strV4l2Name.empty()) {
        int fd = -1;
        switch (qv_v4l2_base_output_device::CheckDevice(fd, m_strV4l2Name)) {
        case qv_v4l2_base_output_device::eDTSepare:
            if (!m_video_device.init_device(fd, m_strV4l2Name, mode, m_eTimeCodeType, m_bUseWatchdog,
                                            m_nHWBuffers)) {
                if (fd != -1)
                    ::close(fd);
                return false;
            }
            fps = m_video_device.get_board_format().fps;
            width = m_video_device.get_board_format().width;
            height = m_video_device.get_board_format().height;
            format = m_video_device.get_video_format();
            bDevice = true;
            if (!m_strAlsaName.empty()) {
                if (!m_audio_device.open_device(m_strAlsaName, nAudioLines))
                    return false;
                soundFormat = m_audio_device.get_format();
            }
            break;
        case qv_v4l2_base_output_device::eDTMultiPlane:
            if (!m_mpln_device.init_device(fd, m_strV4l2Name, mode, m_eTimeCodeType, m_bUseWatchdog, m_nHWBuffers,
                                           m_bFullColorRange, nAudioLines)) {
                g_print("qvjtrenderer: m_mpln_device.init_device ERROR !!!\n");
                if (fd != -1)
                    ::close(fd);
                return false;
            }
            fps = m_mpln_device.get_board_format().fps;
            width = m_mpln_device.get_board_format().width;
            height = m_mpln_device.get_board_format().height;
            format = m_mpln_device.get_video_format();
            soundFormat = m_mpln_device.get_sound_format();
            bDevice = true;
            break;
        default:
            if (fd != -1)
                ::close(fd);
            break;
        }
    }
    m_nHWFrameStep = bDevice ? static_cast<int32_t>(148500000.0 / fps + 0.499) : 5940000;

    m_fifo.m_bUsePLL = m_bUsePLL;
    const QVSDK::QVSize size(width, height, aspect);
    // The stream set-up calls report success as non-zero.
    if (!m_fifo.create_video_stream(fps, format, size, QVSDK::QVFieldOrder(0)))
        return false;
    if (!m_fifo.create_sound_stream(nAudioLines, soundFormat))
        return false;
    if (!m_fifo.create_teletext_stream(fps) || !m_fifo.create_scte104_stream(fps) || !m_fifo.create_vbi_stream(fps))
        return false;
    if (!m_fifo.alloc_fifo(static_cast<size_t>(m_nBufferCapacity * fps / 1000.0 + 0.5)))
        return false;

    // Entries 32 to 63 fold onto the same 32 mask bits as 0 to 31; the SCTE-104
    // line list is appended to on every open, never cleared.
    m_nTeletextMask = 0;
    for (uint32_t i = 0; i < 64; ++i) {
        if (m_nVBILines[i] == 1)
            m_nTeletextMask |= 1u << (i % 32);
        else if (m_nVBILines[i] == 2)
            m_linesSCTE104.push_back(i + 1);
    }

    const qv_v4l2_video_format& row = qv_board_format(mode);
    m_teletext_encoder.init(m_nTeletextMask, row.isProgressive, row.isHD, row.width);
    m_scte104_encoder.init(!row.isHD, m_linesSCTE104.size(), static_cast<size_t>(row.width));
    return true;
}

bool qv_renderer::start()
{
    m_statistics.reset();
    const bool bVideo = isConnect(m_video_pad.get());
    const bool bVbi = m_bUseVBI && isConnect(m_vbi_pad.get());
    const bool bTeletext = !m_bUseVBI && isConnect(m_teletext_pad.get());
    m_alarmDispatcher.start(bVideo, isAudioConnect(), bTeletext, bVbi);

    m_fExit = std::make_shared<std::promise<void>>();
    std::future<void> exit = m_fExit->get_future();
    if (m_mpln_device.is_open())
        m_thread = std::thread([this, f = std::move(exit)]() mutable { work_thread_complex(std::move(f)); });
    else
        m_thread = std::thread([this, f = std::move(exit)]() mutable { work_thread_separate(std::move(f)); });
    return true;
}

void qv_renderer::stop()
{
    if (m_thread.joinable()) {
        m_fExit->set_value();
        m_thread.join();
        m_fExit.reset();
    }
    m_time_starter.reset();
    m_alarmDispatcher.stop();
}

void qv_renderer::close()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    stop();
    if (m_mpln_device.is_open())
        m_mpln_device.close_device();
    if (m_video_device.is_open())
        m_video_device.close_device();
    if (m_audio_device.is_open())
        m_audio_device.close_device();
    m_teletext_encoder.release();
    m_fifo.dealloc_fifo();
}

void qv_renderer::reset()
{
    // The pads' add calls read the devices under m_cs; they must not see a
    // device half closed or half reopened. close() never waits for this
    // thread while holding m_cs: the render thread is stopped before it.
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    g_print("qvjtrenderer: start reset\n");
    const bool bMpln = m_mpln_device.is_open();
    if (bMpln) {
        m_mpln_device.stop_device();
        m_mpln_device.close_device();
    }
    if (m_video_device.is_open()) {
        m_video_device.stop_device();
        m_video_device.close_device();
    }
    if (m_audio_device.is_open()) {
        m_audio_device.stop_device();
        m_audio_device.close_device();
    }
    m_fifo.reset();
    m_time_starter.reset();

    int fd = -1;
    qv_v4l2_base_output_device::CheckDevice(fd, m_strV4l2Name);
    const auto nAudioLines = static_cast<uint32_t>(m_list_audio_pad.size());
    const qv_v4l2_enum_sdi_mode mode = static_cast<qv_v4l2_enum_sdi_mode>(m_nMode);
    // Reopening failures are not handled here: the next frame that cannot be
    // mapped is reported by the render loop.
    if (bMpln) {
        m_mpln_device.init_device(fd, m_strV4l2Name, mode, m_eTimeCodeType, m_bUseWatchdog, m_nHWBuffers,
                                  m_bFullColorRange, nAudioLines);
    } else {
        if (!m_strV4l2Name.empty())
            m_video_device.init_device(fd, m_strV4l2Name, mode, m_eTimeCodeType, m_bUseWatchdog, m_nHWBuffers);
        if (!m_strAlsaName.empty())
            m_audio_device.open_device(m_strAlsaName, nAudioLines);
    }
    if (fd != -1)
        ::close(fd);
    g_print("qvjtrenderer: stop reset\n");
}
