// Renderer lifecycle: construction, properties, state changes, open / start /
// stop / close / reset.
#include "qv_renderer.h"

#include "qv_pad_guard.h"

#include "gstqvjtrenderer.h"
#include "qv_thread_priority.h"
#include "qv_v4l2_common.h"

#include "qvrational.h"
#include "qvsize.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

void qv_bus_alarm_install(qv_alarms_dispatcher& dispatcher, GstElement* pElement);

qv_renderer::qv_renderer(_Gstqvjtrenderer* pElement, GstElementClass* pParentClass)
    : m_video_device(m_statistics),
      m_mpln_device(m_statistics),
      m_pElement(pElement),
      m_pParentClass(pParentClass),
      m_fifo(m_statistics, m_alarmDispatcher),
      m_reporter(GST_ELEMENT(pElement), m_statistics),
      m_boardClock([this](uint32_t& nFrames, double& fFps) { return board_frames(nFrames, fFps); }),
      m_core(playout_parts(), playout_callbacks())
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

bool qv_renderer::board_frames(uint32_t& nFrames, double& fFps)
{
    if (m_state != qv_run_state)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        nFrames = m_statistics.nSeqFromDevice;
    }
    fFps = m_fBoardFps;
    // 0: no frame since the play-out (re)started.
    return nFrames != 0;
}

qv_playout_parts qv_renderer::playout_parts()
{
    return {m_cs,           m_statistics,       m_alarmDispatcher,  m_video_device, m_audio_device,
            m_mpln_device,  m_fifo,             m_state,            m_cfg,          m_nLatency,
            m_nBufferCapacity, m_bUseHWLock,    m_nHWFrameStep,     m_fFps,         m_nDebugDiffHW,
            m_linesSCTE104, m_scte104_encoder,  m_teletext_encoder, m_time_starter, m_pacer,
            m_ancillary,    m_cc_queue,         m_ccReported,       m_nCaptionRow,  m_nAfdRow,
            m_bAncSD,       m_ancLine,          m_bOutputDown,      m_bEos,         m_bEosPosted,
            m_bFlush,       m_bFlushing,        m_bRebase,          m_bPacedInput};
}

qv_playout_callbacks qv_renderer::playout_callbacks()
{
    qv_playout_callbacks callbacks;
    callbacks.end_of_stream = [this] { post_eos(); };
    callbacks.caption_warning = [this](const std::string& strWhy) {
        GST_ELEMENT_WARNING(GST_ELEMENT(m_pElement), STREAM, FORMAT,
                            ("sink_video: caption metadata dropped, %s; play-out goes on", strWhy.c_str()),
                            (nullptr));
    };
    callbacks.restarted = [this](const char* pReason) { m_reporter.note_restart(pReason); };
    callbacks.awaited_audio_lines = [this] { return awaited_audio_lines(); };
    return callbacks;
}

void qv_renderer::post_eos()
{
    GstElement* pElement = GST_ELEMENT(m_pElement);
    GstMessage* pMsg = gst_message_new_eos(GST_OBJECT(pElement));
    {
        std::lock_guard<std::mutex> lock(m_csEos);
        if (m_nEosSeqnum != 0)
            gst_message_set_seqnum(pMsg, m_nEosSeqnum);
    }
    gst_element_post_message(pElement, pMsg);
}

std::vector<unsigned> qv_renderer::awaited_audio_lines()
{
    std::vector<unsigned> lines;
    std::lock_guard<std::mutex> lock(m_csEos);
    for (const auto& p : m_list_audio_pad) {
        GstPad* pPad = p->pad.get();
        if (isConnect(pPad) && std::find(m_eosPads.begin(), m_eosPads.end(), pPad) == m_eosPads.end())
            lines.push_back(static_cast<unsigned>(p->nIndex));
    }
    return lines;
}

bool qv_renderer::tryHWLock(uint32_t index, int32_t& correction)
{
    return m_core.tryHWLock(index, correction);
}

void qv_renderer::PrintStat(uint32_t index, int32_t correction, uint32_t hw, uint32_t lastFrameHW,
                            const std::vector<qv_fifo_item_stat>& stat)
{
    m_core.PrintStat(index, correction, hw, lastFrameHW, stat);
}

