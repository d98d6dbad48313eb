#include "qv_v4l2_common.h"

#include "qv_dv_timings.h"

#include <glib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

// The 59.94, 29.97 and 23.98 rates are the single-precision values of those
// decimals, not of 60/1.001: the DV-timings match compares against exactly these.
const qv_v4l2_video_format qv_board_formats[qv_board_formats_count] = {
    {720, 576, 25.0f, false, false},    {720, 576, 30.0f, false, false},
    {1920, 1080, 25.0f, false, true},   {1920, 1080, 30.0f, false, true},
    {1920, 1080, 50.0f, true, true},    {1920, 1080, 60.0f, true, true},
    {1280, 720, 50.0f, true, true},     {1280, 720, 59.94f, true, true},
    {1280, 720, 60.0f, true, true},     {1920, 1080, 23.98f, true, true},
    {1920, 1080, 24.0f, true, true},    {1920, 1080, 25.0f, true, true},
    {1920, 1080, 29.97f, true, true},   {1920, 1080, 59.94f, true, true},
    {3840, 2160, 25.0f, true, true},    {3840, 2160, 29.97f, true, true},
    {3840, 2160, 30.0f, true, true},    {3840, 2160, 50.0f, true, true},
    {3840, 2160, 59.94f, true, true},   {3840, 2160, 60.0f, true, true},
};

const qv_v4l2_video_format& qv_board_format(qv_v4l2_enum_sdi_mode mode)
{
    const auto index = static_cast<unsigned>(mode);
    return qv_board_formats[index < qv_board_formats_count ? index : 0];
}

int xioctl(int fd, unsigned long request, void* arg)
{
    int r;
    do {
        r = ioctl(fd, request, arg);
    } while (r == -1 && errno == EINTR);
    return r;
}

bool qv_set_streaming(int fd, int type, bool bOn, const char* prefix, const std::string& name)
{
    if (xioctl(fd, bOn ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &type) != -1)
        return true;
    g_print("qvjtrenderer: %sCan't stream %s, device = %s\n", prefix, bOn ? "on" : "off", name.c_str());
    return false;
}

void qv_print_start_time(const char* label, std::chrono::steady_clock::time_point start)
{
    const auto end = std::chrono::steady_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(start - end).count();
    g_print("qv_jt_renderer: %s: %zu [ms]\n", label, static_cast<size_t>(ms));
}

void* qv_map_device_buffer(int fd, size_t length, uint32_t offset)
{
    void* m = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, offset);
    if (m == MAP_FAILED)
        return m;
    const long page = sysconf(_SC_PAGESIZE);
    const size_t step = page > 0 ? static_cast<size_t>(page) : 4096;
    auto* p = static_cast<volatile uint8_t*>(m);
    for (size_t i = 0; i < length; i += step)
        p[i] = p[i];
    return m;
}

QVSDK::QVEnumFormats qv_format_from_fourcc(uint32_t fourcc)
{
    switch (fourcc) {
    case V4L2_PIX_FMT_BGR32:
        return QVSDK::FORMAT_BGRA;
    case V4L2_PIX_FMT_BGR24:
        return QVSDK::FORMAT_BGR;
    case V4L2_PIX_FMT_YVU420:
        return QVSDK::FORMAT_YV12;
    case V4L2_PIX_FMT_NV12:
        return QVSDK::FORMAT_NV12;
    case V4L2_PIX_FMT_YVYU:
        return QVSDK::FORMAT_YVYU;
    case V4L2_PIX_FMT_YUYV:
        return QVSDK::FORMAT_YUY2;
    default:
        // UYVY and the board's own codes are both 8-bit 4:2:2 with chroma first.
        return QVSDK::FORMAT_UYVY;
    }
}

QVSDK::QVFieldOrder qv_field_order_from_v4l2(uint32_t field)
{
    switch (field) {
    case V4L2_FIELD_INTERLACED_TB:
    case V4L2_FIELD_INTERLACED:
        return QVSDK::FieldOrder_Upper_First;
    case V4L2_FIELD_INTERLACED_BT:
        return QVSDK::FieldOrder_Lower_First;
    default:
        return QVSDK::FieldOrder_Progressive;
    }
}

