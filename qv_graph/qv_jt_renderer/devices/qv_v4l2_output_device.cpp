#include "qv_v4l2_output_device.h"

#include "qv_vbi_convert.h"

#include <glib.h>

#include <chrono>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <unistd.h>

qv_v4l2_output_device::qv_v4l2_output_device(qv_device_reporter& reporter)
    : qv_v4l2_base_output_device(reporter)
{
}

qv_v4l2_output_device::~qv_v4l2_output_device()
{
    close_device();
}

bool qv_v4l2_output_device::init_device(int& fd, const std::string& name, qv_v4l2_enum_sdi_mode mode,
                                        v4l2_jutvane_timecode_type timecode_type, bool bUseWatchdog,
                                        uint32_t nBuffers)
{
    if (m_hDevice != -1 || m_hVbi != -1)
        close_device();

    // The board's driver names the companion node like the video node, with
    // "vbi" in place of "video" (/dev/video0 -> /dev/vbi0).
    const std::string vbi_name = std::regex_replace(name, std::regex("video"), "vbi");
    // No VBI node is not an error: -1 just means the frames go out without one.
    const int vbi = open(vbi_name.c_str(), O_RDWR | O_CLOEXEC);

    if (!init(fd, name, bUseWatchdog, mode, timecode_type)) {
        if (vbi > 0)
            close(vbi);
        return false;
    }
    m_nBuffers = nBuffers;
    m_hVbi = vbi;
    m_strVbiName = vbi_name;
    if (!init_device()) {
        close_device();
        return false;
    }
    return true;
}

bool qv_v4l2_output_device::init_device()
{
    if (m_hDevice == -1)
        return false;
    return set_video_format() && mmap_buffers();
}

bool qv_v4l2_output_device::set_video_format()
{
    return set_v4l2_video_format(V4L2_BUF_TYPE_VIDEO_OUTPUT);
}

bool qv_v4l2_output_device::mmap_buffers()
{
    if (m_hDevice < 0)
        return false;
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if (xioctl(m_hDevice, VIDIOC_G_FMT, &fmt) == -1) {
        g_print("qbjtrenderer: [mmap] Can't get format, device = %s\n", m_strName.c_str());
        return false;
    }
    fmt.fmt.pix.pixelformat = V4L2_PIX_FMT_UYVY;
    if (xioctl(m_hDevice, VIDIOC_S_FMT, &fmt) == -1) {
        g_print("qbjtrenderer: [mmap] Can't set format, device = %s\n", m_strName.c_str());
        return false;
    }
    m_fmtVideo = fmt.fmt.pix;
    m_videoFormat = qv_format_from_fourcc(m_fmtVideo.pixelformat);

    if (m_hVbi > 0) {
        // The VBI geometry is the driver's: read, never set.
        v4l2_format vfmt{};
        vfmt.type = V4L2_BUF_TYPE_VBI_OUTPUT;
        if (xioctl(m_hVbi, VIDIOC_G_FMT, &vfmt) == -1) {
            g_print("qbjtrenderer: [mmap] Can't get format, device = %s\n", m_strVbiName.c_str());
            return false;
        }
        m_fmtVbi = vfmt.fmt.vbi;
    }

    m_vVideoBuf.reserve(m_nBuffers);
    m_vVbiBuf.reserve(m_nBuffers);
    if (m_hVbi > 0 && !::mmap_buffers(m_hVbi, V4L2_BUF_TYPE_VBI_OUTPUT, m_nBuffers, m_vVbiBuf)) {
        g_print("qbjtrenderer: [mmap] Can't mmap buffer, device = %s\n", m_strVbiName.c_str());
        return false;
    }
    if (!::mmap_buffers(m_hDevice, V4L2_BUF_TYPE_VIDEO_OUTPUT, m_nBuffers, m_vVideoBuf)) {
        g_print("qbjtrenderer: [mmap] Can't mmap buffer, device = %s\n", m_strName.c_str());
        return false;
    }
    return true;
}

void qv_v4l2_output_device::unmmap_buffers()
{
    m_vVideoBuf.clear();
    m_vVbiBuf.clear();
}

void qv_v4l2_output_device::deinit_device()
{
    stop_renderer();
    unmmap_buffers();
}