void qv_renderer::write_teletext_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    m_core.write_teletext_to_vbi(data, vbi);
}

void qv_renderer::write_scte104_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    m_core.write_scte104_to_vbi(data, vbi);
}

void qv_renderer::write_vbi_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    qv_playout_core::write_vbi_to_vbi(data, vbi);
}

void qv_renderer::write_metadata_to_vbi(const qv_frame_ancillary& current, qv_vbi_data& vbi)
{
    m_core.write_metadata_to_vbi(current, vbi);
}

void qv_renderer::set_property(guint id, const GValue* value, GParamSpec* pspec)
{
    // The board runs with the values it was opened with until the next
    // NULL -> READY; say so when one of them is written meanwhile.
    switch (id) {
    case PROP_V4L2:
    case PROP_MODE:
    case PROP_ALSA:
    case PROP_BUFFER_CAPACITY:
    case PROP_VBI_LINES:
    case PROP_NUMBER_OF_AUDIO_LINES:
    case PROP_USE_VBI:
    case PROP_TIMECODE_TYPE:
    case PROP_WATCHDOG:
    case PROP_HW_BUFFERS:
    case PROP_COLOR_RANGE:
        if (m_bOpened)
            g_print("qvjtrenderer: \"%s\" takes effect at the next NULL -> READY\n", g_param_spec_get_name(pspec));
        break;
    default:
        break;
    }
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
        if (const void* p = g_value_get_pointer(value)) {
            std::memcpy(m_nVBILines, p, sizeof m_nVBILines);
            m_strLineMap.clear();
            m_ancLines = qv_anc_lines{}; // captions and AFD back on their default lines
        }
        break;
    case PROP_NUMBER_OF_AUDIO_LINES:
        // The pads follow the open board's audio lines: changing them while it
        // plays would feed streams that the FIFOs do not have.
        if (m_bOpened)
            m_nPendingAudioLines = static_cast<long>(g_value_get_ulong(value));
        else
            update_audio_pad(g_value_get_ulong(value));
        break;
    case PROP_USE_VBI:
        if (m_bOpened)
            m_nPendingUseVBI = g_value_get_boolean(value) != FALSE ? 1 : 0;
        else
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
        if (!set_app_property(id, value))
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
        g_value_set_ulong(value, m_nPendingAudioLines >= 0 ? static_cast<gulong>(m_nPendingAudioLines)
                                                            : m_list_audio_pad.size());
        break;
    case PROP_STATISTICS:
        g_value_set_pointer(value, &m_statistics);
        break;
    case PROP_USE_VBI:
        g_value_set_boolean(value, m_nPendingUseVBI >= 0 ? m_nPendingUseVBI != 0 : m_bUseVBI);
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
        if (!get_app_property(id, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(m_pElement, id, pspec);
        break;
    }
}

GstStateChangeReturn qv_renderer::change_state(GstStateChange transition)
{
    GstElement* pElement = GST_ELEMENT(m_pElement);
    GstStateChangeReturn ret;
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY: {
        std::string strError;
        if (!open_checked(strError)) {
            // Nothing may stay half open: the application sees the error and
            // the element stays in NULL.
            close();
            m_bOpened = false;
            GST_ELEMENT_ERROR(pElement, RESOURCE, OPEN_WRITE,
                              ("Could not open output device \"%s\": %s", m_cfg.strV4l2Name.c_str(),
                               strError.c_str()),
                              (nullptr));
            return GST_STATE_CHANGE_FAILURE;
        }
        return m_pParentClass->change_state(pElement, transition);
    }
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        start();
        return m_pParentClass->change_state(pElement, transition);
    case GST_STATE_CHANGE_READY_TO_NULL:
        ret = m_pParentClass->change_state(pElement, transition);
        if (ret != GST_STATE_CHANGE_FAILURE) {
            close();
            m_bOpened = false;
        }
        return ret;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        // Deactivating the pads waits for their chain functions: none may be
        // held waiting for an output that will not come.
        m_pacer.release_all();
        return m_pParentClass->change_state(pElement, transition);
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
    std::string strError;
    if (open_checked(strError))
        return true;
    g_print("qvjtrenderer: cannot open output device \"%s\": %s\n", m_cfg.strV4l2Name.c_str(), strError.c_str());
    return false;
}

bool qv_renderer::open_devices(std::string& strError)
{
    return m_core.open_devices(strError);
}

void qv_renderer::close_devices()
{
    m_core.close_devices();
}

bool qv_renderer::open_checked(std::string& strError)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);

    close();

    // Values written while the board was open apply from here on.
    if (m_nPendingAudioLines >= 0)
        update_audio_pad(static_cast<unsigned long>(m_nPendingAudioLines));
    if (m_nPendingUseVBI >= 0)
        update_vbi_pad(m_nPendingUseVBI != 0);
    m_nPendingAudioLines = -1;
    m_nPendingUseVBI = -1;
    m_bOpened = true;

    m_cfg.strV4l2Name = m_strV4l2Name;
    m_cfg.strAlsaName = m_strAlsaName;
    m_cfg.nMode = m_nMode;
    m_cfg.nHWBuffers = m_nHWBuffers;
    m_cfg.nAudioLines = static_cast<uint32_t>(m_list_audio_pad.size());
    m_cfg.eTimeCodeType = m_eTimeCodeType;
    m_cfg.bUseWatchdog = m_bUseWatchdog;
    m_cfg.bFullColorRange = m_bFullColorRange;
    m_cfg.bUseVBI = m_bUseVBI;
    m_cfg.bMultiPlane = false;
    {
        std::lock_guard<std::mutex> eos(m_csEos);
        m_eosPads.clear();
    }
    m_bEos = false;
    m_bEosPosted = false;
    m_bFlush = false;
    m_bOutputDown = false;

    float fps = 25.0f;
    QVSDK::QVEnumFormats format = QVSDK::FORMAT_UYVY;
    int width = 720;
    int height = 576;
    QVSDK::QVAspectRatio aspect;
    QVSDK::QVRational::reduce(&aspect.num, &aspect.den, 16, 9, QVSDK::QV_RATIONAL_MAX);
    QVSDK::QVSoundFormat soundFormat(0, 48000, 16, 2);

    if (!open_devices(strError))
        return false;
    report_timing();
    bool bDevice = false;
    if (m_mpln_device.is_open()) {
        fps = m_mpln_device.get_board_format().fps;
        width = m_mpln_device.get_board_format().width;
        height = m_mpln_device.get_board_format().height;
        format = m_mpln_device.get_video_format();
        soundFormat = m_mpln_device.get_sound_format();
        m_cfg.bMultiPlane = true;
        bDevice = true;
    } else if (m_video_device.is_open()) {
        fps = m_video_device.get_board_format().fps;
        width = m_video_device.get_board_format().width;
        height = m_video_device.get_board_format().height;
        format = m_video_device.get_video_format();
        if (m_audio_device.is_open())
            soundFormat = m_audio_device.get_format();
        bDevice = true;
    }
    m_fFps = fps;
    m_fBoardFps = fps;
    // A producer that is not live may run the latency and two frames ahead of
    // the output: enough for the pre-roll, well within the FIFOs' depth.
    m_pacer.configure(static_cast<int64_t>(std::ceil(m_nLatency * fps / 1000.0)) + 2, fps);
    m_nHWFrameStep = bDevice ? static_cast<int32_t>(148500000.0 / fps + 0.499) : 5940000;

    m_fifo.m_bUsePLL = m_bUsePLL;
    const size_t nDepth = fifo_depth(fps);
    const QVSDK::QVSize size(width, height, aspect);
    // The stream set-up calls report success as non-zero.
    strError = "the play-out buffers cannot be set up";
    if (!m_fifo.create_video_stream(fps, format, size, QVSDK::QVFieldOrder(0)))
        return false;
    if (!m_fifo.create_sound_stream(m_cfg.nAudioLines, soundFormat))
        return false;
    if (!m_fifo.create_teletext_stream(fps) || !m_fifo.create_scte104_stream(fps) || !m_fifo.create_vbi_stream(fps))
        return false;
    if (!m_fifo.alloc_fifo(nDepth))
        return false;
    strError.clear();

    // Entries 32 to 63 fold onto the same 32 mask bits as 0 to 31. The
    // SCTE-104 line list is rebuilt from the table on every open.
    apply_line_map();
    m_nTeletextMask = 0;
    m_linesSCTE104.clear();
    for (uint32_t i = 0; i < 64; ++i) {
        if (m_nVBILines[i] == 1)
            m_nTeletextMask |= 1u << (i % 32);
        else if (m_nVBILines[i] == 2)
            m_linesSCTE104.push_back(i + 1);
    }

    report_lines_outside_area();
    const qv_v4l2_video_format& row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(m_cfg.nMode));
    m_teletext_encoder.init(m_nTeletextMask, row.isProgressive, row.isHD, row.width);
    m_scte104_encoder.init(!row.isHD, m_linesSCTE104.size(), static_cast<size_t>(row.width));
    m_bAncSD = !row.isHD;
    m_ancLine.assign(static_cast<size_t>(row.width) * 2, 0);
    m_cc_queue.init(fps);
    m_ccReported = qv_cc_counters{};
    m_ancillary.clear();
    resolve_anc_lines();
    return true;
}

