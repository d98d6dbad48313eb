// The multi-plane device's own cases: embedded audio read back sample-exact,
// audio groups, ring size, skipped buffers, the status record, the hardware
// time and the messages under injected faults.
#include "device_harness.h"
#include "print_capture.h"

using namespace devtest;
using qvboardsim::NodeKind;

namespace {

struct audio_case {
    qv_v4l2_enum_sdi_mode mode;
    uint32_t lines;      // audio lines (stereo pairs) of the stream
    uint16_t bits;       // sample width handed to push_audio
    int sdi_channels;    // channels carried on SDI
    size_t frames;       // sample frames handed over per video frame
};

class MplnAudio : public ::testing::TestWithParam<audio_case> {};

// Each input sample becomes a 24-bit value in a 32-bit word; channels the
// input does not have stay silent; fields split the frame's samples.
TEST_P(MplnAudio, EmbedsEverySampleExactly)
{
    const audio_case& c = GetParam();
    sim_board board(NodeKind::multi_plane, c.mode);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats, c.lines);
    ASSERT_TRUE(open_adapter(dev, board, c.mode, false, 3));
    ASSERT_EQ(dev.dev.get_sdi_audio_channels(), c.sdi_channels);

    const uint16_t channels = static_cast<uint16_t>(2 * c.lines);
    QVSDK::QVSound sound;
    ASSERT_TRUE(sound.init(c.frames * channels * (c.bits / 8), 0, 48000, c.bits, channels));
    const auto input = [&](size_t i, size_t ch) { return static_cast<uint32_t>(0x81234567u + i * 0x10101u + ch * 0x1000u); };
    for (size_t i = 0; i < c.frames; ++i)
        for (size_t ch = 0; ch < channels; ++ch) {
            const uint32_t v = input(i, ch);
            if (c.bits == 16) {
                const uint16_t s = static_cast<uint16_t>(v >> 16);
                std::memcpy(sound.data() + (i * channels + ch) * 2, &s, 2);
            } else {
                std::memcpy(sound.data() + (i * channels + ch) * 4, &v, 4);
            }
        }
    sound.markFilled(c.frames);

    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    dev.fill(0, false);
    ASSERT_TRUE(dev.dev.push_audio(sound));
    ASSERT_TRUE(dev.release());
    ASSERT_TRUE(dev.base().start_device());
    flush(dev, board);

    const auto out = board.captured();
    ASSERT_FALSE(out.empty());
    const bool fields = out[0].field == V4L2_FIELD_TOP;
    std::vector<uint32_t> words;
    size_t samples = 0;
    for (size_t r = 0; r < (fields ? 2u : 1u); ++r) {
        ASSERT_EQ(out[r].audio_channels, static_cast<uint32_t>(c.sdi_channels));
        words.insert(words.end(), out[r].audio.begin(), out[r].audio.end());
        samples += out[r].audio_samples;
    }
    if (fields) {
        EXPECT_EQ(out[0].audio_samples, (c.frames + 1) / 2);
    }
    ASSERT_EQ(samples, c.frames);
    for (size_t i = 0; i < c.frames; ++i)
        for (size_t ch = 0; ch < static_cast<size_t>(c.sdi_channels); ++ch) {
            uint32_t want = 0;
            if (ch < channels)
                want = c.bits == 16 ? (input(i, ch) >> 16) << 8 : input(i, ch) >> 8;
            ASSERT_EQ(words[i * c.sdi_channels + ch], want) << "sample " << i << " channel " << ch;
        }
    dev.dev.stop_device();
}

INSTANTIATE_TEST_SUITE_P(Table, MplnAudio,
                         ::testing::Values(audio_case{qv_1280x720_50p, 1, 16, 4, 960},
                                           audio_case{qv_1280x720_50p, 3, 32, 8, 1000},
                                           audio_case{qv_1280x720_5994p, 6, 32, 16, 801},
                                           audio_case{qv_1920x1080_25i, 2, 16, 4, 1920},
                                           audio_case{qv_720x576_25i, 4, 32, 8, 1201}));

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

struct ring_case {
    qv_v4l2_enum_sdi_mode mode;
    uint32_t requested;
    uint32_t buffers;
};

class MplnRing : public ::testing::TestWithParam<ring_case> {};

TEST_P(MplnRing, KeepsAtLeastThreeFramesAndOneBufferPerField)
{
    const ring_case& c = GetParam();
    sim_board board(NodeKind::multi_plane, c.mode);
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, c.mode, false, c.requested));
    EXPECT_EQ(dev.dev.get_buffer_count(), c.buffers);
}

INSTANTIATE_TEST_SUITE_P(Table, MplnRing,
                         ::testing::Values(ring_case{qv_1280x720_50p, 1, 3}, ring_case{qv_1920x1080_25i, 1, 6},
                                           ring_case{qv_1920x1080_50p, 5, 5}, ring_case{qv_720x576_25i, 4, 8}));

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

class MplnFaults : public ::testing::TestWithParam<qv_v4l2_enum_sdi_mode> {};

TEST_P(MplnFaults, ReportsMisuseAndDriverFailures)
{
    const bool interlaced = GetParam() == qv_1920x1080_25i;
    sim_board board(NodeKind::multi_plane, GetParam());
    qv_renderer_statistics stats;
    multi_plane_adapter dev(stats);
    ASSERT_TRUE(open_adapter(dev, board, GetParam(), false, 3));
    const std::string name = "'" + board.path + "'";
    print_capture out;

    // Nothing held yet.
    EXPECT_FALSE(dev.dev.push_image(dev.source));
    EXPECT_FALSE(dev.dev.send_data());
    EXPECT_EQ(out.lines(),
              (interlaced ? std::vector<std::string>{"qv_jt_renderer: video device " + name + " internal error #3\n",
                                                    "qv_jt_renderer: video device " + name + " internal error #1\n"}
                         : std::vector<std::string>{"qv_jt_renderer: video device " + name + " internal error #4\n",
                                                    "qv_jt_renderer: mp_video device " + name +
                                                        " internal error #2\n"}));
    out.clear();

    board.sim().fail_qbuf(board.path, {EINVAL, 1, 0});
    uint32_t seq = 0;
    ASSERT_TRUE(dev.acquire(seq));
    EXPECT_FALSE(dev.release());
    EXPECT_TRUE(out.contains(interlaced ? "qv_jt_renderer: mp_video device " + name +
                                              " VIDIOC_QBUF 1/2 error=22  buf[0]\n"
                                        : std::string("qv_jt_renderer: mp_video device VIDIOC_QBUF #3 error\n")));
    // The buffers stay held and go out on the next try.
    ASSERT_TRUE(dev.acquire(seq));
    EXPECT_EQ(seq, 0u);
    EXPECT_TRUE(dev.release());

    board.sim().fail_streamon(board.path, {EIO, 1, 0});
    EXPECT_FALSE(dev.dev.start_device());
    EXPECT_TRUE(out.contains("qvjtrenderer: Can't stream on, device = " + board.path + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Scan, MplnFaults, ::testing::Values(qv_1280x720_50p, qv_1920x1080_25i));

} // namespace