void qv_v4l2_output_device::close_device()
{
    deinit_device();
    if (m_hVbi > 0)
        close(m_hVbi);
    m_hVbi = -1;
    releaseHandle();
}

bool qv_v4l2_output_device::map_image(uint32_t& seq, QVSDK::QVImage& image)
{
    if (m_hDevice == -1) {
        g_print("qv_jt_renderer: video device has not been opened\n");
        return false;
    }
    const int width = static_cast<int>(m_fmtVideo.width);
    const int height = static_cast<int>(m_fmtVideo.height);
    const QVSDK::QVFieldOrder order = qv_field_order_from_v4l2(m_fmtVideo.field);
    const QVSDK::QVEnumFormats format = qv_format_from_fourcc(m_fmtVideo.pixelformat);

    m_bTimedOut = false;
    if (m_bKeepVideo) {
        // The driver refused this buffer last frame: it is still ours, fill it again.
        m_bKeepVideo = false;
        m_seq_frame.fetch_add(1);
    } else if (m_curr_buff_index < m_vVideoBuf.size()) {
        // Priming: this buffer has never been queued, so the driver has nothing to return.
        m_cur_buffer = m_vVideoBuf[m_curr_buff_index].buff;
        m_seq_frame.fetch_add(1);
    } else {
        if (wait_for_buffer(m_hDevice) <= 0)
            return false;
        std::memset(&m_cur_buffer, 0, sizeof(m_cur_buffer));
        m_cur_buffer.memory = V4L2_MEMORY_MMAP;
        m_cur_buffer.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        if (xioctl(m_hDevice, VIDIOC_DQBUF, &m_cur_buffer) == -1) {
            note_failure(errno);
            g_print("qv_jt_renderer: video device VIDIOC_DQBUF error\n");
            return false;
        }
        note_success();
        m_seq_frame.store(static_cast<uint32_t>(m_vVideoBuf.size()) + m_cur_buffer.sequence);
    }
    m_cur_buffer.flags &= ~V4L2_BUF_FLAG_TIMECODE;
    seq = m_seq_frame.load();
    update_statisitcs(seq);

    image.Release();
    if (m_cur_buffer.index < m_vVideoBuf.size()) {
        qv_v4l2_buffers& b = m_vVideoBuf[m_cur_buffer.index];
        if (b.pData != nullptr)
            image.InitImage(static_cast<unsigned char*>(b.pData), width, height,
                            static_cast<int>(m_fmtVideo.bytesperline), order, format);
    }
    return true;
}

bool qv_v4l2_output_device::unmap_image()
{
    if (xioctl(m_hDevice, VIDIOC_QBUF, &m_cur_buffer) == -1) {
        // Not queued, so the driver will never return it: keep it for the next
        // frame instead of losing it from the ring.
        note_failure(errno);
        m_bKeepVideo = true;
        g_print("qv_jt_renderer: video device VIDIOC_QBUF error\n");
        return false;
    }
    note_success();
    ++m_curr_buff_index;
    // The whole ring's play-out time plus a margin: the board blanks only when
    // every queued frame has gone out and no new one came.
    const float timeout = static_cast<float>(m_nBuffers) * 1000.0f / get_board_format().fps + 50.0f;
    notify_watchdog(static_cast<int>(timeout));
    return true;
}

bool qv_v4l2_output_device::map_vbi(void** ppData, size_t& nSize)
{
    if (m_hVbi == -1) {
        g_print("qv_jt_renderer: vbi device has not been opened\n");
        return false;
    }
    // The VBI ring primes on its own count: a frame whose picture or VBI
    // buffer the driver refused keeps that buffer without upsetting the other.
    if (m_bKeepVbi) {
        m_bKeepVbi = false;
    } else if (m_nVbiQueued < m_vVbiBuf.size()) {
        m_vbi_cur_buffer = m_vVbiBuf[m_nVbiQueued].buff;
    } else {
        if (wait_for_buffer(m_hVbi) <= 0)
            return false;
        std::memset(&m_vbi_cur_buffer, 0, sizeof(m_vbi_cur_buffer));
        m_vbi_cur_buffer.memory = V4L2_MEMORY_MMAP;
        m_vbi_cur_buffer.type = V4L2_BUF_TYPE_VBI_OUTPUT;
        if (xioctl(m_hVbi, VIDIOC_DQBUF, &m_vbi_cur_buffer) == -1) {
            note_failure(errno);
            g_print("qv_jt_renderer: vbi device VIDIOC_DQBUF error\n");
            return false;
        }
        note_success();
    }
    m_bVbiHeld = true;
    if (m_vbi_cur_buffer.index < m_vVbiBuf.size()) {
        *ppData = m_vVbiBuf[m_vbi_cur_buffer.index].pData;
        nSize = m_vVbiBuf[m_vbi_cur_buffer.index].nSize;
    } else {
        *ppData = nullptr;
        nSize = 0;
    }
    return true;
}