void qv_renderer::warn_configuration(const std::string& strText)
{
    g_print("qvjtrenderer: %s\n", strText.c_str());
    GST_ELEMENT_WARNING(GST_ELEMENT(m_pElement), RESOURCE, SETTINGS, ("%s", strText.c_str()), (nullptr));
}

// Frames every FIFO holds. The pre-roll fills the FIFO with `latency` of
// pictures before the first goes out: a FIFO that cannot hold that and a few
// frames more overflows before play-out starts, and would reset for ever. It
// is made deep enough, and the operator told.
size_t qv_renderer::fifo_depth(float fps)
{
    constexpr size_t k_preroll_headroom_frames = 4;
    const auto nDepth = static_cast<size_t>(m_nBufferCapacity * fps / 1000.0 + 0.5);
    const auto nNeeded = static_cast<size_t>(std::ceil(m_nLatency * fps / 1000.0)) + k_preroll_headroom_frames;
    if (nDepth >= nNeeded)
        return nDepth;
    const auto nNeededMs = static_cast<unsigned long>(std::ceil(nNeeded * 1000.0 / fps));
    warn_configuration("buffer_capacity " + std::to_string(m_nBufferCapacity) + " ms cannot hold the latency of " +
                       std::to_string(m_nLatency) + " ms and " + std::to_string(k_preroll_headroom_frames) +
                       " frames more: the FIFOs hold " + std::to_string(nNeededMs) + " ms");
    return nNeeded;
}

