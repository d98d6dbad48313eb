#include "qv_mpln_output_device.h"

#include "qv_vbi_convert.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

qv_mpln_output_device::qv_mpln_output_device(qv_device_reporter& reporter)
    : qv_v4l2_base_output_device(reporter)
{
}

qv_mpln_output_device::~qv_mpln_output_device()
{
    close_device();
}

bool qv_mpln_output_device::init_device(int& fd, const std::string& name, qv_v4l2_enum_sdi_mode mode,
                                        v4l2_jutvane_timecode_type timecode_type, bool bUseWatchdog,
                                        uint32_t nHWBuffers, bool bFullColorRange, uint32_t nNumberOfAudioLines)
{
    if (m_hDevice != -1)
        close_device();
    if (!init(fd, name, bUseWatchdog, mode, timecode_type))
        return false;

    // SDI carries audio in groups of four channels; every line is a stereo pair.
    if (nNumberOfAudioLines <= 2)
        m_nSdiAudioChCnt = 4;
    else if (nNumberOfAudioLines <= 4)
        m_nSdiAudioChCnt = 8;
    else
        m_nSdiAudioChCnt = 16;
    // Fewer than three buffers cannot keep the board fed while one is being filled.
    m_nHWBuffers = std::max<uint32_t>(nHWBuffers, 3);
    m_bFullColorRange = bFullColorRange;
    m_nNumberOfAudioLines = nNumberOfAudioLines;
    m_audioFormat.init(0, 48000, 32, 2);

    if (!set_video_format(m_nSdiAudioChCnt / 4) || !mmap_buffers()) {
        close_device();
        return false;
    }
    return true;
}

bool qv_mpln_output_device::set_video_format(int groups)
{
    v4l2_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_AUDIO_GROUPS;
    ctrl.value = groups;
    if (xioctl(m_hDevice, VIDIOC_S_CTRL, &ctrl) == -1) {
        const int err = errno;
        g_print("qbjtrenderer: [mmap] Can't set %d audio groups, device = %s, err=%d/'%s'\n", groups,
                m_strName.c_str(), err, std::strerror(err));
        return false;
    }
    return set_v4l2_video_format(V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE);
}

