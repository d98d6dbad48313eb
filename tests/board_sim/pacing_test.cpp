// Frame clock maths, the timing table against the device's exact rate rule,
// and the three pacing modes seen through the V4L2 calls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <set>

#include "sim_internal.h"
#include "sim_test_util.h"

using namespace qvboardsim;
using namespace qvbs_test;

namespace {

struct ClockCase {
    uint64_t num, den;
    double ppm;
};

class ClockMaths : public ::testing::TestWithParam<ClockCase> {};

TEST_P(ClockMaths, SlotNIsDueAtStartPlusNOverRate)
{
    const ClockCase c = GetParam();
    FrameClock clk;
    const int64_t start = 123456789;
    clk.start(start, c.num, c.den, c.ppm);
    for (uint64_t n : {uint64_t(1), uint64_t(2), uint64_t(1001), uint64_t(90000), uint64_t(10000000)}) {
        long double exact = static_cast<long double>(n) * c.den * 1e9L /
                            (static_cast<long double>(c.num) * (1.0L + c.ppm * 1e-6L));
        int64_t t = clk.slot_time(n);
        EXPECT_NEAR(double(t - start), double(exact), 1.0) << "slot " << n;
        EXPECT_EQ(clk.slots_due(t), n);
        EXPECT_EQ(clk.slots_due(t - 1), n - 1);
    }
    EXPECT_EQ(clk.slots_due(start - 1000), 0u);
}

INSTANTIATE_TEST_SUITE_P(Rates, ClockMaths,
                         ::testing::Values(ClockCase{25, 1, 0.0}, ClockCase{60000, 1001, 0.0},
                                           ClockCase{50, 1, 100.0}, ClockCase{30000, 1001, -50.0},
                                           ClockCase{120000, 1001, 3.5}));

TEST(ClockMaths, StallLosesTheStalledSlotsInsteadOfBurstingThem)
{
    FrameClock clk;
    clk.start(0, 25, 1, 0.0);
    clk.stall(100000000, true); // 100 ms: slots 1 and 2 are out
    EXPECT_EQ(clk.slots_due(500000000), 2u);
    clk.stall(500000000, false);
    EXPECT_EQ(clk.slots_due(500000000), 2u);
    EXPECT_EQ(clk.slot_time(3), 520000000);
}

TEST(HardwareCounter, RunsAt148500000TicksASecondAndWraps)
{
    EXPECT_EQ(hw_ticks(0, 0.0, 40000000), 5940000u); // one frame at 25 Hz
    EXPECT_EQ(hw_ticks(1000, 0.0, 1000 + 1000000000), 148500000u);
    EXPECT_EQ(hw_ticks(0, 100.0, 1000000000), 148514850u);
    // 2^32 ticks is 28.92 s: the counter wraps modulo 2^32.
    EXPECT_EQ(hw_ticks(0, 0.0, 30000000000), uint32_t(30ull * 148500000ull));
}

// The device's rate rule, written out independently: single precision,
// REDUCED_FPS divides by 1.001 in double, exact equality.
float device_fps(const v4l2_bt_timings& bt)
{
    uint32_t tw = bt.width + bt.hfrontporch + bt.hsync + bt.hbackporch;
    uint32_t th = bt.height + bt.vfrontporch + bt.vsync + bt.vbackporch;
    if (bt.interlaced)
        th += bt.il_vfrontporch + bt.il_vsync + bt.il_vbackporch;
    float fps = float(bt.pixelclock) / float(tw * th);
    if (bt.flags & V4L2_DV_FL_REDUCED_FPS)
        fps = float(double(fps) / 1.001);
    return fps;
}

struct ModeRow {
    int mode;
    int width, height;
    float fps;
    bool matches;
    bool interlaced; // scan of the first matching timing
};

class ModeMatching : public ::testing::TestWithParam<ModeRow> {};

// The device takes the first enumerated timing whose size and float rate
// match; the rule does not look at the scan, so 1080i25 and 1080p25 are the
// same to it and the enumeration order decides (interlaced is listed first).
TEST_P(ModeMatching, FirstExactFloatMatchIsWhatTheDeviceSets)
{
    const ModeRow r = GetParam();
    const v4l2_dv_timings* first = nullptr;
    for (const v4l2_dv_timings& t : board_timings())
        if (int(t.bt.width) == r.width && int(t.bt.height) == r.height && device_fps(t.bt) == r.fps) {
            first = &t;
            break;
        }
    ASSERT_EQ(first != nullptr, r.matches);
    if (first) {
        EXPECT_EQ(first->bt.interlaced != 0, r.interlaced);
    }
    // The board starts a mode in a timing of its raster.
    v4l2_dv_timings t = timing_for_mode(r.mode);
    EXPECT_EQ(int(t.bt.width), r.width);
    EXPECT_EQ(int(t.bt.height), r.height);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ModeMatching,
    ::testing::Values(ModeRow{0, 720, 576, 25.0f, true, true}, ModeRow{1, 720, 576, 30.0f, false, false},
                      ModeRow{2, 1920, 1080, 25.0f, true, true}, ModeRow{3, 1920, 1080, 30.0f, true, true},
                      ModeRow{4, 1920, 1080, 50.0f, true, false}, ModeRow{5, 1920, 1080, 60.0f, true, false},
                      ModeRow{6, 1280, 720, 50.0f, true, false}, ModeRow{7, 1280, 720, 59.94f, false, false},
                      ModeRow{8, 1280, 720, 60.0f, true, false}, ModeRow{9, 1920, 1080, 23.98f, false, false},
                      ModeRow{10, 1920, 1080, 24.0f, true, false}, ModeRow{11, 1920, 1080, 25.0f, true, true},
                      ModeRow{12, 1920, 1080, 29.97f, false, false}, ModeRow{13, 1920, 1080, 59.94f, false, false},
                      ModeRow{14, 3840, 2160, 25.0f, true, false}, ModeRow{15, 3840, 2160, 29.97f, false, false},
                      ModeRow{16, 3840, 2160, 30.0f, true, false}, ModeRow{17, 3840, 2160, 50.0f, true, false},
                      ModeRow{18, 3840, 2160, 59.94f, false, false}, ModeRow{19, 3840, 2160, 60.0f, true, false}));

TEST(Timings, SetTimingChangesTheRasterButNotWhileBuffersExist)
{
    BoardConfig cfg = board(NodeKind::single_plane, 6, Pacing::stepped, "tim");
    Simulator::instance().configure({cfg});
    Client c(cfg.video_path, true);
    v4l2_dv_timings t = timing_for_mode(2); // 1080i25
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_S_DV_TIMINGS, &t), 0);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    ASSERT_EQ(ioctl(c.fd(), VIDIOC_G_FMT, &f), 0);
    EXPECT_EQ(f.fmt.pix.width, 1920u);
    EXPECT_EQ(f.fmt.pix.height, 1080u);
    EXPECT_EQ(f.fmt.pix.field, uint32_t(V4L2_FIELD_INTERLACED));
    EXPECT_EQ(f.fmt.pix.pixelformat, uint32_t(V4L2_PIX_FMT_UYVY));
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 3), 3);
    v4l2_dv_timings other = timing_for_mode(6);
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_S_DV_TIMINGS, &other), -1);
    EXPECT_EQ(errno, EBUSY);
    v4l2_dv_timings bogus = t;
    bogus.bt.hfrontporch += 1;
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_S_DV_TIMINGS, &bogus), -1);
}

