// Drives the two V4L2 output devices against the board simulator the way the
// render loop does, so that the tests can read back what went out on SDI.
#pragma once

#include "qv_mpln_output_device.h"
#include "qv_renderer_statistics.h"
#include "qv_v4l2_output_device.h"

#include "qvboardsim.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace devtest {

// A fresh board per test; paths are unique so that no descriptor from an
// earlier test can reach it.
struct sim_board {
    std::string path;
    std::string vbi_path;
    qvboardsim::NodeKind kind;

    // capture_file: what went out is also written there (its header names the timing).
    sim_board(qvboardsim::NodeKind k, int initial_mode, bool with_vbi = true, const std::string& capture_file = {})
        : kind(k)
    {
        static std::atomic<int> counter{0};
        const int n = counter++;
        path = "/dev/qvtest-video" + std::to_string(n);
        qvboardsim::BoardConfig cfg;
        cfg.kind = k;
        cfg.video_path = path;
        if (k == qvboardsim::NodeKind::single_plane) {
            // Without a VBI node the derived path must lead nowhere.
            vbi_path = with_vbi ? "/dev/qvtest-vbi" + std::to_string(n) : "/dev/qvtest-novbi" + std::to_string(n);
            cfg.vbi_path = vbi_path;
        }
        cfg.mode = initial_mode;
        cfg.pacing = qvboardsim::Pacing::stepped;
        cfg.capture.memory = true;
        cfg.capture.memory_limit = 64;
        cfg.capture.file = capture_file;
        qvboardsim::Simulator::instance().configure({cfg});
    }
    ~sim_board() { qvboardsim::Simulator::instance().configure({}); }

    qvboardsim::Simulator& sim() const { return qvboardsim::Simulator::instance(); }
    std::vector<qvboardsim::CapturedFrame> captured() const { return sim().captured(path); }
};

// Picture byte of frame f at (x, y) of an 8-bit UYVY raster; differs per frame and line.
inline uint8_t picture_byte(uint64_t f, int x, int y)
{
    return static_cast<uint8_t>(f * 37 + static_cast<unsigned>(x) * 3 + static_cast<unsigned>(y) * 11);
}

// 10-bit VBI sample of frame f, row r (over both fields), sample s.
inline uint16_t vbi_sample(uint64_t f, size_t r, size_t s)
{
    return static_cast<uint16_t>((f * 101 + r * 7 + s * 5) & 0x3FF);
}

inline void fill_picture(QVSDK::QVImage& img, uint64_t f)
{
    for (int y = 0; y < img.height(); ++y) {
        uint8_t* row = img.data(0) + static_cast<size_t>(y) * img.stride(0);
        for (int x = 0; x < img.width() * 2; ++x)
            row[x] = picture_byte(f, x, y);
    }
}

inline bool picture_matches(const std::vector<uint8_t>& pic, int width, int lines, uint64_t f, int first_line,
                            int line_step)
{
    if (pic.size() != static_cast<size_t>(width) * 2 * lines)
        return false;
    for (int l = 0; l < lines; ++l)
        for (int x = 0; x < width * 2; ++x)
            if (pic[static_cast<size_t>(l) * width * 2 + x] != picture_byte(f, x, first_line + l * line_step))
                return false;
    return true;
}

// Writes every VBI row of the area with the frame's pattern and marks it used.
inline void fill_vbi(qv_vbi_data& vbi, uint64_t f)
{
    const size_t samples = vbi.m_nStride / 2;
    for (size_t field = 0, row = 0; field < 2; ++field)
        for (size_t l = 0; l < vbi.m_nLines[field]; ++l, ++row) {
            uint16_t* p = vbi.m_pData + row * samples;
            for (size_t s = 0; s < samples; ++s)
                p[s] = vbi_sample(f, row, s);
            vbi.m_bUsed[field][l] = true;
        }
}

inline v4l2_timecode timecode_of(uint64_t f)
{
    v4l2_timecode tc{};
    tc.type = 0;
    tc.flags = (f % 3 == 0) ? V4L2_TC_FLAG_DROPFRAME : 0;
    tc.frames = static_cast<uint8_t>(f % 25);
    tc.seconds = static_cast<uint8_t>(f / 25 % 60);
    tc.minutes = 12;
    tc.hours = 10;
    return tc;
}

inline qv_timecode timecode_of(uint64_t f, bool valid)
{
    qv_timecode tc;
    tc.bValid = valid;
    tc.timecode = timecode_of(f);
    return tc;
}

// One of the two board devices, driven through the calls the render loop makes:
// acquire is map_image / can_render, release is unmap_image / send_data.
class device_adapter {
public:
    virtual ~device_adapter() = default;
    virtual bool init(int& fd, const std::string& path, qv_v4l2_enum_sdi_mode mode, bool watchdog,
                      uint32_t buffers) = 0;
    virtual bool acquire(uint32_t& seq) = 0;
    // Picture, VBI and time code of frame f into the acquired buffer(s).
    virtual void fill(uint64_t f, bool with_timecode) = 0;
    virtual bool release() = 0;
    virtual qv_v4l2_base_output_device& base() = 0;
    // Frames the ring holds before the first dequeue, and clock slots one frame takes.
    virtual unsigned ring_frames() const = 0;
    virtual unsigned slots_per_frame() const { return 1; }
};

