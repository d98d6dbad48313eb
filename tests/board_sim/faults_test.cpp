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

} // namespace

namespace {

} // namespace