namespace {

// Embedded audio samples carried by one frame of the timing, split over the
// two fields by their line counts.
struct audio_split {
    int frame = 0;
    int field[2] = {0, 0};
};

audio_split audio_samples(const v4l2_bt_timings& bt)
{
    audio_split s;
    const uint32_t total_width = bt.width + bt.hfrontporch + bt.hsync + bt.hbackporch;
    uint32_t first = 0;
    uint32_t total = 0;
    if (bt.interlaced) {
        first = bt.vsync + bt.vbackporch + bt.il_vfrontporch + bt.height / 2;
        total = first + bt.il_vsync + bt.il_vbackporch + bt.vfrontporch + (bt.height + 1) / 2;
    } else {
        first = total = bt.vsync + bt.vbackporch + bt.height + bt.vfrontporch;
    }
    if (bt.pixelclock == 0 || total == 0)
        return s;
    const int32_t pixels = static_cast<int32_t>(total_width * total);
    double x = static_cast<double>(static_cast<int64_t>(pixels) * 48000 / static_cast<int64_t>(bt.pixelclock));
    if (bt.flags & V4L2_DV_FL_REDUCED_FPS)
        x = x * 1001 / 1000;
    s.frame = static_cast<int>(std::lround(x));
    if (bt.interlaced) {
        s.field[0] = static_cast<int>(std::lround(first * x / total));
        s.field[1] = s.frame - s.field[0];
    } else {
        s.field[0] = s.field[1] = s.frame;
    }
    return s;
}

uint32_t read_u32(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

} // namespace

bool qv_mpln_output_device::mmap_buffers()
{
    if (m_hDevice < 0)
        return false;
    v4l2_format fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    if (xioctl(m_hDevice, VIDIOC_G_FMT, &fmt) == -1) {
        g_print("qbjtrenderer: [mmap] Can't get format, device = %s\n", m_strName.c_str());
        return false;
    }
    // Interlaced modes go out one field per buffer.
    if (fmt.fmt.pix_mp.field != V4L2_FIELD_NONE)
        fmt.fmt.pix_mp.field = V4L2_FIELD_ALTERNATE;
    fmt.fmt.pix_mp.quantization = m_bFullColorRange ? V4L2_QUANTIZATION_FULL_RANGE : V4L2_QUANTIZATION_LIM_RANGE;
    fmt.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_JUTVANE_QVC8;
    if (xioctl(m_hDevice, VIDIOC_S_FMT, &fmt) == -1) {
        g_print("qbjtrenderer: [mmap] Can't set format, device = %s\n", m_strName.c_str());
        return false;
    }
    m_videoFormat = qv_format_from_fourcc(fmt.fmt.pix_mp.pixelformat);

    v4l2_dv_timings timings{};
    if (xioctl(m_hDevice, VIDIOC_G_DV_TIMINGS, &timings) == -1) {
        g_print("qbjtrenderer: [mmap] Can't obtain timing info, device = %s\n", m_strName.c_str());
        return false;
    }
    const v4l2_bt_timings& bt = timings.bt;
    m_nWidth = static_cast<int>(bt.width);
    m_nHeight = static_cast<int>(bt.height);

    // The VBI/VANC lines are the vertical blanking after sync, up to the picture.
    int lines[2] = {static_cast<int>(bt.vsync + bt.vbackporch), 0};
    uint32_t count = m_nHWBuffers;
    if (bt.interlaced) {
        lines[1] = static_cast<int>(bt.il_vsync + bt.il_vbackporch);
        m_eFieldOrder = QVSDK::FieldOrder_Upper_First;
        count = 2 * m_nHWBuffers;
    } else {
        m_eFieldOrder = QVSDK::FieldOrder_Progressive;
    }
    for (int f = 0; f < 2; ++f)
        m_nVbiSize[f] = (m_nWidth * 20 * lines[f]) / 8; // two 10-bit samples a pixel

    // The render loop writes 16-bit samples; send_data packs them to 10 bits.
    m_VBIdata16bit.assign(static_cast<size_t>(m_nVbiSize[0] + m_nVbiSize[1]) * 16 / 10, 0);
    m_VBI = qv_vbi_data{};
    if (lines[0] <= 1024 && lines[1] <= 1024) {
        m_VBI.m_pData = reinterpret_cast<uint16_t*>(m_VBIdata16bit.data());
        m_VBI.m_nLines[0] = static_cast<size_t>(lines[0]);
        m_VBI.m_nLines[1] = static_cast<size_t>(lines[1]);
        m_VBI.m_nStride = static_cast<size_t>(m_nWidth) * 4;
        m_VBI.m_nSize = m_VBI.m_nStride * static_cast<size_t>(lines[0] + lines[1]);
        m_VBI.m_bValid = true;
    }
    BlackUYVY16(reinterpret_cast<uint16_t*>(m_VBIdata16bit.data()), m_VBIdata16bit.size());

    const audio_split samples = audio_samples(bt);
    size_t picture[2];
    if (bt.interlaced) {
        picture[0] = static_cast<size_t>(m_nHeight / 2) * m_nWidth * 2;
        picture[1] = static_cast<size_t>((m_nHeight + 1) / 2) * m_nWidth * 2;
    } else {
        picture[0] = picture[1] = static_cast<size_t>(m_nHeight) * m_nWidth * 2;
    }

    v4l2_requestbuffers req{};
    req.count = count;
    req.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(m_hDevice, VIDIOC_REQBUFS, &req) == -1) {
        g_print("qbjtrenderer: [mmap] Can't obtain buffers number, device = %s\n", m_strName.c_str());
        return false;
    }
    m_vBuffers.clear();
    m_vBuffers.reserve(req.count);
    for (uint32_t i = 0; i < req.count; ++i) {
        qv_mpln_buffers entry;
        entry.buff.index = i;
        entry.buff.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
        entry.buff.memory = V4L2_MEMORY_MMAP;
        entry.buff.length = qv_mpln_buffers::kPlanes;
        if (xioctl(m_hDevice, VIDIOC_QUERYBUF, &entry.buff) == -1) {
            g_print("qbjtrenderer: [mmap] Can't init buffer[%d<%d], device = %s\n", i, req.count, m_strName.c_str());
            return false;
        }
        const int field = bt.interlaced ? static_cast<int>(i % 2) : 0;
        // The board takes the field from the buffer: even indices carry field 1.
        entry.buff.field = bt.interlaced ? (field ? V4L2_FIELD_BOTTOM : V4L2_FIELD_TOP) : V4L2_FIELD_NONE;
        const unsigned nplanes = std::min<unsigned>(entry.buff.length, qv_mpln_buffers::kPlanes);
        for (unsigned p = 0; p < nplanes; ++p) {
            v4l2_plane& plane = entry.planes[p];
            // Touched now, so that the first frames do not pay a fault per 4 KiB in the render thread.
            void* m = plane.length != 0 ? qv_map_device_buffer(m_hDevice, plane.length, plane.m.mem_offset) : MAP_FAILED;
            if (m == MAP_FAILED) {
                // A plane that cannot be mapped is left out; the rest still work.
                g_print("qbjtrenderer: [mmap] Can't map field[%d] for bufer[%d<%d], device = %s\n", p, i, req.count,
                        m_strName.c_str());
                plane.bytesused = 0;
                plane.length = 0;
                continue;
            }
            entry.data[p] = static_cast<uint8_t*>(m);
            entry.mapped[p] = plane.length;
        }
        if (entry.data[0] != nullptr)
            entry.planes[0].bytesused = static_cast<uint32_t>(picture[field] + m_nVbiSize[field]);
        if (entry.data[1] != nullptr)
            entry.planes[1].bytesused = static_cast<uint32_t>(m_nSdiAudioChCnt * samples.field[field] * 4);
        m_vBuffers.push_back(std::move(entry));
    }
    m_nFieldBufIndex[0] = m_nFieldBufIndex[1] = -1;
    m_nNextFrame = 0;
    return true;
}

