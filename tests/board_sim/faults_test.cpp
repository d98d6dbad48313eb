// Fault knobs and the board-side controls (watchdog, genlock, input clock).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "sim_internal.h"
#include "sim_test_util.h"

using namespace qvboardsim;
using namespace qvbs_test;

namespace {

class Faulty : public ::testing::Test {
protected:
    void start(NodeKind kind = NodeKind::single_plane, int mode = 6)
    {
        cfg = board(kind, mode, Pacing::stepped, "flt");
        Simulator::instance().configure({cfg});
        client = std::make_unique<Client>(cfg.video_path, true);
        ASSERT_EQ(client->setup(kind == NodeKind::multi_plane ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE
                                                               : V4L2_BUF_TYPE_VIDEO_OUTPUT,
                                4),
                  4);
    }
    Simulator& sim = Simulator::instance();
    BoardConfig cfg;
    std::unique_ptr<Client> client;
};

enum class Call { qbuf, dqbuf, streamon };
struct CallCase {
    Call call;
    int err;
    unsigned count, after;
};

class CallFaults : public Faulty, public ::testing::WithParamInterface<CallCase> {};

TEST_P(CallFaults, FailTheChosenCallsWithTheChosenErrno)
{
    const CallCase cc = GetParam();
    start();
    CallFault f{cc.err, cc.count, cc.after};
    if (cc.call == Call::streamon) {
        sim.fail_streamon(cfg.video_path, f);
        for (unsigned i = 0; i < cc.after; ++i) {
            ASSERT_EQ(client->streamon(), 0);
            ASSERT_EQ(client->streamoff(), 0);
        }
        for (unsigned i = 0; i < cc.count; ++i) {
            EXPECT_EQ(client->streamon(), -1);
            EXPECT_EQ(errno, cc.err);
        }
        EXPECT_EQ(client->streamon(), 0);
        return;
    }
    ASSERT_EQ(client->streamon(), 0);
    if (cc.call == Call::qbuf) {
        sim.fail_qbuf(cfg.video_path, f);
        uint32_t index = 0;
        for (unsigned i = 0; i < cc.after; ++i)
            ASSERT_EQ(client->qbuf(index++), 0);
        for (unsigned i = 0; i < cc.count; ++i) {
            EXPECT_EQ(client->qbuf(index), -1);
            EXPECT_EQ(errno, cc.err);
        }
        EXPECT_EQ(client->qbuf(index), 0); // the failed buffer was not taken
        return;
    }
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(client->qbuf(i), 0);
    sim.step(cfg.video_path, 4);
    sim.fail_dqbuf(cfg.video_path, f);
    v4l2_buffer b;
    int err = 0;
    for (unsigned i = 0; i < cc.after; ++i)
        ASSERT_EQ(client->dqbuf(b, err), 0);
    for (unsigned i = 0; i < cc.count; ++i) {
        EXPECT_EQ(client->dqbuf(b, err), -1);
        EXPECT_EQ(err, cc.err);
    }
    ASSERT_EQ(client->dqbuf(b, err), 0); // nothing was lost to the failures
    EXPECT_EQ(b.index, cc.after);
}

INSTANTIATE_TEST_SUITE_P(Knobs, CallFaults,
                         ::testing::Values(CallCase{Call::qbuf, EIO, 1, 0}, CallCase{Call::qbuf, EINVAL, 2, 2},
                                           CallCase{Call::dqbuf, EIO, 1, 0}, CallCase{Call::dqbuf, EPIPE, 2, 1},
                                           CallCase{Call::streamon, ENOMEM, 1, 0},
                                           CallCase{Call::streamon, EBUSY, 1, 2}));

TEST_F(Faulty, ErroredBuffersCarryTheErrorFlagOnce)
{
    start();
    ASSERT_EQ(client->streamon(), 0);
    sim.error_buffers(cfg.video_path, 2, 1); // the 2nd buffer only
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(client->qbuf(i), 0);
    sim.step(cfg.video_path, 4);
    uint32_t flagged = 0;
    for (uint32_t i = 0; i < 4; ++i) {
        v4l2_buffer b;
        int err = 0;
        ASSERT_EQ(client->dqbuf(b, err), 0);
        if (b.flags & V4L2_BUF_FLAG_ERROR) {
            EXPECT_EQ(b.index, 1u);
            ++flagged;
        }
    }
    EXPECT_EQ(flagged, 1u);
}

TEST_F(Faulty, DroppedFramesLeaveSequenceGaps)
{
    start();
    ASSERT_EQ(client->streamon(), 0);
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(client->qbuf(i), 0);
    sim.step(cfg.video_path, 1);
    sim.drop_frames(cfg.video_path, 1, 2); // the next two slots send nothing
    sim.step(cfg.video_path, 5);
    std::vector<uint32_t> seq;
    v4l2_buffer b;
    int err = 0;
    while (client->dqbuf(b, err) == 0)
        seq.push_back(b.sequence);
    EXPECT_EQ(seq, (std::vector<uint32_t>{1, 4, 5, 6}));
}

TEST_F(Faulty, StalledClockSendsNothingUntilReleased)
{
    cfg = board(NodeKind::single_plane, 6, Pacing::realtime, "stall");
    sim.configure({cfg});
    Client c(cfg.video_path, true);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 2), 2);
    ASSERT_EQ(c.streamon(), 0);
    sim.stall_clock(cfg.video_path, true);
    ASSERT_EQ(c.qbuf(0), 0);
    usleep(60000); // three slots at 50 Hz
    v4l2_buffer b;
    int err = 0;
    EXPECT_EQ(c.dqbuf(b, err), -1);
    EXPECT_EQ(err, EAGAIN);
    sim.stall_clock(cfg.video_path, false);
    int fl = fcntl(c.fd(), F_GETFL);
    ASSERT_EQ(fcntl(c.fd(), F_SETFL, fl & ~O_NONBLOCK), 0);
    ASSERT_EQ(c.dqbuf(b, err), 0);
    EXPECT_EQ(b.sequence, 1u);
}

