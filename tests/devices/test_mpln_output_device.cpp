// The multi-plane device's own cases: audio groups, skipped buffers, the
// status record, raw VBI and the hardware time.
#include "device_harness.h"
#include "../common/print_capture.h"

using namespace devtest;
using qvboardsim::NodeKind;

namespace {

TEST(MplnDevice, RefusesAudioThatIsNeither16Nor32Bits)
{
    sim_board board(NodeKind::multi_plane, qv_1280x720_50p);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1280x720_50p, false, 3));
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    QVSDK::QVSound sound;
    ASSERT_TRUE(sound.init(1920 * 6, 0, 48000, 24, 2));
    print_capture out;
    EXPECT_FALSE(dev.dev.push_audio(sound));
    EXPECT_TRUE(out.contains("qv_jt_renderer: audio device '" + board.path +
                             "' audio format (24) must be 16 or 32 bits !!!\n"));
}

// A buffer the board flags as failed costs its slot on air (counted) but is
// filled again at once; the status record of the next good one is read.
TEST(MplnDevice, RefillsErroredBuffersAndReadsTheStatusRecord)
{
    sim_board board(NodeKind::multi_plane, qv_1280x720_50p);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1280x720_50p, false, 3));
    play(dev, board, 0, 3, false);
    board.sim().error_buffers(board.path, 1, 1);
    board.sim().step(board.path, 2);
    print_capture out;
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    EXPECT_TRUE(out.contains("qv_jt_renderer: video device[" + board.path + "] skip frame buffer[0], frame=3"));
    EXPECT_EQ(seq, 3u) << "the errored buffer carries the next frame";
    dev.fill(3, false);
    ASSERT_TRUE(dev.release());
    ASSERT_TRUE(dev.acquire(seq));
    EXPECT_EQ(seq, 4u);
    EXPECT_EQ(out.count_prefix("qv_jt_renderer: video device[" + board.path + "] drop"), 0u);
    const auto sent = board.captured();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(dev.dev.get_last_frame_number(), sent[1].sequence);
    EXPECT_EQ(dev.dev.get_last_frame_hw(), sent[1].hw_time);
    EXPECT_EQ(static_cast<uint64_t>(dev.dev.get_last_frame_sp().time_since_epoch().count()), sent[1].sys_ns);
}

// Raw VBI bytes from upstream need not be aligned nor fill the area: what is
// missing goes out black.
TEST(MplnDevice, PacksRawVbiBytesAndBlanksTheRest)
{
    sim_board board(NodeKind::multi_plane, qv_1280x720_50p);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1280x720_50p, false, 3));
    const size_t samples = 1280 * 2;
    std::vector<uint8_t> raw(1 + 3 * samples * 2);
    for (size_t r = 0; r < 3; ++r)
        for (size_t i = 0; i < samples; ++i) {
            const uint16_t v = vbi_sample(7, r, i);
            std::memcpy(raw.data() + 1 + (r * samples + i) * 2, &v, 2);
        }
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    ASSERT_TRUE(dev.dev.push_vbi(raw.data() + 1, raw.size() - 1));
    ASSERT_TRUE(dev.release());
    ASSERT_TRUE(dev.base().start_device());
    flush(dev, board);
    const auto out = board.captured();
    ASSERT_EQ(out.size(), 1u);
    ASSERT_EQ(out[0].vbi.size(), static_cast<size_t>(out[0].vbi_lines) * samples);
    size_t wrong = 0;
    for (size_t r = 0; r < out[0].vbi_lines; ++r)
        for (size_t i = 0; i < samples; ++i) {
            const uint16_t want = r < 3 ? vbi_sample(7, r, i) : (i % 2 == 0 ? 0x200 : 0x040);
            wrong += out[0].vbi[r * samples + i] != want;
        }
    EXPECT_EQ(wrong, 0u);
}

// The board cannot regroup its audio while another open holds buffers: the
// second init fails, reports why and gives its descriptor back to the system.
TEST(MplnDevice, FailsWhenTheAudioGroupsCannotBeSet)
{
    sim_board board(NodeKind::multi_plane, qv_1280x720_50p);
    qv_renderer_statistics stats;
    multi_plane_adapter first(stats, 1);
    ASSERT_TRUE(open_adapter(first, board, qv_1280x720_50p, false, 3));
    multi_plane_adapter second(stats, 6);
    int fd = -1;
    ASSERT_EQ(qv_v4l2_base_output_device::CheckDevice(fd, board.path), qv_v4l2_base_output_device::eDTMultiPlane);
    print_capture out;
    EXPECT_FALSE(second.init(fd, board.path, qv_1280x720_50p, false, 3));
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(second.dev.is_open());
    // The first line says why; closing may add that the stream could not be switched off.
    ASSERT_GE(out.lines().size(), 1u);
    EXPECT_EQ(out.lines()[0].rfind("qbjtrenderer: [mmap] Can't set 4 audio groups, device = " + board.path +
                                       ", err=16/'",
                                   0),
              0u);
    EXPECT_TRUE(first.dev.is_open());
}

TEST(MplnDevice, ReadsTheInputHardwareTime)
{
    sim_board board(NodeKind::multi_plane, qv_1280x720_50p);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, qv_1280x720_50p, false, 3));
    uint32_t hw = 0;
    std::chrono::steady_clock::time_point tp{};
    ASSERT_TRUE(dev.dev.getHWtime(hw, tp));
    EXPECT_NE(tp.time_since_epoch().count(), 0);

    board.sim().set_input(board.path, false, 0.0, 0.0);
    print_capture out;
    EXPECT_FALSE(dev.dev.getHWtime(hw, tp));
    EXPECT_TRUE(out.contains(
        "qv_jt_renderer: mp_video device getHWtime #2 ERROR : v4l2_jutvane_analog_rx_timestamp.valid = 0\n"));
}

} // namespace