void qv_mpln_output_device::unmmap_buffers()
{
    m_vBuffers.clear();
}

void qv_mpln_output_device::close_device()
{
    if (m_hDevice != -1) {
        int type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
        if (xioctl(m_hDevice, VIDIOC_STREAMOFF, &type) == -1)
            g_print("qvjtrenderer: [mmap] Can't stream off, device = %s\n", m_strName.c_str());
    }
    unmmap_buffers();
    m_nFieldBufIndex[0] = m_nFieldBufIndex[1] = -1;
    releaseHandle();
}

void qv_mpln_output_device::read_status(const qv_mpln_buffers& b)
{
    if (b.buff.length <= 2 || b.planes[0].bytesused <= 43)
        return;
    const uint8_t* p = b.data[2];
    if (p == nullptr || b.mapped[2] < JUTVANE_STATUS_SIZE)
        return;
    if (std::memcmp(p + JUTVANE_STATUS_OFF_MAGIC, JUTVANE_STATUS_MAGIC, 4) != 0) {
        m_nLastFrameNumber = 0;
        m_nLastFrameHW = 0;
        m_nLastFrameSP = std::chrono::steady_clock::time_point{};
        return;
    }
    int32_t frame;
    uint64_t systime;
    std::memcpy(&frame, p + JUTVANE_STATUS_OFF_FRAME, sizeof(frame));
    std::memcpy(&systime, p + JUTVANE_STATUS_OFF_SYSTIME, sizeof(systime));
    m_nLastFrameNumber = static_cast<uint64_t>(static_cast<int64_t>(frame));
    m_nLastFrameHW = read_u32(p + JUTVANE_STATUS_OFF_HWCOUNTER);
    m_nLastFrameSP = std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::nanoseconds(systime)));
}

