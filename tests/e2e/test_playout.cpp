#include "e2e_fixture.h"

#include "anc_decode.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace {

using qvboardsim::NodeKind;

constexpr GstClockTime k_frame25 = GST_SECOND / 25;

uint8_t luma_of(const qvboardsim::CapturedFrame& f)
{
    return f.picture.size() > 1 ? f.picture[1] : 0;
}

TEST_F(PlayoutTest, SinglePlanePlaysFramesInOrderAndResetsWhenInputStops)
{
    make(NodeKind::single_plane, 0);
    GstHarness* video = harness("sink_video", "video/x-raw,format=UYVY,width=720,height=576,framerate=25/1,"
                                              "pixel-aspect-ratio=1/1,interlace-mode=interleaved");
    play();
    const int nFrames = 50;
    feed_live(nFrames, k_frame25, [&](int i) {
        EXPECT_EQ(gst_harness_push(video, flat_uyvy(720, 576, static_cast<uint8_t>(40 + 4 * i), i * k_frame25,
                                                     k_frame25)),
                  GST_FLOW_OK);
    });
    // Input has stopped: the FIFO runs dry, play-out resets and waits for input again.
    for (int i = 0; i < 100 && stat("Number of fifo restarts") == "0"; ++i)
        g_usleep(20000);
    EXPECT_EQ(stat("Number of fifo restarts"), "1");
    stop();

    const auto frames = captured();
    ASSERT_GE(frames.size(), static_cast<size_t>(nFrames - 15));
    std::vector<int> shown;
    for (const auto& f : frames) {
        ASSERT_EQ(f.pic_width, 720u);
        shown.push_back((luma_of(f) - 40) / 4);
    }
    // Pictures go out in input order; after the latency's pre-roll every input
    // picture goes out, and the newest input is the last picture shown.
    std::set<int> distinct(shown.begin(), shown.end());
    EXPECT_TRUE(std::is_sorted(shown.begin(), shown.end()));
    EXPECT_GE(distinct.size(), frames.size() - 2) << "nothing shown twice but for jitter";
    // The frames still in the board's buffer ring when the FIFO ran dry are
    // dropped by the reset, as on the board.
    EXPECT_GE(*std::max_element(shown.begin(), shown.end()), nFrames - 5);
    for (size_t i = 1; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].sequence, frames[i - 1].sequence + 1) << "no gap in the board's sequence";
    EXPECT_EQ(stat("Device dropped frame"), "0");
}

TEST_F(PlayoutTest, MultiPlaneCarriesPictureAndEmbeddedAudio)
{
    make(NodeKind::multi_plane, 6, 1); // 720p50
    GstHarness* video = harness("sink_video", "video/x-raw,format=UYVY,width=1280,height=720,framerate=50/1,"
                                              "pixel-aspect-ratio=1/1,interlace-mode=progressive");
    GstHarness* audio = harness("src_audio0", "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved");
    play();
    const GstClockTime frame = GST_SECOND / 50;
    const int nFrames = 100;
    int16_t next = 0;
    feed_live(nFrames, frame, [&](int i) {
        EXPECT_EQ(gst_harness_push(video, flat_uyvy(1280, 720, static_cast<uint8_t>(30 + i), i * frame, frame)),
                  GST_FLOW_OK);
        // 960 stereo samples a frame: a ramp on the left, its negation on the right.
        GstBuffer* b = gst_buffer_new_allocate(nullptr, 960 * 4, nullptr);
        GstMapInfo map;
        gst_buffer_map(b, &map, GST_MAP_WRITE);
        auto* s16 = reinterpret_cast<int16_t*>(map.data);
        for (int k = 0; k < 960; ++k, next = static_cast<int16_t>(next + 7)) {
            s16[2 * k] = next;
            s16[2 * k + 1] = static_cast<int16_t>(-next);
        }
        gst_buffer_unmap(b, &map);
        GST_BUFFER_PTS(b) = i * frame;
        GST_BUFFER_DURATION(b) = frame;
        EXPECT_EQ(gst_harness_push(audio, b), GST_FLOW_OK);
    });
    stop();

    const auto frames = captured();
    ASSERT_FALSE(frames.empty());
    // Concatenate the left channel as it went out and find the ramp in it.
    std::vector<int32_t> left, right;
    for (const auto& f : frames) {
        ASSERT_GE(f.audio_channels, 2u);
        for (uint32_t k = 0; k < f.audio_samples; ++k) {
            left.push_back(qvboardsim::audio_word_to_sample(f.audio[k * f.audio_channels]));
            right.push_back(qvboardsim::audio_word_to_sample(f.audio[k * f.audio_channels + 1]));
        }
    }
    auto first = std::find_if(left.begin(), left.end(), [](int32_t v) { return v != 0; });
    ASSERT_NE(first, left.end()) << "no audio went out";
    size_t pos = static_cast<size_t>(first - left.begin());
    // The ramp continues sample by sample (16-bit input at the top of 24 bits).
    const int32_t start = left[pos] >> 8;
    size_t run = 0;
    for (size_t k = pos; k < left.size() && run < 960u * 20; ++k, ++run) {
        const auto expect = static_cast<int16_t>(start + 7 * static_cast<int32_t>(run));
        if (left[k] != expect * 256 || right[k] != static_cast<int16_t>(-expect) * 256)
            break;
    }
    EXPECT_GE(run, 960u * 20) << "the embedded audio is the input, without gaps, for 20 frames";
    EXPECT_EQ(stat("Device dropped frame"), "0");
}

