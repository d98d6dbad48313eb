// The single-plane device's own cases: a board without a VBI node, and the
// messages under injected faults.
#include "device_harness.h"
#include "../common/print_capture.h"

using namespace devtest;
using qvboardsim::NodeKind;

namespace {

TEST(SinglePlaneDevice, WorksWithoutVbiNode)
{
    sim_board board(NodeKind::single_plane, qv_1920x1080_25p, false);
    qv_renderer_statistics stats;
    single_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1920x1080_25p, false, 3));
    EXPECT_FALSE(dev.dev.is_vbi_open());
    print_capture out;
    play(dev, board, 0, 5, false);
    void* p = nullptr;
    size_t n = 0;
    EXPECT_FALSE(dev.dev.map_vbi(&p, n));
    EXPECT_TRUE(out.contains("qv_jt_renderer: vbi device has not been opened\n"));
    flush(dev, board);
    const auto frames = board.captured();
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_TRUE(frames[4].vbi.empty());
    EXPECT_TRUE(picture_matches(frames[4].picture, 1920, 1080, 4, 0, 1));
    dev.dev.stop_device();
}

TEST(SinglePlaneDevice, ReportsQueueAndStreamFaults)
{
    sim_board board(NodeKind::single_plane, qv_1920x1080_25p);
    qv_renderer_statistics stats;
    single_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1920x1080_25p, false, 3));
    print_capture out;

    board.sim().fail_streamon(board.path, {EIO, 1, 0});
    EXPECT_FALSE(dev.dev.start_device());
    EXPECT_TRUE(out.contains("qvjtrenderer: [mmap] Can't stream on, device = " + board.vbi_path + "\n"));

    board.sim().fail_qbuf(board.path, {EIO, 1, 0});
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    EXPECT_FALSE(dev.release());
    EXPECT_TRUE(out.contains("qv_jt_renderer: video device VIDIOC_QBUF error\n"));
}

} // namespace