TEST_F(Faulty, DisappearingNodeGivesEnodevAndComesBack)
{
    start();
    ASSERT_EQ(client->streamon(), 0);
    sim.disconnect(cfg.video_path);
    v4l2_capability cap{};
    EXPECT_EQ(ioctl(client->fd(), VIDIOC_QUERYCAP, &cap), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(open(cfg.video_path.c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    sim.reconnect(cfg.video_path);
    EXPECT_EQ(ioctl(client->fd(), VIDIOC_QUERYCAP, &cap), -1); // the old descriptor stays dead
    Client fresh(cfg.video_path, true);
    ASSERT_GE(fresh.fd(), 0);
    EXPECT_EQ(ioctl(fresh.fd(), VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_EQ(fresh.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 2), 2);
}

TEST_F(Faulty, WatchdogExpiresWhenNotFedInTime)
{
    start();
    const int fd = client->fd();
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_STOP_STATE, 0), 0);
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_WATCHDOG_ENABLE, 1), 0);
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_WATCHDOG_NOTIFY, 130), 0); // 6.5 frames at 50 Hz
    sim.step(cfg.video_path, 6);
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_WATCHDOG_NOTIFY, 130), 0); // fed in time
    sim.step(cfg.video_path, 6);
    EXPECT_EQ(sim.watchdog(cfg.video_path).expiries, 0u);
    EXPECT_TRUE(sim.watchdog(cfg.video_path).armed);
    sim.step(cfg.video_path, 1); // 140 ms since the last feed
    WatchdogRecord w = sim.watchdog(cfg.video_path);
    EXPECT_EQ(w.expiries, 1u);
    EXPECT_FALSE(w.armed);
    EXPECT_EQ(w.timeout_ms, 130u);
    EXPECT_EQ(w.notifications, 2u);
    // Disarmed, it never fires; the forced expiry is recorded like a real one.
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_WATCHDOG_ENABLE, 0), 0);
    ASSERT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_STOP_STATE, 1), 0);
    sim.step(cfg.video_path, 50);
    EXPECT_EQ(sim.watchdog(cfg.video_path).expiries, 1u);
    sim.expire_watchdog(cfg.video_path);
    EXPECT_EQ(sim.watchdog(cfg.video_path).expiries, 2u);
    EXPECT_EQ(sim.watchdog(cfg.video_path).stop_state, 1);
}

