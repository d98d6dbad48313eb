// Behaviour common to both board devices, read back from what the simulated
// board sent out: priming, sequence numbers, pictures, VBI lines, time codes,
// dropped frames, the watchdog, genlock and mode selection.
#include "device_harness.h"
#include "print_capture.h"

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
                      flow_case{NodeKind::single_plane, qv_1920x1080_2997p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_1920x1080_5994p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_720x576_25i, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::single_plane, qv_1920x1080_30i, V4L2_TC_TYPE_30FPS},
                      flow_case{NodeKind::multi_plane, qv_1280x720_50p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_2997p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1280x720_5994p, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_50p, V4L2_TC_TYPE_50FPS},
                      flow_case{NodeKind::multi_plane, qv_720x576_25i, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_25i, V4L2_TC_TYPE_25FPS},
                      flow_case{NodeKind::multi_plane, qv_1920x1080_30i, V4L2_TC_TYPE_30FPS}),
    flow_name);

struct kind_mode {
    NodeKind kind;
    qv_v4l2_enum_sdi_mode mode;
};

std::string kind_mode_name(const ::testing::TestParamInfo<kind_mode>& info)
{
    return std::string(kind_name(info.param.kind)) + "_" + std::to_string(info.param.mode);
}

class DeviceRing : public ::testing::TestWithParam<kind_mode> {};

// The ring is lent without asking the driver until every buffer has been used
// once: a failing dequeue only shows on the first frame after that.
TEST_P(DeviceRing, PrimesTheRingBeforeTheFirstDequeue)
{
    const kind_mode& c = GetParam();
    sim_board board(c.kind, c.mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.mode, false, 4));
    board.sim().fail_dqbuf(board.path, {EIO, 1, 0});
    print_capture out;
    const unsigned ring = dev->ring_frames();
    const auto seqs = play(*dev, board, 0, ring, false);
    ASSERT_EQ(seqs.size(), ring);
    const bool sp = c.kind == NodeKind::single_plane;
    for (uint32_t i = 0; i < ring; ++i)
        EXPECT_EQ(seqs[i], sp ? i + 1 : i);
    EXPECT_EQ(out.count_prefix("qv_jt_renderer: video device VIDIOC_DQBUF error"), 0u);

    uint32_t seq = 0;
    board.sim().step(board.path, dev->slots_per_frame());
    EXPECT_FALSE(dev->acquire(seq));
    const bool fields = dev->slots_per_frame() == 2;
    const std::string expected = fields ? "qv_jt_renderer: mp_video device VIDIOC_DQBUF error=5, field=" +
                                              std::to_string(2 * ring) + "\n"
                                        : "qv_jt_renderer: video device VIDIOC_DQBUF error\n";
    EXPECT_TRUE(out.contains(expected));

    // The failure is not sticky: the next frame dequeues what the board sent.
    ASSERT_TRUE(dev->acquire(seq));
    EXPECT_EQ(seq, sp ? ring + 1 : ring);
    dev->base().stop_device();
}

// Slots the board leaves out show as gaps in the sequence and are counted in
// the statistics; stopping and starting again primes the ring anew.
TEST_P(DeviceRing, CountsDroppedFramesAndPrimesAgainAfterStop)
{
    const kind_mode& c = GetParam();
    sim_board board(c.kind, c.mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.mode, false, 3));
    const unsigned ring = dev->ring_frames();
    const unsigned spf = dev->slots_per_frame();
    play(*dev, board, 0, ring + 2, false);
    ASSERT_EQ(stats.m_nDeviceDroppedFrame, 0u);

    print_capture out;
    // One whole frame is left out by the board: the next buffer comes a frame later.
    board.sim().drop_frames(board.path, 1, spf);
    board.sim().step(board.path, spf);
    const uint32_t before = dev->base().get_seq_frame();
    play(*dev, board, ring + 2, 2, true);
    EXPECT_EQ(stats.m_nDeviceDroppedFrame, 1u);
    EXPECT_EQ(dev->base().get_seq_frame(), before + 3);
    EXPECT_EQ(out.count_prefix("qv_jt_renderer: video device[" + board.path + "] drop "),
              c.kind == NodeKind::multi_plane ? 1u : 0u);

    dev->base().stop_device();
    EXPECT_EQ(dev->base().get_seq_frame(), 0u);
    stats.reset();
    board.sim().fail_dqbuf(board.path, {EIO, 1, 0});
    const auto again = play(*dev, board, 0, ring, false);
    ASSERT_EQ(again.size(), ring);
    EXPECT_EQ(again.front(), c.kind == NodeKind::single_plane ? 1u : 0u);
    dev->base().stop_device();
}

INSTANTIATE_TEST_SUITE_P(Kinds, DeviceRing,
                         ::testing::Values(kind_mode{NodeKind::single_plane, qv_1920x1080_25p},
                                           kind_mode{NodeKind::single_plane, qv_720x576_25i},
                                           kind_mode{NodeKind::multi_plane, qv_1280x720_5994p},
                                           kind_mode{NodeKind::multi_plane, qv_720x576_25i}),
                         kind_mode_name);