TEST(SteppedPacing, BuffersLeaveOnlyWhenTheTestSteps)
{
    BoardConfig cfg = board(NodeKind::single_plane, 6, Pacing::stepped, "step");
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 4), 4);
    ASSERT_EQ(c.streamon(), 0);
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(c.qbuf(i), 0);
    v4l2_buffer b;
    int err = 0;
    EXPECT_EQ(c.dqbuf(b, err), -1);
    EXPECT_EQ(err, EAGAIN);
    sim.step(cfg.video_path, 1);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.index, 0u);
    EXPECT_EQ(b.sequence, 1u);
    EXPECT_EQ(c.dqbuf(b, err), -1);
    sim.step(cfg.video_path, 2);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.sequence, 2u);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.sequence, 3u);
    // Two slots with one buffer queued: the second is an underrun and the
    // next buffer shows the gap.
    sim.step(cfg.video_path, 2);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.index, 3u);
    EXPECT_EQ(b.sequence, 4u);
    ASSERT_EQ(c.qbuf(0), 0);
    sim.step(cfg.video_path, 1);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.sequence, 6u);
    EXPECT_EQ(sim.underruns(cfg.video_path), 1u);
    EXPECT_EQ(sim.frames_sent(cfg.video_path), 5u);
}

// Multi-plane buffers against the device's own bookkeeping: progressive
// sequences give buffer count + sequence = buffers consumed; field buffers
// give count + bottom + (2 x sequence - 2).
struct MplaneCase {
    int mode;
    bool interlaced;
};

class MplaneSequence : public ::testing::TestWithParam<MplaneCase> {};