TEST_F(Faulty, ControlsAnswerLikeTheDriver)
{
    start(NodeKind::multi_plane, 4);
    const int fd = client->fd();
    int32_t v = 0;
    sim.set_genlock(cfg.video_path, V4L_JUTVANE_GENLOCK_LOCKED, V4L_JUTVANE_GENLOCK_SRC_IN0 + 3);
    ASSERT_EQ(get_ctrl(fd, V4L2_CID_JUTVANE_GENLOCK_STATE, v), 0);
    EXPECT_EQ(v, V4L_JUTVANE_GENLOCK_LOCKED);
    ASSERT_EQ(get_ctrl(fd, V4L2_CID_JUTVANE_GENLOCK_SOURCE, v), 0);
    EXPECT_EQ(v, 5);
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_GENLOCK_STATE, 0), -1); // read-only
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_VANC_ENABLE, 1), 0);
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_TIMECODE_TYPE, V4L2_JUTVANE_TIMECODE_VITC), 0);
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_FORMAT_COMMIT, 1), 0);
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_TIMECODE_TYPE, 7), -1);
    // The audio plane is sized by the groups: fixed while buffers exist.
    EXPECT_EQ(set_ctrl(fd, V4L2_CID_JUTVANE_AUDIO_GROUPS, 2), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(set_ctrl(fd, 0x00981dffu, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Faulty, InputTimestampFollowsTheInputClock)
{
    start(NodeKind::multi_plane, 11); // 1080p25
    sim.set_input(cfg.video_path, true, 0.0, 10.0);
    v4l2_jutvane_analog_rx_timestamp ts{};
    v4l2_ext_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP;
    ctrl.size = sizeof ts;
    ctrl.ptr = &ts;
    v4l2_ext_controls ctrls{};
    ctrls.which = V4L2_CTRL_CLASS_USER;
    ctrls.count = 1;
    ctrls.controls = &ctrl;
    sim.step(cfg.video_path, 10);
    ASSERT_EQ(ioctl(client->fd(), VIDIOC_G_EXT_CTRLS, &ctrls), 0);
    EXPECT_EQ(ts.valid, 1u);
    // Stepped time: 10 frames = 400 ms after boot; the input's frames sit at
    // 10 ms + k x 40 ms, the last one at 370 ms.
    EXPECT_EQ(ts.cur_hw_time, 400u * 148500u);
    EXPECT_EQ(ts.timestamp, 370u * 148500u);
    sim.set_input(cfg.video_path, false, 0.0, 0.0);
    ASSERT_EQ(ioctl(client->fd(), VIDIOC_G_EXT_CTRLS, &ctrls), 0);
    EXPECT_EQ(ts.valid, 0u);
    ctrl.size = 8; // too small a payload gets the size back
    EXPECT_EQ(ioctl(client->fd(), VIDIOC_G_EXT_CTRLS, &ctrls), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(ctrl.size, 20u);
}

} // namespace

namespace {

// Faults that fire by themselves after a number of sent frames, for runs
// where no test code is at hand (a preloaded pipeline).
TEST(ScheduledFaults, FireAfterTheirFrameCount)
{
    auto cfgs = Simulator::parse_config("[board]\nvideo=/dev/qvbs-sched-video0\nmode=6\npacing=stepped\n"
                                        "fault_genlock = 2:3:4\nfault_watchdog = 3\n"
                                        "fault_stall = 4:2\nfault_disconnect = 6:0\n");
    ASSERT_EQ(cfgs.size(), 1u);
    ASSERT_EQ(cfgs[0].scheduled.size(), 4u);
    const BoardConfig cfg = cfgs[0];
    Simulator& sim = Simulator::instance();
    sim.configure(cfgs);
    Client c(cfg.video_path, true);
    ASSERT_EQ(c.setup(V4L2_BUF_TYPE_VIDEO_OUTPUT, 2), 2);
    ASSERT_EQ(c.streamon(), 0);
    ASSERT_EQ(c.qbuf(0), 0);
    ASSERT_EQ(c.qbuf(1), 0);
    std::vector<uint32_t> seq;
    int32_t state = 0;
    for (int slot = 0; slot < 12; ++slot) {
        sim.step(cfg.video_path, 1);
        v4l2_buffer b;
        int err = 0;
        while (c.dqbuf(b, err) == 0) {
            seq.push_back(b.sequence);
            if (seq.size() == 2) {
                ASSERT_EQ(get_ctrl(c.fd(), V4L2_CID_JUTVANE_GENLOCK_STATE, state), 0);
                EXPECT_EQ(state, 3);
            }
            ASSERT_EQ(c.qbuf(b.index), 0);
        }
    }
    // Frames 1-4 in a row, then two slots lost to the stall; the 6th frame
    // goes out and the node vanishes before it can be dequeued.
    EXPECT_EQ(seq, (std::vector<uint32_t>{1, 2, 3, 4, 7}));
    EXPECT_EQ(sim.frames_sent(cfg.video_path), 6u);
    EXPECT_EQ(sim.watchdog(cfg.video_path).expiries, 1u);
    // After the 6th frame the node is gone for good.
    v4l2_capability cap{};
    EXPECT_EQ(ioctl(c.fd(), VIDIOC_QUERYCAP, &cap), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(open(cfg.video_path.c_str(), O_RDWR), -1);
}

} // namespace