// Lines of the table that the open board's VBI/VANC area does not have: said
// once at open, rather than when the first packet for them cannot be written.
void qv_renderer::report_lines_outside_area()
{
    size_t nLines = 0;
    if (m_mpln_device.is_open())
        nLines = m_mpln_device.get_vbi_lines(0);
    else if (m_video_device.is_vbi_open())
        nLines = m_video_device.get_vbi_format().count[0];
    else
        return;
    std::string strTeletext, strScte104;
    for (uint32_t nLine = 1; nLine <= 32; ++nLine)
        if ((m_nTeletextMask >> (nLine - 1)) & 1u && nLine > nLines)
            strTeletext += (strTeletext.empty() ? "" : ",") + std::to_string(nLine);
    for (uint32_t nLine : m_linesSCTE104)
        if (nLine >= nLines)
            strScte104 += (strScte104.empty() ? "" : ",") + std::to_string(nLine);
    const auto report = [&](const char* pService, const std::string& strLines) {
        if (!strLines.empty())
            warn_configuration(std::string(pService) + " line(s) " + strLines + " outside the " +
                               std::to_string(nLines) + " VBI/VANC lines of mode " + std::to_string(m_cfg.nMode) +
                               ": nothing is written there");
    };
    report("teletext", strTeletext);
    report("SCTE-104", strScte104);
}

