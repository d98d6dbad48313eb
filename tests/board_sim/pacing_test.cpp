// Frame clock maths and the pacing modes seen through the V4L2 calls.
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

TEST(HardwareCounter, RunsAt148500000TicksASecondAndWraps)
{
    EXPECT_EQ(hw_ticks(0, 0.0, 40000000), 5940000u); // one frame at 25 Hz
    EXPECT_EQ(hw_ticks(1000, 0.0, 1000 + 1000000000), 148500000u);
    EXPECT_EQ(hw_ticks(0, 100.0, 1000000000), 148514850u);
    // 2^32 ticks is 28.92 s: the counter wraps modulo 2^32.
    EXPECT_EQ(hw_ticks(0, 0.0, 30000000000), uint32_t(30ull * 148500000ull));
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
    EXPECT_EQ(sim.queued(cfg.video_path), 4u);
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
    EXPECT_EQ(sim.queued(cfg.video_path), 0u);
    // How long before its slot each buffer was queued: the four queued at
    // stream on waited one to four 20 ms slots, the late one a single slot.
    const std::vector<int64_t> margins = {20000000, 40000000, 60000000, 80000000, 20000000};
    EXPECT_EQ(sim.take_margins(cfg.video_path), margins);
    EXPECT_TRUE(sim.take_margins(cfg.video_path).empty()) << "taking the margins forgets them";
}

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

} // namespace