qv_v4l2_base_output_device::qv_v4l2_base_output_device(qv_device_reporter& reporter)
    : m_reporter(reporter)
{
}

qv_v4l2_base_output_device::~qv_v4l2_base_output_device()
{
    releaseHandle();
}

qv_v4l2_base_output_device::eDeviceType qv_v4l2_base_output_device::CheckDevice(int& fd,
                                                                               const std::string& name)
{
    fd = -1;
    const int h = open(name.c_str(), O_RDWR | O_CLOEXEC);
    if (h == -1) {
        g_print("qbjtrenderer: Can't open video device, device=%s\n", name.c_str());
        return eDTNone;
    }
    v4l2_capability caps{};
    if (xioctl(h, VIDIOC_QUERYCAP, &caps) == -1) {
        close(h);
        g_print("qbjtrenderer: Can't obtain device caps, device=%s\n", name.c_str());
        return eDTNone;
    }
    // A node offering both buffer models is driven as multi-plane: only that
    // model carries audio and the status record.
    if (caps.device_caps & V4L2_CAP_VIDEO_OUTPUT_MPLANE) {
        fd = h;
        return eDTMultiPlane;
    }
    if (caps.device_caps & V4L2_CAP_VIDEO_OUTPUT) {
        fd = h;
        return eDTSepare;
    }
    close(h);
    g_print("qbjtrenderer: device %s is not output device\n", name.c_str());
    return eDTUnknown;
}

bool qv_v4l2_base_output_device::set_control(uint32_t id, int32_t value) const
{
    v4l2_control ctrl{};
    ctrl.id = id;
    ctrl.value = value;
    return xioctl(m_hDevice, VIDIOC_S_CTRL, &ctrl) != -1;
}

bool qv_v4l2_base_output_device::init(int& fd, const std::string& name, bool bUseWatchdog,
                                      qv_v4l2_enum_sdi_mode mode, v4l2_jutvane_timecode_type timecode_type)
{
    if (fd == -1)
        return false;
    m_strName = name;

    v4l2_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_VANC_ENABLE;
    ctrl.value = 1;
    if (xioctl(fd, VIDIOC_S_CTRL, &ctrl) == -1) {
        g_print("qbjtrenderer: Can't enable vanc, device=%s\n", name.c_str());
        return false; // the caller still owns fd
    }
    ctrl.id = V4L2_CID_JUTVANE_TIMECODE_TYPE;
    ctrl.value = timecode_type;
    if (xioctl(fd, VIDIOC_S_CTRL, &ctrl) == -1)
        g_print("qbjtrenderer: Can't set timecode type, device=%s\n", name.c_str());

    releaseHandle();
    m_hDevice = fd;
    fd = -1;
    m_bUseWatchdog = bUseWatchdog;
    m_format = mode;
    // Coarse on purpose: the buffer's time-code type only tells the driver the
    // frame-count base, and every mode not listed is counted as 25.
    switch (mode) {
    case qv_1920x1080_50p:
        m_timecodeType = V4L2_TC_TYPE_50FPS;
        break;
    case qv_1920x1080_60p:
        m_timecodeType = V4L2_TC_TYPE_60FPS;
        break;
    case qv_720x576_30i:
    case qv_1920x1080_30i:
        m_timecodeType = V4L2_TC_TYPE_30FPS;
        break;
    default:
        m_timecodeType = V4L2_TC_TYPE_25FPS;
        break;
    }
    m_nTimeStamp.exchange(0);
    m_nLastTimeStamp.exchange(0);
    m_seq_frame.exchange(0);
    m_bNeedsRestart = false;
    m_bTimedOut = false;
    m_nFailuresInRow = 0;
    return true;
}

void qv_v4l2_base_output_device::releaseHandle()
{
    if (m_hDevice > 0)
        close(m_hDevice);
    m_hDevice = -1;
}