TEST_F(PlayoutTest, Scte104GoesOutAsVancPacketOnTheConfiguredLine)
{
    make(NodeKind::multi_plane, 6); // 720p50
    guint8 lines[64] = {};
    lines[9] = 2; // SCTE-104 on line 10
    g_object_set(m_pElement, "vbi_lines", lines, nullptr);
    GstHarness* video = harness("sink_video", "video/x-raw,format=UYVY,width=1280,height=720,framerate=50/1,"
                                              "pixel-aspect-ratio=1/1,interlace-mode=progressive");
    GstHarness* scte = harness("sink_scte104", "application/x-scte104");
    play();
    const GstClockTime frame = GST_SECOND / 50;
    // multiple_operation_message with one splice_request_data (splice start normal).
    const uint8_t msg[] = {0xFF, 0xFF, 0x00, 0x1E, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01,
                           0x01, 0x01, 0x00, 0x0E, 0x01, 0x00, 0x00, 0x12, 0x34, 0x00, 0x01,
                           0x0F, 0xA0, 0x00, 0x00, 0x00, 0x00, 0x01};
    // SCTE messages are stamped with the stream time of the last picture, which
    // the element takes from the video buffers' DTS, as capture sources set it.
    feed_live(60, frame, [&](int i) {
        GstBuffer* b = flat_uyvy(1280, 720, 60, i * frame, frame);
        GST_BUFFER_DTS(b) = GST_BUFFER_PTS(b);
        EXPECT_EQ(gst_harness_push(video, b), GST_FLOW_OK);
        if (i == 30) {
            EXPECT_EQ(gst_harness_push(scte, gst_buffer_new_memdup(msg, sizeof msg)), GST_FLOW_OK);
        }
    });
    stop();

    int found = 0;
    for (const auto& f : captured()) {
        if (f.vbi_lines <= 10)
            continue;
        const auto packets = qvboardsim::find_anc(f.vbi.data() + 10 * f.vbi_samples, f.vbi_samples, 10, true);
        for (const auto& p : packets) {
            if (p.did != 0x41 || p.sdid != 0x07)
                continue;
            ++found;
            EXPECT_TRUE(p.parity_ok);
            EXPECT_TRUE(p.checksum_ok);
            ASSERT_GE(p.udw.size(), 1 + sizeof msg);
            // After the payload descriptor byte comes the message itself.
            EXPECT_TRUE(std::equal(msg, msg + sizeof msg, p.udw.begin() + 1));
        }
    }
    EXPECT_EQ(found, 1) << "the message goes out once, on line 10";
}

TEST_F(PlayoutTest, Scte35SpliceInsertBecomesScte104InVanc)
{
    make(NodeKind::multi_plane, 6); // 720p50
    guint8 lines[64] = {};
    lines[9] = 2;
    g_object_set(m_pElement, "vbi_lines", lines, nullptr);
    GstHarness* video = harness("sink_video", "video/x-raw,format=UYVY,width=1280,height=720,framerate=50/1,"
                                              "pixel-aspect-ratio=1/1,interlace-mode=progressive");
    GstHarness* scte = harness("sink_scte35", "application/x-scte35");
    play();
    // The splice_insert sample section of the SCTE 35 standard (section 14.2).
    gsize nSection = 0;
    guchar* section = g_base64_decode("/DAvAAAAAAAA///wFAVIAACPf+/+c2nALv4AUsz1AAAAAAAKAAhDVUVJAAABNWLbowo=", &nSection);
    const GstClockTime frame = GST_SECOND / 50;
    feed_live(60, frame, [&](int i) {
        GstBuffer* b = flat_uyvy(1280, 720, 60, i * frame, frame);
        GST_BUFFER_DTS(b) = GST_BUFFER_PTS(b);
        EXPECT_EQ(gst_harness_push(video, b), GST_FLOW_OK);
        if (i == 30) {
            // A pointer field of 0 comes first, as in a transport stream packet.
            GstBuffer* s = gst_buffer_new_allocate(nullptr, nSection + 1, nullptr);
            gst_buffer_memset(s, 0, 0, 1);
            gst_buffer_fill(s, 1, section, nSection);
            EXPECT_EQ(gst_harness_push(scte, s), GST_FLOW_OK);
        }
    });
    stop();
    g_free(section);

    int found = 0;
    for (const auto& f : captured()) {
        if (f.vbi_lines <= 10)
            continue;
        for (const auto& p : qvboardsim::find_anc(f.vbi.data() + 10 * f.vbi_samples, f.vbi_samples, 10, true)) {
            if (p.did != 0x41 || p.sdid != 0x07)
                continue;
            ++found;
            EXPECT_TRUE(p.checksum_ok);
            ASSERT_GE(p.udw.size(), 1u + 14u);
            const uint8_t* m = p.udw.data() + 1; // after the payload descriptor
            EXPECT_EQ(m[0], 0xFF);
            EXPECT_EQ(m[1], 0xFF) << "multiple_operation_message";
            const size_t size = (m[2] << 8) | m[3];
            EXPECT_EQ(size, p.udw.size() - 1);
            // The first operation is a splice_request_data of splice event 0x4800008F.
            ASSERT_GE(size, 20u);
            EXPECT_EQ((m[12] << 8) | m[13], 0x0101);
            EXPECT_EQ(m[16], 1) << "splice_insert_type: start normal (out of network, with a time)";
            EXPECT_EQ((uint32_t(m[17]) << 24) | (m[18] << 16) | (m[19] << 8) | m[20], 0x4800008Fu);
        }
    }
    EXPECT_EQ(found, 1);
}

} // namespace