TEST_P(MplaneSequence, MatchesTheDeviceCounting)
{
    const MplaneCase mc = GetParam();
    BoardConfig cfg = board(NodeKind::multi_plane, mc.mode, Pacing::stepped,
                            "mps" + std::to_string(mc.mode));
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    const uint32_t n = mc.interlaced ? 6 : 3;
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE, n), int(n));
    for (uint32_t i = 0; i < n; ++i) {
        v4l2_buffer q{};
        v4l2_plane pl[3]{};
        q.index = i;
        q.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
        q.memory = V4L2_MEMORY_MMAP;
        q.m.planes = pl;
        q.length = 3;
        ASSERT_EQ(ioctl(c.fd(), VIDIOC_QUERYBUF, &q), 0);
        uint32_t want = !mc.interlaced ? V4L2_FIELD_NONE : (i % 2 ? V4L2_FIELD_BOTTOM : V4L2_FIELD_TOP);
        EXPECT_EQ(q.field, want) << i;
    }
    ASSERT_EQ(c.streamon(), 0);
    uint64_t next = n; // every buffer lent once before the first dequeue
    uint32_t last_hw = 0;
    const uint32_t step = mc.interlaced ? 148500000u / 50 : 148500000u / 50;
    for (uint32_t round = 0; round < 3 * n; ++round) {
        ASSERT_EQ(c.qbuf(round % n, 100, 0), 0);
        sim.step(cfg.video_path, 1);
        v4l2_buffer b;
        int err = 0;
        ASSERT_EQ(c.dqbuf(b, err), 0) << round;
        uint64_t expected = n;
        if (mc.interlaced) {
            expected += (b.field == V4L2_FIELD_BOTTOM ? 1 : 0) + (b.sequence ? 2 * b.sequence - 2 : 0);
            EXPECT_EQ(b.field, round % 2 ? uint32_t(V4L2_FIELD_BOTTOM) : uint32_t(V4L2_FIELD_TOP));
        } else {
            expected += b.sequence;
        }
        EXPECT_EQ(expected, next) << "round " << round;
        ++next;
        // Status record in plane 2.
        const uint8_t* st = c.plane(b.index, 2);
        EXPECT_EQ(std::memcmp(st, "kvnx", 4), 0);
        int32_t frame;
        uint32_t hw;
        std::memcpy(&frame, st + 4, 4);
        std::memcpy(&hw, st + 20, 4);
        EXPECT_EQ(uint32_t(frame), b.sequence);
        EXPECT_EQ(c.planes[2].bytesused, uint32_t(JUTVANE_STATUS_SIZE));
        if (round > 0) {
            EXPECT_NEAR(double(uint32_t(hw - last_hw)), double(step), 1.0);
        }
        last_hw = hw;
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, MplaneSequence,
                         ::testing::Values(MplaneCase{4, false}, MplaneCase{2, true}));

TEST(RealtimePacing, FramesGoOutOnTheSlotGridAndNeverEarly)
{
    BoardConfig cfg = board(NodeKind::single_plane, 6, Pacing::realtime, "rt");
    cfg.ppm = 1000.0; // clock 0.1 % fast: period 20 ms / 1.001
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, false);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 3), 3);
    ASSERT_EQ(c.streamon(), 0);
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(c.qbuf(i), 0);
    std::vector<int64_t> returned;
    for (int i = 0; i < 6; ++i) {
        v4l2_buffer b;
        int err = 0;
        ASSERT_EQ(c.dqbuf(b, err), 0);
        returned.push_back(now_ns());
        ASSERT_EQ(c.qbuf(b.index), 0);
    }
    auto frames = sim.captured(cfg.video_path);
    ASSERT_GE(frames.size(), 6u);
    const double period = 20000000.0 / 1.001;
    for (size_t i = 1; i < frames.size(); ++i) // on the grid, also across an underrun
        EXPECT_NEAR(double(frames[i].sys_ns - frames[0].sys_ns),
                    period * double(frames[i].index - frames[0].index), 1.0);
    for (size_t i = 0; i < 6; ++i)
        EXPECT_GE(returned[i], int64_t(frames[i].sys_ns)); // a DQBUF never returns before its slot
}

TEST(FreerunPacing, EveryQueuedBufferGoesOutAtOnce)
{
    BoardConfig cfg = board(NodeKind::single_plane, 19, Pacing::freerun, "fr");
    cfg.capture.memory = false;
    Simulator& sim = Simulator::instance();
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 2), 2);
    ASSERT_EQ(c.streamon(), 0);
    ASSERT_EQ(c.qbuf(0), 0);
    ASSERT_EQ(c.qbuf(1), 0);
    for (uint32_t i = 0; i < 50; ++i) {
        v4l2_buffer b;
        int err = 0;
        ASSERT_EQ(c.dqbuf(b, err), 0) << i;
        EXPECT_EQ(b.sequence, i + 1);
        ASSERT_EQ(c.qbuf(b.index), 0);
    }
    EXPECT_EQ(sim.frames_sent(cfg.video_path), 50u);
}

} // namespace