bool qv_v4l2_base_output_device::set_v4l2_video_format(unsigned buffer_type)
{
    if (m_hDevice == -1)
        return false;
    const qv_v4l2_video_format& row = get_board_format();
    m_strTimingReport.clear();

    // The timing at exactly the mode's table rate is taken at once. The board
    // states its 1/1.001 rates through the pixel clock, so without one the
    // timing of the same raster and scan nearest the mode's rate is taken.
    std::vector<v4l2_dv_timings> offered;
    bool bSet = false;
    const auto set = [&](v4l2_dv_timings timings) {
        bSet = true;
        if (xioctl(m_hDevice, VIDIOC_S_DV_TIMINGS, &timings) == -1)
            g_print("qbjtrenderer: Can't set dv timing %dx%d, %.2ffps, device = %s\n", timings.bt.width,
                    timings.bt.height, static_cast<double>(qv_timing_fps(timings.bt)), m_strName.c_str());
    };
    for (uint32_t index = 0;; ++index) {
        v4l2_enum_dv_timings en{};
        en.index = index;
        if (xioctl(m_hDevice, VIDIOC_ENUM_DV_TIMINGS, &en) == -1)
            break;
        if (qv_timing_is_exact(en.timings.bt, row)) {
            set(en.timings);
            break;
        }
        offered.push_back(en.timings);
        // Not used: a node that cannot even report its format ends the search.
        v4l2_format fmt{};
        fmt.type = buffer_type;
        if (xioctl(m_hDevice, VIDIOC_G_FMT, &fmt) == -1)
            break;
    }
    if (!bSet) {
        const int nearest = qv_nearest_timing(offered, row);
        if (nearest >= 0)
            set(offered[static_cast<size_t>(nearest)]);
    }

    v4l2_dv_timings current{};
    if (xioctl(m_hDevice, VIDIOC_G_DV_TIMINGS, &current) == -1) {
        g_print("qbjtrenderer: Can't get dv timing, device = %s\n", m_strName.c_str());
        return false;
    }
    // The board may have been set up by other means: play-out goes on in the
    // timing it keeps, and the operator is told.
    const std::string strMode = "mode " + std::to_string(static_cast<int>(m_format)) + " (" + qv_mode_name(row) + ")";
    if (!bSet) {
        std::string strOffered;
        for (const v4l2_dv_timings& t : offered)
            strOffered += (strOffered.empty() ? "" : ", ") + qv_timing_name(t.bt);
        m_strTimingReport = strMode + " has no timing on " + m_strName + "; it keeps " +
                            qv_timing_name(current.bt) + " and offers " +
                            (strOffered.empty() ? std::string("none") : strOffered);
    } else if (!qv_timing_fits(current.bt, row)) {
        m_strTimingReport = strMode + " was set on " + m_strName + ", but it reports " + qv_timing_name(current.bt);
    }
    v4l2_format fmt{};
    fmt.type = buffer_type;
    if (xioctl(m_hDevice, VIDIOC_G_FMT, &fmt) == -1) {
        g_print("qbjtrenderer: Can't get device format, device = %s\n", m_strName.c_str());
        return false;
    }
    set_control(V4L2_CID_JUTVANE_FORMAT_COMMIT, 1);
    return true;
}

int qv_v4l2_base_output_device::get_genlock_state() const
{
    if (m_hDevice == -1)
        return 0;
    v4l2_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_GENLOCK_STATE;
    ctrl.value = -1;
    xioctl(m_hDevice, VIDIOC_G_CTRL, &ctrl);
    return ctrl.value;
}

int qv_v4l2_base_output_device::get_genlock_source() const
{
    if (m_hDevice == -1)
        return 0;
    v4l2_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_GENLOCK_SOURCE;
    ctrl.value = -1;
    xioctl(m_hDevice, VIDIOC_G_CTRL, &ctrl);
    return ctrl.value;
}

