// The single-plane device's own cases: a board without a VBI node, and the
// messages under injected faults.
#include "device_harness.h"
#include "print_capture.h"

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

TEST(SinglePlaneDevice, DerivesTheVbiNodeFromTheVideoPath)
{
    sim_board board(NodeKind::single_plane, qv_720x576_25i);
    qv_renderer_statistics stats;
    single_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_720x576_25i, false, 3));
    EXPECT_EQ(dev.dev.get_vbi_name(), board.vbi_path);
    qv_vbi_data vbi;
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    ASSERT_TRUE(dev.dev.map_vbi(vbi));
    EXPECT_TRUE(vbi.m_bValid);
    EXPECT_EQ(vbi.m_nStride, 720u * 4);
    EXPECT_EQ(vbi.m_nLines[0], dev.dev.get_vbi_format().count[0]);
    EXPECT_EQ(vbi.m_nLines[1], dev.dev.get_vbi_format().count[1]);
    EXPECT_GT(vbi.m_nLines[1], 0u);
    EXPECT_GE(vbi.m_nSize, vbi.m_nStride * (vbi.m_nLines[0] + vbi.m_nLines[1]));
    EXPECT_TRUE(dev.dev.unmap_vbi());
    EXPECT_TRUE(dev.release());
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