// The caption and AFD lines of the open board: the map's, else the raster's
// defaults. A line the table gives to teletext or SCTE-104 stays theirs: a
// line named in the map then carries nothing more, a default one moves to the
// next free line.
void qv_renderer::resolve_anc_lines()
{
    const qv_v4l2_video_format& row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(m_cfg.nMode));
    const qv_line_geometry g = qv_line_geometry_for(row.height, row.fps, row.isProgressive);
    size_t nLines = qv_anc_max_line;
    if (m_mpln_device.is_open())
        nLines = m_mpln_device.get_vbi_lines(0);
    else if (m_video_device.is_vbi_open())
        nLines = m_video_device.get_vbi_format().count[0];
    uint32_t nTaken = 0; // the line the first service got, so that the second does not take it too
    const auto resolve = [&](const char* pService, uint32_t nNamed, uint32_t nDefault) -> uint32_t {
        uint32_t nLine = nNamed ? nNamed : nDefault;
        if (qv_line_taken(m_nVBILines, nLine) || nLine == nTaken) {
            if (nNamed) {
                warn_configuration(std::string(pService) + " line " + std::to_string(nLine) +
                                   " is also a teletext or SCTE-104 line: no " + pService + " packets are written");
                return k_no_row;
            }
            while (nLine <= qv_anc_max_line && (qv_line_taken(m_nVBILines, nLine) || nLine == nTaken))
                ++nLine;
            warn_configuration(std::string("the default ") + pService + " line " + std::to_string(nDefault) +
                               " is a teletext or SCTE-104 line: " + pService + " packets go on line " +
                               std::to_string(nLine));
        }
        if (nLine > nLines) {
            if (m_mpln_device.is_open() || m_video_device.is_vbi_open())
                warn_configuration(std::string(pService) + " line " + std::to_string(nLine) + " is outside the " +
                                   std::to_string(nLines) + " VBI/VANC lines of mode " +
                                   std::to_string(m_cfg.nMode) + ": nothing is written there");
            return k_no_row;
        }
        nTaken = nLine;
        return nLine - 1;
    };
    m_nCaptionRow = resolve("caption", m_ancLines.nCaption, qv_default_caption_line(g));
    m_nAfdRow = resolve("AFD", m_ancLines.nAfd, qv_default_afd_line(g));
}

// A board that does not run the mode's timing still plays, in the timing it
// keeps: the operator hears of it on the console, on the bus and in the
// video statistics' last error for as long as the board stays open.
void qv_renderer::report_timing()
{
    const qv_v4l2_base_output_device& dev = m_mpln_device.is_open()
                                                ? static_cast<const qv_v4l2_base_output_device&>(m_mpln_device)
                                                : m_video_device;
    m_cfg.strTimingReport = dev.is_open() ? dev.timing_report() : std::string();
    if (m_cfg.strTimingReport.empty())
        return;
    warn_configuration(m_cfg.strTimingReport);
}

