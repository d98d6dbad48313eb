// Behaviour common to both board devices, read back from what the simulated
// board sent out: sequence numbers, pictures, VBI lines, time codes, genlock
// and mode selection.
#include "device_harness.h"
#include "capture_format.h"
#include "../common/print_capture.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using namespace devtest;
using qvboardsim::NodeKind;

namespace {

const char* kind_name(NodeKind k)
{
    return k == NodeKind::single_plane ? "SinglePlane" : "MultiPlane";
}

struct flow_case {
    NodeKind kind;
    qv_v4l2_enum_sdi_mode mode;
    uint32_t tc_type; // V4L2_TC_TYPE_* the mode stamps on buffers
};

std::string flow_name(const ::testing::TestParamInfo<flow_case>& info)
{
    static const char* modes[] = {"576i25", "576i30", "1080i25", "1080i30", "1080p50", "1080p60", "720p50",
                                  "720p5994", "720p60", "1080p2398", "1080p24", "1080p25", "1080p2997",
                                  "1080p5994"};
    return std::string(kind_name(info.param.kind)) + "_" + modes[info.param.mode];
}

class DeviceFlow : public ::testing::TestWithParam<flow_case> {};

// Frames go out in order with their pictures, VBI lines, time codes and
// sequence numbers; a frame without a time code goes out without the flag.
TEST_P(DeviceFlow, EveryFrameGoesOutAsWritten)
{
    const flow_case& c = GetParam();
    sim_board board(c.kind, c.mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.mode, false, 3));
    const qv_v4l2_video_format& row = dev->base().get_board_format();
    const unsigned frames = dev->ring_frames() + 3;

    std::vector<uint32_t> seqs;
    for (uint64_t f = 0; f < frames; ++f) {
        auto s = play(*dev, board, f, 1, f > 0, f % 3 != 2);
        ASSERT_EQ(s.size(), 1u);
        seqs.push_back(s[0]);
    }
    flush(*dev, board);

    const bool sp = c.kind == NodeKind::single_plane;
    const bool fields = dev->slots_per_frame() == 2;
    for (uint32_t f = 0; f < frames; ++f)
        EXPECT_EQ(seqs[f], sp ? f + 1 : f) << "frame " << f;
    EXPECT_EQ(stats.m_nDeviceDroppedFrame, 0u);
    // Both devices report the frames handed to the driver; the device time is in nanoseconds.
    EXPECT_EQ(stats.nSeqFromDevice, frames);
    const double device_ns = frames * 1e9 / row.fps;
    EXPECT_NEAR(static_cast<double>(stats.m_nDeviceTime), device_ns, device_ns * 1e-6);

    const auto out = board.captured();
    ASSERT_EQ(out.size(), frames * (fields ? 2u : 1u));
    for (size_t i = 0; i < out.size(); ++i) {
        const qvboardsim::CapturedFrame& o = out[i];
        const uint64_t f = fields ? i / 2 : i;
        const int field = fields ? static_cast<int>(i % 2) : 0;
        SCOPED_TRACE("record " + std::to_string(i));
        EXPECT_EQ(o.sequence, (sp || fields) ? f + 1 : f);
        EXPECT_EQ(static_cast<int>(o.pic_width), row.width);
        EXPECT_TRUE(picture_matches(o.picture, row.width, static_cast<int>(o.pic_lines), f, field, fields ? 2 : 1));

        const bool tc = f % 3 != 2;
        EXPECT_EQ((o.flags & V4L2_BUF_FLAG_TIMECODE) != 0, tc);
        if (tc) {
            const v4l2_timecode want = timecode_of(f);
            EXPECT_EQ(o.tc_type, c.tc_type);
            EXPECT_EQ(o.tc_flags, want.flags);
            EXPECT_EQ(o.tc_frames, want.frames);
            EXPECT_EQ(o.tc_seconds, want.seconds);
            EXPECT_EQ(o.tc_hours, want.hours);
        }

        // The VBI rows of this record, numbered over both fields of the frame.
        ASSERT_EQ(o.vbi.size(), static_cast<size_t>(o.vbi_lines) * o.vbi_samples);
        ASSERT_GT(o.vbi_lines, 0u);
        const size_t first_row = (fields && field == 1) ? out[i - 1].vbi_lines : 0;
        size_t wrong = 0;
        for (size_t r = 0; r < o.vbi_lines; ++r)
            for (size_t s = 0; s < o.vbi_samples; ++s)
                wrong += o.vbi[r * o.vbi_samples + s] != vbi_sample(f, first_row + r, s);
        EXPECT_EQ(wrong, 0u);
    }
    dev->base().stop_device();
}

INSTANTIATE_TEST_SUITE_P(
    Modes, DeviceFlow,
    ::testing::Values(flow_case{NodeKind::single_plane, qv_1920x1080_25p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_1920x1080_5994p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_720x576_25i, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_1920x1080_30i, V4L2_TC_TYPE_30FPS},
                      flow_case{NodeKind::multi_plane, qv_1280x720_50p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_50p, V4L2_TC_TYPE_50FPS},
                      flow_case{NodeKind::multi_plane, qv_720x576_25i, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_30i, V4L2_TC_TYPE_30FPS}),
    flow_name);

class DeviceKind : public ::testing::TestWithParam<NodeKind> {};