void qv_v4l2_base_output_device::update_statisitcs(unsigned seq)
{
    const int32_t state = get_genlock_state();
    if (state != m_genlock_state)
        g_print("qvjtrenderer: genlock lock state changed %d => %d\n", m_genlock_state, state);
    m_genlock_state = state;
    const int32_t source = get_genlock_source();
    if (source != m_genlock_source)
        g_print("qvjtrenderer: genlock lock source changed %d => %d\n", m_genlock_source, source);
    m_genlock_source = source;

    // Single precision on purpose: this is the figure the statistics show.
    const float ns = static_cast<float>(static_cast<uint64_t>(seq) * 1000000000ull);
    const uint64_t device_time = static_cast<uint64_t>(ns / get_board_format().fps);

    m_reporter.frame_sent(seq, device_time, state, source, m_bSeqRestarted);
    m_bSeqRestarted = false;
}

void qv_v4l2_base_output_device::init_watchdog()
{
    if (m_hDevice == -1)
        return;
    if (m_bUseWatchdog) {
        set_control(V4L2_CID_JUTVANE_STOP_STATE, 0);
        set_control(V4L2_CID_JUTVANE_WATCHDOG_ENABLE, 1);
    } else {
        set_control(V4L2_CID_JUTVANE_WATCHDOG_ENABLE, 0);
        set_control(V4L2_CID_JUTVANE_STOP_STATE, 0);
    }
}

void qv_v4l2_base_output_device::notify_watchdog(int timeout_ms)
{
    if (m_hDevice == -1 || !m_bUseWatchdog)
        return;
    set_control(V4L2_CID_JUTVANE_WATCHDOG_NOTIFY, timeout_ms);
}

void qv_v4l2_base_output_device::deinit_watchdog()
{
    if (m_hDevice == -1)
        return;
    set_control(V4L2_CID_JUTVANE_WATCHDOG_ENABLE, 0);
    set_control(V4L2_CID_JUTVANE_STOP_STATE, m_bUseWatchdog ? 1 : 0);
}

bool qv_v4l2_base_output_device::check_watchdog()
{
    if (m_hDevice == -1 || !m_bUseWatchdog || !m_bStreaming)
        return false;
    v4l2_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_WATCHDOG_ENABLE;
    if (xioctl(m_hDevice, VIDIOC_G_CTRL, &ctrl) == -1 || ctrl.value != 0)
        return false;
    // The board drops the enable when the watchdog fires and never sets it again.
    g_print("qvjtrenderer: output watchdog expired, re-armed, device = %s\n", m_strName.c_str());
    init_watchdog();
    return true;
}

int qv_v4l2_base_output_device::wait_for_buffer(int fd)
{
    m_bTimedOut = false;
    pollfd p{};
    p.fd = fd;
    p.events = POLLOUT;
    int r;
    do {
        r = poll(&p, 1, kBufferWaitMs);
    } while (r == -1 && errno == EINTR);
    if (r == 0) {
        m_bTimedOut = true;
        return 0;
    }
    if (r == -1 || (p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        // Hang-up or a stale descriptor: the node is gone; an error alone may pass.
        const int err = r == -1 ? errno : (p.revents & (POLLHUP | POLLNVAL)) != 0 ? ENODEV : EIO;
        note_failure(err);
        return -1;
    }
    return 1;
}

void qv_v4l2_base_output_device::note_success()
{
    m_nFailuresInRow = 0;
}

void qv_v4l2_base_output_device::note_failure(int err)
{
    ++m_nFailuresInRow;
    const bool bGone = err == ENODEV || err == ENXIO || err == EBADF;
    if (m_bNeedsRestart || (!bGone && m_nFailuresInRow < kMaxFailuresInRow))
        return;
    m_bNeedsRestart = true;
    g_print("qv_jt_renderer: video device '%s' cannot go on (%s), it must be reopened\n", m_strName.c_str(),
            bGone ? "node gone" : "buffer calls keep failing");
}

bool qv_v4l2_base_output_device::start_device()
{
    init_watchdog();
    m_bStreaming = start_renderer();
    return m_bStreaming;
}

void qv_v4l2_base_output_device::stop_device()
{
    m_bStreaming = false;
    stop_renderer();
    deinit_watchdog();
    m_seq_frame.exchange(0);
    m_bSeqRestarted = true;
}