bool qv_renderer::start()
{
    m_statistics.reset();
    if (!m_cfg.strTimingReport.empty()) {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        m_statistics.m_video.strLastError = m_cfg.strTimingReport;
    }
    m_reporter.watch_output_down(&m_bOutputDown);
    m_reporter.start();
    const bool bVideo = isConnect(m_video_pad.get());
    const bool bVbi = m_cfg.bUseVBI && isConnect(m_vbi_pad.get());
    const bool bTeletext = !m_cfg.bUseVBI && isConnect(m_teletext_pad.get());
    m_alarmDispatcher.start(bVideo, isAudioConnect(), bTeletext, bVbi);

    m_fExit = std::make_shared<std::promise<void>>();
    std::future<void> exit = m_fExit->get_future();
    if (m_cfg.bMultiPlane)
        m_thread = std::thread([this, f = std::move(exit)]() mutable {
            qv_make_thread_realtime();
            work_thread_complex(std::move(f));
        });
    else
        m_thread = std::thread([this, f = std::move(exit)]() mutable {
            qv_make_thread_realtime();
            work_thread_separate(std::move(f));
        });
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
    m_pacer.restart();
    m_bPacedInput = false;
    m_alarmDispatcher.stop();
    m_reporter.stop();
    m_bOutputDown = false;
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

bool qv_renderer::reset()
{
    return m_core.reset();
}

void qv_renderer::work_thread_separate(std::future<void>&& exit)
{
    m_core.render_loop(exit, false);
}

void qv_renderer::work_thread_complex(std::future<void>&& exit)
{
    m_core.render_loop(exit, true);
}

void qv_renderer::pad_event(GstPad* pPad, GstEvent* pEvent)
{
    switch (GST_EVENT_TYPE(pEvent)) {
    case GST_EVENT_FLUSH_START:
        m_pacer.release_all();
        flush_begins(pPad);
        break;
    case GST_EVENT_EOS: {
        std::lock_guard<std::mutex> lock(m_csEos);
        if (std::find(m_eosPads.begin(), m_eosPads.end(), pPad) == m_eosPads.end())
            m_eosPads.push_back(pPad);
        m_nEosSeqnum = gst_event_get_seqnum(pEvent);
        // The stream ends when every linked pad has ended: the last picture
        // and the last sound both have to go out. A pad that has had no data
        // in this stream has nothing to wait for.
        const auto pending = [this](GstPad* p) {
            return isConnect(p) && qv_pad_guard::of(p).had_data() &&
                   std::find(m_eosPads.begin(), m_eosPads.end(), p) == m_eosPads.end();
        };
        bool bAll = std::find(m_eosPads.begin(), m_eosPads.end(), m_video_pad.get()) != m_eosPads.end();
        for (const auto& p : m_list_audio_pad)
            if (pending(p->pad.get()))
                bAll = false;
        for (GstPad* p : {m_teletext_pad.get(), m_scte104_pad.get(), m_scte35_pad.get(), m_vbi_pad.get()})
            if (p && pending(p))
                bAll = false;
        m_bEos = bAll;
        break;
    }
    case GST_EVENT_FLUSH_STOP:
        flush_ends(pPad);
        break;
    case GST_EVENT_STREAM_START: {
        std::lock_guard<std::mutex> lock(m_csEos);
        const bool bWasEos = !m_eosPads.empty();
        m_eosPads.erase(std::remove(m_eosPads.begin(), m_eosPads.end(), pPad), m_eosPads.end());
        m_bEos = false;
        m_bEosPosted = false;
        // A new stream after an end starts from its own time base: the loop
        // restarts the play-out.
        if (bWasEos)
            m_bFlush = true;
        break;
    }
    default:
        break;
    }
}

void qv_renderer::flush_begins(GstPad* pPad)
{
    std::lock_guard<std::mutex> lock(m_csEos);
    if (std::find(m_flushingPads.begin(), m_flushingPads.end(), pPad) == m_flushingPads.end())
        m_flushingPads.push_back(pPad);
    m_bFlushing = true;
    if (pPad == m_video_pad.get()) {
        // What is queued is about to be thrown away: from now on the board
        // holds the picture on air instead of playing the old position out.
        m_bVideoFlushed = true;
        m_bRebase = true;
    }
}

void qv_renderer::flush_ends(GstPad* pPad)
{
    // The pad's own queue goes; other pads' queues stay (a flush need not
    // reach every input).
    if (pPad == m_video_pad.get()) {
        m_fifo.flush_video();
    } else if (pPad == m_teletext_pad.get()) {
        m_fifo.flush_teletext();
    } else if (pPad == m_scte104_pad.get() || pPad == m_scte35_pad.get()) {
        m_fifo.flush_scte104();
    } else if (pPad == m_vbi_pad.get()) {
        m_fifo.flush_vbi();
    } else {
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        for (const auto& p : m_list_audio_pad)
            if (p->pad.get() == pPad)
                m_fifo.flush_audio(static_cast<unsigned>(p->nIndex));
    }

    bool bRestartTime = false;
    {
        std::lock_guard<std::mutex> lock(m_csEos);
        m_eosPads.erase(std::remove(m_eosPads.begin(), m_eosPads.end(), pPad), m_eosPads.end());
        m_bEos = false;
        m_bEosPosted = false;
        m_flushingPads.erase(std::remove(m_flushingPads.begin(), m_flushingPads.end(), pPad),
                             m_flushingPads.end());
        if (!m_flushingPads.empty())
            return;
        bRestartTime = m_bVideoFlushed;
        m_bVideoFlushed = false;
    }
    if (bRestartTime) {
        // The new position's stamps start a time line of their own (a
        // flushing seek starts running time again): every stream is stamped
        // from its new first stamp and frames are numbered afresh.
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        m_time_starter.reset();
        m_pacer.restart();
        m_ancillary.clear();
        m_cc_queue.clear();
        m_fifo.rebase();
    }
    std::lock_guard<std::mutex> lock(m_csEos);
    m_bFlushing = !m_flushingPads.empty();
}

