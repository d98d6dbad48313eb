// Board faults the devices must live through: buffers the driver fails or
// refuses stay in circulation, every wait for the board is bounded, and a node
// that is gone is reported so that the owner can reopen it.
#include "device_harness.h"
#include "print_capture.h"

using namespace devtest;
using qvboardsim::NodeKind;

namespace {

struct fault_case {
    const char* name;
    NodeKind kind;
    qv_v4l2_enum_sdi_mode mode;
    bool errored; // buffers flagged ERROR by the board; otherwise QBUF refused
    unsigned count;
};

class RingFaults : public ::testing::TestWithParam<fault_case> {};

// Frames f in [first, first + n) as the render loop plays them, stepping the
// board one frame before each; a refused buffer is simply filled again.
unsigned play_through(device_adapter& a, const sim_board& board, uint64_t first, unsigned n)
{
    unsigned refused = 0;
    for (uint64_t f = first; f < first + n; ++f) {
        board.sim().step(board.path, a.slots_per_frame());
        uint32_t seq = 0;
        if (!a.acquire(seq)) {
            ADD_FAILURE() << "no buffer for frame " << f;
            return refused;
        }
        a.fill(f, false);
        refused += a.release() ? 0 : 1;
    }
    return refused;
}

TEST_P(RingFaults, EveryBufferStaysInCirculation)
{
    const fault_case& c = GetParam();
    sim_board board(c.kind, c.mode);
    qv_renderer_statistics stats;
    auto dev = make_adapter(c.kind, stats);
    ASSERT_TRUE(open_adapter(*dev, board, c.mode, false, 3));
    play(*dev, board, 0, dev->ring_frames(), false);

    print_capture out;
    if (c.errored)
        board.sim().error_buffers(board.path, 2, c.count);
    else
        board.sim().fail_qbuf(board.path, qvboardsim::CallFault{EIO, c.count, 1});
    const unsigned refused = play_through(*dev, board, dev->ring_frames(), 20);
    // The single-plane board refuses the VBI node's buffers too, unseen here.
    if (c.errored)
        EXPECT_EQ(refused, 0u);
    else
        EXPECT_GT(refused, 0u);
    EXPECT_FALSE(dev->base().needs_restart()) << "a passing fault needs no restart";

    // Were a buffer lost, the ring would run dry here: with the board stepped
    // one frame per frame, every frame needs every buffer back.
    const uint64_t before = board.sim().frames_sent(board.path);
    EXPECT_EQ(play_through(*dev, board, 100, 4 * dev->ring_frames()), 0u);
    EXPECT_EQ(board.sim().frames_sent(board.path) - before, 4u * dev->ring_frames() * dev->slots_per_frame());
    dev->base().stop_device();
}

INSTANTIATE_TEST_SUITE_P(Faults, RingFaults,
                         ::testing::Values(fault_case{"MplnErrored720p", NodeKind::multi_plane, qv_1280x720_50p, true, 3},
                                           fault_case{"MplnErrored1080i", NodeKind::multi_plane, qv_1920x1080_25i, true, 3},
                                           fault_case{"MplnRefused1080i", NodeKind::multi_plane, qv_1920x1080_25i, false, 3},
                                           fault_case{"SingleRefused", NodeKind::single_plane, qv_720x576_25i, false, 6},
                                           fault_case{"SingleErrored", NodeKind::single_plane, qv_1280x720_50p, true, 3}),
                         [](const ::testing::TestParamInfo<fault_case>& i) { return std::string(i.param.name); });

class BoardGone : public ::testing::TestWithParam<NodeKind> {};

// Nothing comes back from a board that stands still or has vanished: each
// request returns within the bounded wait, and only a vanished node asks for
// a reopen.
TEST_P(BoardGone, WaitsAreBoundedAndAVanishedNodeAsksForARestart)
{
    sim_board board(GetParam(), qv_1280x720_50p);
    qv_renderer_statistics stats;
    auto dev = make_adapter(GetParam(), stats);
    ASSERT_TRUE(open_adapter(*dev, board, qv_1280x720_50p, false, 3));
    play(*dev, board, 0, dev->ring_frames(), false);

    uint32_t seq = 0;
    EXPECT_FALSE(dev->acquire(seq)) << "the board was not stepped";
    EXPECT_TRUE(dev->base().timed_out());
    EXPECT_FALSE(dev->base().needs_restart());

    print_capture out;
    board.sim().disconnect(board.path);
    EXPECT_FALSE(dev->acquire(seq));
    EXPECT_FALSE(dev->base().timed_out());
    EXPECT_TRUE(dev->base().needs_restart());
    EXPECT_EQ(out.count_prefix("qv_jt_renderer: video device '" + board.path + "' cannot go on"), 1u);
    dev->close();
}

INSTANTIATE_TEST_SUITE_P(Kinds, BoardGone, ::testing::Values(NodeKind::single_plane, NodeKind::multi_plane),
                         [](const ::testing::TestParamInfo<NodeKind>& i) {
                             return std::string(i.param == NodeKind::single_plane ? "SinglePlane" : "MultiPlane");
                         });

} // namespace