bool qv_v4l2_output_device::map_vbi(qv_vbi_data& vbi)
{
    void* p = nullptr;
    size_t n = 0;
    if (!map_vbi(&p, n))
        return false;
    if (m_fmtVbi.count[0] > 1024 || m_fmtVbi.count[1] > 1024) {
        g_print("qv_jt_renderer: vbi lines too much\n");
        return false;
    }
    // The buffer went out before with other lines in it: blank it whole, so
    // that every packet goes out in one frame only.
    if (p != nullptr)
        BlackUYVY16(static_cast<uint16_t*>(p), n);
    vbi.m_nStride = static_cast<size_t>(m_fmtVbi.samples_per_line) * 2;
    vbi.m_nLines[0] = m_fmtVbi.count[0];
    vbi.m_nLines[1] = m_fmtVbi.count[1];
    vbi.m_pData = static_cast<uint16_t*>(p);
    vbi.m_nSize = n;
    // An unmapped buffer cannot be written; the frame then goes out without lines.
    vbi.m_bValid = p != nullptr;
    std::memset(vbi.m_bUsed, 0, sizeof(vbi.m_bUsed));
    return true;
}

bool qv_v4l2_output_device::unmap_vbi()
{
    if (!m_bVbiHeld)
        return false;
    if (xioctl(m_hVbi, VIDIOC_QBUF, &m_vbi_cur_buffer) == -1) {
        const int err = errno;
        note_failure(err);
        m_bKeepVbi = true;
        g_print("qv_jt_renderer: vbi device VIDIOC_QBUF error '%s'\n", std::strerror(err));
        return false;
    }
    note_success();
    m_bVbiHeld = false;
    ++m_nVbiQueued;
    return true;
}

void qv_v4l2_output_device::set_timecode(const qv_timecode& tc)
{
    if (!tc.bValid) {
        m_cur_buffer.flags &= ~V4L2_BUF_FLAG_TIMECODE;
        return;
    }
    m_cur_buffer.flags |= V4L2_BUF_FLAG_TIMECODE;
    m_cur_buffer.timecode = tc.timecode;
    m_cur_buffer.timecode.type = m_timecodeType;
}

bool qv_v4l2_output_device::start_renderer()
{
    const auto start = std::chrono::steady_clock::now();
    if (m_hDevice > 0) {
        // Streaming starts with nothing queued; the first unmap_image queues the first frame.
        if (m_hVbi > 0 && !qv_set_streaming(m_hVbi, V4L2_BUF_TYPE_VBI_OUTPUT, true, "[mmap] ", m_strVbiName))
            return false;
        if (!qv_set_streaming(m_hDevice, V4L2_BUF_TYPE_VIDEO_OUTPUT, true, "[mmap] ", m_strName))
            return false;
    }
    qv_print_start_time("v4l2 start", start);
    return true;
}

bool qv_v4l2_output_device::stop_renderer()
{
    bool bOk = m_hDevice == -1 || qv_set_streaming(m_hDevice, V4L2_BUF_TYPE_VIDEO_OUTPUT, false, "[mmap] ", m_strName);
    if (bOk && m_hVbi > 0)
        bOk = qv_set_streaming(m_hVbi, V4L2_BUF_TYPE_VBI_OUTPUT, false, "[mmap] ", m_strVbiName);
    // Streaming off hands every buffer back, and a node that failed to stop is
    // about to be closed: either way the next start primes again.
    m_bKeepVideo = false;
    m_curr_buff_index = 0;
    m_nVbiQueued = 0;
    m_bKeepVbi = false;
    m_bVbiHeld = false;
    return bOk;
}