TEST_P(DeviceKind, ReportsGenlockChangesOnce)
{
    sim_board board(GetParam(), qv_1920x1080_25p);
    qv_renderer_statistics stats;
    auto dev = make_adapter(GetParam(), stats);
    ASSERT_TRUE(open_adapter(*dev, board, qv_1920x1080_25p, false, 3));
    print_capture out;
    board.sim().set_genlock(board.path, V4L_JUTVANE_GENLOCK_LOCKED, V4L_JUTVANE_GENLOCK_SRC_IN2);
    play(*dev, board, 0, dev->ring_frames() + 2, false);
    EXPECT_EQ(out.count("qvjtrenderer: genlock lock state changed 0 => 3\n"), 1u);
    EXPECT_EQ(out.count("qvjtrenderer: genlock lock source changed 0 => 4\n"), 1u);
    EXPECT_EQ(stats.m_nGenlockState, V4L_JUTVANE_GENLOCK_LOCKED);
    EXPECT_EQ(stats.m_nGenlockSource, V4L_JUTVANE_GENLOCK_SRC_IN2);
    EXPECT_EQ(dev->base().get_genlock_state(), V4L_JUTVANE_GENLOCK_LOCKED);
    dev->base().stop_device();
}

// A node that stops answering before init: the caller keeps its descriptor.
TEST_P(DeviceKind, FailedVancEnableLeavesTheDescriptorWithTheCaller)
{
    sim_board board(GetParam(), qv_1920x1080_25p);
    qv_renderer_statistics stats;
    auto dev = make_adapter(GetParam(), stats);
    int fd = -1;
    ASSERT_NE(qv_v4l2_base_output_device::CheckDevice(fd, board.path), qv_v4l2_base_output_device::eDTNone);
    board.sim().disconnect(board.path);
    print_capture out;
    const int given = fd;
    EXPECT_FALSE(dev->init(fd, board.path, qv_1920x1080_25p, false, 3));
    EXPECT_EQ(fd, given);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(out.contains("qbjtrenderer: Can't enable vanc, device=" + board.path + "\n"));
    EXPECT_FALSE(dev->base().is_open());
    close(fd);
}

std::string node_name(const ::testing::TestParamInfo<NodeKind>& info)
{
    return kind_name(info.param);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DeviceKind, ::testing::Values(NodeKind::single_plane, NodeKind::multi_plane),
                         node_name);

struct mode_case {
    NodeKind kind;
    qv_v4l2_enum_sdi_mode mode;
};

class ModeSelection : public ::testing::TestWithParam<mode_case> {};

// Every mode the board has a timing for is opened in that timing, whatever the
// board ran before (the 1/1.001 rates included, whose computed rate is never
// the table's decimal exactly); the simulator's capture header, with its own
// rational rate, shows it. A mode with no timing leaves the board as it was,
// and the device says why.
TEST_P(ModeSelection, OpensTheModesTimingOrKeepsTheBoardsAndSaysWhy)
{
    const mode_case& c = GetParam();
    const int before = c.mode == qv_1920x1080_25i ? qv_1280x720_50p : qv_1920x1080_25i;
    const std::string file = ::testing::TempDir() + "qv-mode-" + std::to_string(c.mode) + "-" +
                             kind_name(c.kind) + ".qvcap";
    std::string report;
    {
        sim_board board(c.kind, before, true, file);
        qv_renderer_statistics stats;
        auto dev = make_adapter(c.kind, stats);
        ASSERT_TRUE(open_adapter(*dev, board, c.mode, false, 3));
        report = dev->base().timing_report();
        play(*dev, board, 0, 1, false);
        flush(*dev, board);
        dev->base().stop_device();
    }
    qvboardsim::CaptureReader reader;
    ASSERT_TRUE(reader.open(file)) << reader.error();
    const qvboardsim::CaptureHeader& h = reader.header();
    std::remove(file.c_str());
    const bool fits = c.mode != qv_720x576_30i; // no SDI timing has 576 lines at 30 frames a second
    const qv_v4l2_video_format& want = qv_board_format(fits ? c.mode : static_cast<qv_v4l2_enum_sdi_mode>(before));
    EXPECT_EQ(static_cast<int>(h.width), want.width);
    EXPECT_EQ(static_cast<int>(h.height), want.height);
    EXPECT_EQ(h.interlaced, !want.isProgressive);
    EXPECT_NEAR(double(h.rate_num) / h.rate_den, want.fps, want.fps * 0.001) << h.rate_num << "/" << h.rate_den;
    if (fits) {
        EXPECT_EQ(report, "");
    } else {
        EXPECT_NE(report.find("mode 1 (720x576i30) has no timing"), std::string::npos) << report;
        EXPECT_NE(report.find("it keeps 1920x1080i25"), std::string::npos) << report;
        EXPECT_NE(report.find("offers 720x576i25"), std::string::npos) << report;
    }
}

std::vector<mode_case> every_mode()
{
    std::vector<mode_case> v;
    for (NodeKind kind : {NodeKind::single_plane, NodeKind::multi_plane})
        for (size_t m = 0; m < qv_board_formats_count; ++m)
            v.push_back({kind, static_cast<qv_v4l2_enum_sdi_mode>(m)});
    return v;
}

INSTANTIATE_TEST_SUITE_P(Table, ModeSelection, ::testing::ValuesIn(every_mode()),
                         [](const ::testing::TestParamInfo<mode_case>& i) {
                             return std::string(kind_name(i.param.kind)) + "Mode" + std::to_string(i.param.mode);
                         });

} // namespace