// One dequeue with its bookkeeping. index receives the buffer to hold. A
// buffer the driver flags as errored lost its slot on air (counted), but is
// held again like any other: every buffer must stay in circulation.
bool qv_mpln_output_device::dequeue(uint32_t field, int& index)
{
    const bool interlaced = is_interlaced();
    index = -1;
    if (wait_for_buffer(m_hDevice) <= 0)
        return false;
    v4l2_plane planes[qv_mpln_buffers::kPlanes]{};
    v4l2_buffer b{};
    b.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    b.memory = V4L2_MEMORY_MMAP;
    b.length = qv_mpln_buffers::kPlanes;
    b.m.planes = planes;
    b.field = field;
    if (xioctl(m_hDevice, VIDIOC_DQBUF, &b) == -1) {
        const int err = errno;
        if (interlaced)
            g_print("qv_jt_renderer: mp_video device VIDIOC_DQBUF error=%d, field=%d\n", err,
                    static_cast<int>(m_nNextFrame));
        else
            g_print("qv_jt_renderer: video device VIDIOC_DQBUF error\n");
        note_failure(err);
        return false;
    }
    if (b.index >= m_vBuffers.size()) {
        g_print("qv_jt_renderer: video device VIDIOC_DQBUF error\n");
        note_failure(EINVAL);
        return false;
    }
    note_success();
    qv_mpln_buffers& entry = m_vBuffers[b.index];
    entry.assign_from_driver(b, planes);
    index = static_cast<int>(b.index);

    if (b.flags & V4L2_BUF_FLAG_ERROR) {
        // No line end: the driver's own report of the failure follows on the console.
        if (interlaced)
            g_print("qv_jt_renderer: video device[%s] skip field buffer[%d], field=%d", m_strName.c_str(), b.index,
                    static_cast<int>(m_nNextFrame));
        else
            g_print("qv_jt_renderer: video device[%s] skip frame buffer[%d], frame=%d", m_strName.c_str(), b.index,
                    static_cast<int>(m_nNextFrame));
        ++m_nNextFrame;
        return true;
    }

    const uint64_t n = m_vBuffers.size();
    uint64_t expected;
    bool in_step;
    if (interlaced) {
        // The driver numbers frames from 1 and gives both fields of a frame its number.
        expected = n + (b.field == V4L2_FIELD_BOTTOM ? 1 : 0) + (b.sequence != 0 ? 2ull * b.sequence - 2 : 0);
        in_step = expected == m_nNextFrame || expected == m_nNextFrame + 1;
    } else {
        expected = n + b.sequence;
        in_step = expected == m_nNextFrame;
    }
    if (!in_step) {
        const int64_t diff = static_cast<int64_t>(expected - m_nNextFrame);
        if (interlaced)
            g_print("qv_jt_renderer: video device[%s] drop %d fields: %d -> %d\n", m_strName.c_str(),
                    static_cast<int>(diff), static_cast<int>(m_nNextFrame), static_cast<int>(expected));
        else
            g_print("qv_jt_renderer: video device[%s] drop %d frames: %d -> %d\n", m_strName.c_str(),
                    static_cast<int>(diff), static_cast<int>(m_nNextFrame), static_cast<int>(expected));
        m_nNextFrame += static_cast<uint64_t>(diff);
    }
    // This buffer is consumed either way: afterwards m_nNextFrame counts it too.
    ++m_nNextFrame;
    read_status(entry);
    return true;
}

void qv_mpln_output_device::hold_field_buffer(int index)
{
    // The place follows the field the driver returned; when that place is
    // already held (the driver answered with the other field than asked), the
    // buffer takes the free place: send_data tells the board its field anyway,
    // and a buffer dropped here would never come back.
    int place = m_vBuffers[index].buff.field == V4L2_FIELD_BOTTOM ? 1 : 0;
    if (m_nFieldBufIndex[place] >= 0)
        place ^= 1;
    m_nFieldBufIndex[place] = index;
}

bool qv_mpln_output_device::can_render(uint32_t& seq)
{
    m_bTimedOut = false;
    if (m_hDevice == -1 || m_vBuffers.empty())
        return false;
    const uint64_t n = m_vBuffers.size();
    if (!is_interlaced()) {
        while (m_nFieldBufIndex[0] < 0) {
            if (m_nNextFrame < n) {
                // Priming: never queued, so the driver has nothing to give back.
                m_nFieldBufIndex[0] = static_cast<int>(m_nNextFrame++);
                continue;
            }
            int index;
            if (!dequeue(V4L2_FIELD_ANY, index))
                return false;
            m_nFieldBufIndex[0] = index;
        }
        seq = static_cast<uint32_t>(m_nNextFrame - 1);
        m_seq_frame.store(seq);
        return true;
    }
    while (m_nFieldBufIndex[0] < 0 || m_nFieldBufIndex[1] < 0) {
        if (m_nNextFrame < n) {
            hold_field_buffer(static_cast<int>(m_nNextFrame++));
            continue;
        }
        uint32_t field = V4L2_FIELD_ANY;
        if (m_nFieldBufIndex[0] >= 0)
            field = V4L2_FIELD_BOTTOM;
        else if (m_nFieldBufIndex[1] >= 0)
            field = V4L2_FIELD_TOP;
        int index;
        if (!dequeue(field, index))
            return false;
        hold_field_buffer(index);
    }
    seq = static_cast<uint32_t>((m_nNextFrame - 2) / 2);
    m_seq_frame.store(seq);
    return true;
}