class single_plane_adapter : public device_adapter {
public:
    explicit single_plane_adapter(qv_renderer_statistics& s) : dev(s) {}
    bool init(int& fd, const std::string& path, qv_v4l2_enum_sdi_mode mode, bool watchdog, uint32_t buffers) override
    {
        m_nBuffers = buffers;
        return dev.init_device(fd, path, mode, V4L2_JUTVANE_TIMECODE_VITC, watchdog, buffers);
    }
    bool acquire(uint32_t& seq) override { return dev.map_image(seq, image); }
    void fill(uint64_t f, bool with_timecode) override
    {
        fill_picture(image, f);
        qv_vbi_data vbi;
        if (dev.is_vbi_open() && dev.map_vbi(vbi)) {
            fill_vbi(vbi, f);
            dev.unmap_vbi();
        }
        dev.set_timecode(timecode_of(f, with_timecode));
    }
    bool release() override { return dev.unmap_image(); }
    qv_v4l2_base_output_device& base() override { return dev; }
    unsigned ring_frames() const override { return m_nBuffers; }

    qv_v4l2_output_device dev;
    QVSDK::QVImage image;
    uint32_t m_nBuffers = 0;
};

class multi_plane_adapter : public device_adapter {
public:
    explicit multi_plane_adapter(qv_renderer_statistics& s, uint32_t audio_lines = 2) : dev(s), lines(audio_lines) {}
    bool init(int& fd, const std::string& path, qv_v4l2_enum_sdi_mode mode, bool watchdog, uint32_t buffers) override
    {
        if (!dev.init_device(fd, path, mode, V4L2_JUTVANE_TIMECODE_VITC, watchdog, buffers, false, lines))
            return false;
        const qv_v4l2_video_format& row = dev.get_board_format();
        source.InitImage(row.width, row.height,
                         row.isProgressive ? QVSDK::FieldOrder_Progressive : QVSDK::FieldOrder_Upper_First,
                         QVSDK::FORMAT_UYVY);
        return true;
    }
    bool acquire(uint32_t& seq) override { return dev.can_render(seq); }
    void fill(uint64_t f, bool with_timecode) override
    {
        fill_picture(source, f);
        EXPECT_TRUE(dev.push_image(source));
        qv_vbi_data vbi;
        if (dev.init_vbi(vbi)) {
            fill_vbi(vbi, f);
            EXPECT_TRUE(dev.finish_vbi(vbi));
        }
        dev.set_timecode(timecode_of(f, with_timecode));
    }
    bool release() override { return dev.send_data(); }
    qv_v4l2_base_output_device& base() override { return dev; }
    unsigned ring_frames() const override { return dev.get_buffer_count() / slots_per_frame(); }
    unsigned slots_per_frame() const override
    {
        return dev.get_field_order() == QVSDK::FieldOrder_Progressive ? 1 : 2;
    }

    qv_mpln_output_device dev;
    uint32_t lines;
    QVSDK::QVImage source;
};

inline std::unique_ptr<device_adapter> make_adapter(qvboardsim::NodeKind kind, qv_renderer_statistics& s)
{
    if (kind == qvboardsim::NodeKind::single_plane)
        return std::make_unique<single_plane_adapter>(s);
    return std::make_unique<multi_plane_adapter>(s);
}

// Opens and initialises the board's node; false (with a test failure) if that does not work.
inline bool open_adapter(device_adapter& a, const sim_board& board, qv_v4l2_enum_sdi_mode mode, bool watchdog,
                         uint32_t buffers)
{
    int fd = -1;
    const auto type = qv_v4l2_base_output_device::CheckDevice(fd, board.path);
    EXPECT_NE(type, qv_v4l2_base_output_device::eDTNone);
    if (!a.init(fd, board.path, mode, watchdog, buffers)) {
        ADD_FAILURE() << "init_device failed on " << board.path;
        return false;
    }
    EXPECT_EQ(fd, -1);
    return true;
}

// Plays frames [first, first + count) as the render loop does: the board is
// stepped only when the ring is full, so every dequeue finds a sent buffer.
// Returns the device sequence numbers.
inline std::vector<uint32_t> play(device_adapter& a, const sim_board& board, uint64_t first, unsigned count,
                                  bool started, bool with_timecode = true)
{
    std::vector<uint32_t> seqs;
    for (uint64_t f = first; f < first + count; ++f) {
        if (f >= a.ring_frames())
            board.sim().step(board.path, a.slots_per_frame());
        uint32_t seq = 0;
        if (!a.acquire(seq)) {
            ADD_FAILURE() << "no buffer for frame " << f;
            return seqs;
        }
        seqs.push_back(seq);
        a.fill(f, with_timecode);
        EXPECT_TRUE(a.release()) << "frame " << f;
        if (!started) {
            EXPECT_TRUE(a.base().start_device());
            started = true;
        }
    }
    return seqs;
}

// Lets every queued frame go out.
inline void flush(device_adapter& a, const sim_board& board)
{
    board.sim().step(board.path, a.ring_frames() * a.slots_per_frame());
}

} // namespace devtest