struct watchdog_case {
    NodeKind kind;
    qv_v4l2_enum_sdi_mode mode;
    bool watchdog;
    uint32_t timeout_ms; // buffers x 1000 / fps + 50
};

std::string watchdog_name(const ::testing::TestParamInfo<watchdog_case>& info)
{
    return std::string(kind_name(info.param.kind)) + "_" + std::to_string(info.param.mode) +
           (info.param.watchdog ? "_armed" : "_off");
}

class DeviceWatchdog : public ::testing::TestWithParam<watchdog_case> {};

TEST_P(DeviceWatchdog, FedOncePerFrameOnlyWhenArmed)
{
    const watchdog_case& c = GetParam();
    sim_board board(c.kind, c.mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.mode, c.watchdog, 4));
    const unsigned frames = dev->ring_frames() + 2;
    play(*dev, board, 0, frames, false);
    qvboardsim::WatchdogRecord wd = board.sim().watchdog(board.path);
    EXPECT_EQ(wd.armed, c.watchdog);
    EXPECT_EQ(wd.stop_state, 0);
    if (c.watchdog) {
        EXPECT_EQ(wd.notifications, frames);
        EXPECT_EQ(wd.timeout_ms, c.timeout_ms);
    } else {
        EXPECT_EQ(wd.notifications, 0u);
    }
    // A stall long enough to expire it disarms it; the loop's check re-arms it, once.
    if (c.watchdog) {
        board.sim().expire_watchdog(board.path);
        EXPECT_TRUE(dev->base().check_watchdog());
        EXPECT_TRUE(board.sim().watchdog(board.path).armed);
    }
    EXPECT_FALSE(dev->base().check_watchdog());
    dev->base().stop_device();
    EXPECT_FALSE(dev->base().check_watchdog()) << "not while stopped";
    wd = board.sim().watchdog(board.path);
    EXPECT_FALSE(wd.armed);
    EXPECT_EQ(wd.stop_state, c.watchdog ? 1 : 0);
    EXPECT_EQ(wd.expiries, c.watchdog ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DeviceWatchdog,
    ::testing::Values(watchdog_case{NodeKind::single_plane, qv_1920x1080_25p, true, 4 * 1000 / 25 + 50},
                      watchdog_case{NodeKind::single_plane, qv_1920x1080_5994p, true, 116},
                      watchdog_case{NodeKind::single_plane, qv_1920x1080_25p, false, 0},
                      watchdog_case{NodeKind::multi_plane, qv_1920x1080_25p, true, 4 * 1000 / 25 + 50},
                      watchdog_case{NodeKind::multi_plane, qv_1280x720_5994p, true, 116},
                      watchdog_case{NodeKind::multi_plane, qv_1920x1080_25p, false, 0}),
    watchdog_name);

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

TEST(CheckDevice, RefusesWhatIsNotAnOutputNode)
{
    print_capture out;
    int fd = 7;
    EXPECT_EQ(qv_v4l2_base_output_device::CheckDevice(fd, "/dev/qvtest-missing0"), qv_v4l2_base_output_device::eDTNone);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(qv_v4l2_base_output_device::CheckDevice(fd, "/dev/null"), qv_v4l2_base_output_device::eDTNone);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(out.lines(), (std::vector<std::string>{
                               "qbjtrenderer: Can't open video device, device=/dev/qvtest-missing0\n",
                               "qbjtrenderer: Can't obtain device caps, device=/dev/null\n"}));
}

struct mode_case {
    NodeKind kind;
    int board_mode;                 // the timing the board runs before init
    qv_v4l2_enum_sdi_mode request;
    int width, height;              // what goes out afterwards
};

class ModeSelection : public ::testing::TestWithParam<mode_case> {};

// The mode is taken only when an enumerated timing matches it exactly in
// single precision; otherwise the board keeps the timing it had and init still succeeds.
TEST_P(ModeSelection, SwitchesOnlyOnAnExactRateMatch)
{
    const mode_case& c = GetParam();
    sim_board board(c.kind, c.board_mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.request, false, 3));
    play(*dev, board, 0, 1, false);
    flush(*dev, board);
    const auto out = board.captured();
    ASSERT_FALSE(out.empty());
    const bool field = out[0].field == V4L2_FIELD_TOP || out[0].field == V4L2_FIELD_BOTTOM;
    EXPECT_EQ(static_cast<int>(out[0].pic_width), c.width);
    EXPECT_EQ(static_cast<int>(out[0].pic_lines) * (field ? 2 : 1), c.height);
    dev->base().stop_device();
}

INSTANTIATE_TEST_SUITE_P(Table, ModeSelection,
                         ::testing::Values(mode_case{NodeKind::single_plane, 0, qv_1920x1080_25p, 1920, 1080},
                                           mode_case{NodeKind::single_plane, 0, qv_1920x1080_5994p, 720, 576},
                                           mode_case{NodeKind::single_plane, 11, qv_1280x720_50p, 1280, 720},
                                           mode_case{NodeKind::multi_plane, 11, qv_720x576_25i, 720, 576},
                                           mode_case{NodeKind::multi_plane, 2, qv_720x576_30i, 1920, 1080},
                                           mode_case{NodeKind::multi_plane, 6, qv_1920x1080_2997p, 1280, 720}));

} // namespace