bool qv_mpln_output_device::send_data()
{
    if (is_interlaced()) {
        if (m_nFieldBufIndex[0] < 0 || m_nFieldBufIndex[1] < 0) {
            g_print("qv_jt_renderer: video device '%s' internal error #1\n", m_strName.c_str());
            return false;
        }
        for (int place = 0; place < 2; ++place) {
            const int i = m_nFieldBufIndex[place];
            qv_mpln_buffers& b = m_vBuffers[i];
            b.buff.m.planes = b.planes;
            // The board takes the field from the buffer; the place says which one it is.
            b.buff.field = place == 0 ? V4L2_FIELD_TOP : V4L2_FIELD_BOTTOM;
            if (xioctl(m_hDevice, VIDIOC_QBUF, &b.buff) == -1) {
                // The buffer stays held and goes out with the next frame.
                const int err = errno;
                note_failure(err);
                if (place == 0)
                    g_print("qv_jt_renderer: mp_video device '%s' VIDIOC_QBUF 1/2 error=%d  buf[%d]\n",
                            m_strName.c_str(), err, i);
                else
                    g_print("qv_jt_renderer: mp_video device '%s' VIDIOC_QBUF 2/2 error=%d  buf[%d]\n",
                            m_strName.c_str(), err, i);
                return false;
            }
            // Queued: the driver owns it now, even if the other field fails.
            m_nFieldBufIndex[place] = -1;
        }
        note_success();
        m_seq_frame.store(static_cast<uint32_t>(m_nNextFrame / 2));
    } else {
        if (m_nFieldBufIndex[0] < 0) {
            g_print("qv_jt_renderer: mp_video device '%s' internal error #2\n", m_strName.c_str());
            return false;
        }
        qv_mpln_buffers& b = m_vBuffers[m_nFieldBufIndex[0]];
        b.buff.m.planes = b.planes;
        if (xioctl(m_hDevice, VIDIOC_QBUF, &b.buff) == -1) {
            // The buffer stays held and goes out with the next frame.
            note_failure(errno);
            g_print("qv_jt_renderer: mp_video device VIDIOC_QBUF #3 error\n");
            return false;
        }
        note_success();
        m_seq_frame.store(static_cast<uint32_t>(m_nNextFrame));
        m_nFieldBufIndex[0] = -1;
    }
    update_statisitcs(m_seq_frame.load());
    // The whole ring's play-out time plus a margin.
    notify_watchdog(static_cast<int>(
        static_cast<unsigned>(static_cast<float>(m_nHWBuffers * 1000) / get_board_format().fps) + 50));
    return true;
}

bool qv_mpln_output_device::getHWtime(uint32_t& hw_time, std::chrono::steady_clock::time_point& tp)
{
    v4l2_jutvane_analog_rx_timestamp payload{};
    v4l2_ext_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP;
    ctrl.size = sizeof(payload);
    ctrl.ptr = &payload;
    v4l2_ext_controls ctrls{};
    ctrls.ctrl_class = V4L2_CTRL_CLASS_USER;
    ctrls.count = 1;
    ctrls.controls = &ctrl;
    if (xioctl(m_hDevice, VIDIOC_G_EXT_CTRLS, &ctrls) == -1) {
        g_print("qv_jt_renderer: mp_video device getHWtime #1 ERROR : ioctl(V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP) = "
                "%d\n",
                errno);
        return false;
    }
    if (payload.valid == 0) {
        g_print("qv_jt_renderer: mp_video device getHWtime #2 ERROR : v4l2_jutvane_analog_rx_timestamp.valid = %d\n",
                payload.valid);
        return false;
    }
    hw_time = payload.cur_hw_time;
    // The payload is packed: take the 64-bit field by value before using it.
    const int64_t sys_ns = static_cast<int64_t>(payload.cur_sys_time);
    tp = std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::nanoseconds(sys_ns)));
    return true;
}

bool qv_mpln_output_device::start_renderer()
{
    const auto start = std::chrono::steady_clock::now();
    if (m_hDevice > 0 && !qv_set_streaming(m_hDevice, V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, true, "", m_strName))
        return false;
    qv_print_start_time("v4l2 multi-plane start", start);
    return true;
}

bool qv_mpln_output_device::stop_renderer()
{
    const bool bOk =
        m_hDevice == -1 || qv_set_streaming(m_hDevice, V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, false, "", m_strName);
    // Also after a failed stop: the node is about to be closed and the next
    // start primes again.
    m_nFieldBufIndex[0] = m_nFieldBufIndex[1] = -1;
    m_nNextFrame = 0;
    return bOk;
}
