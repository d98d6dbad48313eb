// Call fault knobs, seen by a plain V4L2 client on a single-plane board.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "qvboardsim.h"

using namespace qvboardsim;

namespace {

enum class Call { qbuf, dqbuf, streamon };
struct CallCase {
    Call call;
    int err;
    unsigned count, after;
};

class CallFaults : public ::testing::TestWithParam<CallCase> {
protected:
    void SetUp() override
    {
        BoardConfig cfg;
        cfg.kind = NodeKind::single_plane;
        cfg.mode = 6;
        cfg.pacing = Pacing::stepped;
        cfg.video_path = m_path;
        sim.configure({cfg});
        m_fd = ::open(m_path.c_str(), O_RDWR | O_NONBLOCK);
        ASSERT_GE(m_fd, 0);
        v4l2_requestbuffers r{};
        r.count = 4;
        r.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        r.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(ioctl(m_fd, VIDIOC_REQBUFS, &r), 0);
        ASSERT_EQ(r.count, 4u);
    }
    void TearDown() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
        sim.configure({});
    }
    int stream(bool on)
    {
        int t = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        return ioctl(m_fd, on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &t);
    }
    // QBUF or DQBUF; the result, with errno in err.
    int buffer(unsigned long request, v4l2_buffer& b, int& err)
    {
        b.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        b.memory = V4L2_MEMORY_MMAP;
        const int res = ioctl(m_fd, request, &b);
        err = res < 0 ? errno : 0;
        return res;
    }
    int qbuf(uint32_t index, int& err)
    {
        v4l2_buffer b{};
        b.index = index;
        return buffer(VIDIOC_QBUF, b, err);
    }

    Simulator& sim = Simulator::instance();
    const std::string m_path = "/dev/qvbs-test-flt-video0";
    int m_fd = -1;
};

TEST_P(CallFaults, FailTheChosenCallsWithTheChosenErrno)
{
    const CallCase cc = GetParam();
    const CallFault f{cc.err, cc.count, cc.after};
    int err = 0;
    if (cc.call == Call::streamon) {
        sim.fail_streamon(m_path, f);
        for (unsigned i = 0; i < cc.after; ++i) {
            ASSERT_EQ(stream(true), 0);
            ASSERT_EQ(stream(false), 0);
        }
        for (unsigned i = 0; i < cc.count; ++i) {
            EXPECT_EQ(stream(true), -1);
            EXPECT_EQ(errno, cc.err);
        }
        EXPECT_EQ(stream(true), 0);
        return;
    }
    ASSERT_EQ(stream(true), 0);
    if (cc.call == Call::qbuf) {
        sim.fail_qbuf(m_path, f);
        uint32_t index = 0;
        for (unsigned i = 0; i < cc.after; ++i)
            ASSERT_EQ(qbuf(index++, err), 0);
        for (unsigned i = 0; i < cc.count; ++i) {
            EXPECT_EQ(qbuf(index, err), -1);
            EXPECT_EQ(err, cc.err);
        }
        EXPECT_EQ(qbuf(index, err), 0); // the failed buffer was not taken
        return;
    }
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_EQ(qbuf(i, err), 0);
    sim.step(m_path, 4);
    sim.fail_dqbuf(m_path, f);
    v4l2_buffer b{};
    for (unsigned i = 0; i < cc.after; ++i)
        ASSERT_EQ(buffer(VIDIOC_DQBUF, b = {}, err), 0);
    for (unsigned i = 0; i < cc.count; ++i) {
        EXPECT_EQ(buffer(VIDIOC_DQBUF, b = {}, err), -1);
        EXPECT_EQ(err, cc.err);
    }
    ASSERT_EQ(buffer(VIDIOC_DQBUF, b = {}, err), 0); // nothing was lost to the failures
    EXPECT_EQ(b.index, cc.after);
}

INSTANTIATE_TEST_SUITE_P(Knobs, CallFaults,
                         ::testing::Values(CallCase{Call::qbuf, EIO, 1, 0}, CallCase{Call::qbuf, EINVAL, 2, 2},
                                           CallCase{Call::dqbuf, EIO, 1, 0}, CallCase{Call::dqbuf, EPIPE, 2, 1},
                                           CallCase{Call::streamon, ENOMEM, 1, 0},
                                           CallCase{Call::streamon, EBUSY, 1, 2}));

} // namespace
