// Input a careless or hostile upstream can send within the caps: every format
// and channel count of the templates, short buffers, far stamps, garbage on
// the data pads. Play-out must go on, and nothing already queued may be lost.
#include "e2e_fixture.h"

#include "anc_decode.h"

#define GST_USE_UNSTABLE_API
#include <gst/mpegts/mpegts.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using qvboardsim::NodeKind;

constexpr GstClockTime kFrame = GST_SECOND / 50; // 720p50
constexpr int kFrames = 40;
constexpr int kInject = 20; // input frame before which the hostile input goes in

// Picture number n as luma, spaced so that scaling cannot blur one into the next.
uint8_t luma_of(int n)
{
    return static_cast<uint8_t>(20 + 5 * (n % 40));
}

int number_of(uint8_t luma)
{
    return static_cast<int>(std::lround((luma - 20) / 5.0));
}

// Line 0's value for frame n, constant over the frame (16-bit stereo).
int16_t level_of(int n)
{
    return static_cast<int16_t>(1000 + 16 * n);
}

constexpr const char* kVideoCaps =
    "video/x-raw,format=UYVY,width=320,height=180,framerate=50/1,pixel-aspect-ratio=1/1,interlace-mode=progressive";

class HostileInputTest : public PlayoutTest {
public:
    using PlayoutTest::harness;

protected:
    void TearDown() override
    {
        PlayoutTest::TearDown();
        if (m_pBus)
            gst_object_unref(m_pBus);
    }

    void start_board(const char* videoCaps = kVideoCaps,
                     const char* audioCaps = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved",
                     NodeKind kind = NodeKind::multi_plane)
    {
        make(kind, 6, 1, qvboardsim::Pacing::stepped);
        m_pBus = gst_bus_new();
        gst_element_set_bus(m_pElement, m_pBus);
        g_object_set(m_pElement, "buffer_capacity", gulong(1000), nullptr);
        guint8 lines[64] = {};
        lines[9] = 2; // SCTE-104 on line 10
        lines[11] = lines[12] = 1;
        g_object_set(m_pElement, "vbi_lines", lines, nullptr);
        m_video = harness("sink_video", videoCaps);
        m_audio = harness("src_audio0", audioCaps);
        play();
    }

    void push_video(int n)
    {
        EXPECT_EQ(gst_harness_push(m_video, flat_uyvy(320, 180, luma_of(n), n * kFrame, kFrame)), GST_FLOW_OK);
    }

    static GstBuffer* stamped(GstBuffer* b, int n)
    {
        GST_BUFFER_PTS(b) = n * kFrame;
        GST_BUFFER_DURATION(b) = kFrame;
        return b;
    }

    void push_audio(int n)
    {
        std::vector<int16_t> pcm(2 * 960, level_of(n));
        EXPECT_EQ(gst_harness_push(m_audio, stamped(gst_buffer_new_memdup(pcm.data(), pcm.size() * 2), n)),
                  GST_FLOW_OK);
    }

    // kFrames input frames, push(n) sending frame n's buffers, one slot out
    // per frame in once primed; then the capture.
    std::vector<qvboardsim::CapturedFrame> play_frames(const std::function<void(int)>& push)
    {
        int out = 0;
        for (int n = 0; n < kFrames; ++n) {
            push(n);
            if (n >= 12 && pump())
                ++out;
        }
        EXPECT_GE(out, kFrames - 16) << "play-out stalled";
        stop();
        return captured();
    }

    // Good frames with their audio, `inject` before frame kInject.
    std::vector<qvboardsim::CapturedFrame> play_with(const std::function<void()>& inject, bool withAudio = true)
    {
        return play_frames([&](int n) {
            if (n == kInject)
                inject();
            push_video(n);
            if (withAudio)
                push_audio(n);
        });
    }

    // Every good picture went out once, in order, from the first; the audio of
    // each went out with it. `shows(k)` is the picture output frame k shows
    // (k itself unless input was dropped).
    void expect_nothing_lost(const std::vector<qvboardsim::CapturedFrame>& frames, bool withAudio = true,
                             const std::function<int(int)>& shows = [](int k) { return k; })
    {
        ASSERT_GE(frames.size(), static_cast<size_t>(kInject + 4));
        for (size_t k = 0; k < frames.size(); ++k) {
            const auto& f = frames[k];
            ASSERT_GT(f.picture.size(), 1u);
            ASSERT_EQ(number_of(f.picture[1]), shows(static_cast<int>(k))) << "output frame " << k;
            if (!withAudio || f.audio_samples == 0)
                continue;
            const int32_t want = level_of(static_cast<int>(k)) * 256;
            for (uint32_t s = 0; s < f.audio_samples; s += 97)
                ASSERT_EQ(qvboardsim::audio_word_to_sample(f.audio[s * f.audio_channels]), want)
                    << "audio of output frame " << k << ", sample " << s;
        }
        EXPECT_EQ(stat("Number of fifo restarts"), "0");
    }

    // Warnings the pads posted so far that contain `text`. The pads post
    // from the chain call, so every one is on the bus when the push returns.
    int pad_warnings(const std::string& text)
    {
        for (std::string& w : pop_warnings(m_pBus))
            m_warnings.push_back(std::move(w));
        return static_cast<int>(std::count_if(m_warnings.begin(), m_warnings.end(), [&](const std::string& w) {
            return w.find(text) != std::string::npos;
        }));
    }

    GstHarness* m_video = nullptr;
    GstHarness* m_audio = nullptr;
    GstBus* m_pBus = nullptr;
    std::vector<std::string> m_warnings;
};

// ---- Every format the templates accept plays. ----

class VideoFormatTest : public HostileInputTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(VideoFormatTest, PlaysEveryPictureInOrder)
{
    const std::string format = GetParam();
    const std::string caps = "video/x-raw,format=" + format +
                             ",width=320,height=180,framerate=50/1,pixel-aspect-ratio=1/1,interlace-mode=progressive";
    start_board(caps.c_str());
    GstVideoInfo info;
    GstCaps* pCaps = gst_caps_from_string(caps.c_str());
    ASSERT_TRUE(gst_video_info_from_caps(&info, pCaps));
    gst_caps_unref(pCaps);
    const bool yuv = GST_VIDEO_INFO_IS_YUV(&info);
    const auto frames = play_frames([&](int n) {
        // YUV pictures carry their number in luma with neutral chroma; RGB
        // bytes are read as UYVY, so there only the count is checked.
        GstBuffer* b = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
        GstVideoFrame frame;
        ASSERT_TRUE(gst_video_frame_map(&frame, &info, b, GST_MAP_WRITE));
        for (guint c = 0; c < GST_VIDEO_FRAME_N_COMPONENTS(&frame); ++c) {
            const int w = GST_VIDEO_FRAME_COMP_WIDTH(&frame, c);
            const int h = GST_VIDEO_FRAME_COMP_HEIGHT(&frame, c);
            const int stride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, c);
            const int pstride = GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, c);
            guint8* p = GST_VIDEO_FRAME_COMP_DATA(&frame, c);
            const guint8 v = yuv ? (c == 0 ? luma_of(n) : 128) : 0x80;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    p[y * stride + x * pstride] = v;
        }
        gst_video_frame_unmap(&frame);
        EXPECT_EQ(gst_harness_push(m_video, stamped(b, n)), GST_FLOW_OK);
    });
    ASSERT_GE(frames.size(), static_cast<size_t>(kFrames - 16));
    for (size_t k = 0; yuv && k < frames.size(); ++k)
        ASSERT_EQ(number_of(frames[k].picture[1]), static_cast<int>(k)) << "output frame " << k;
    EXPECT_EQ(stat("Number of fifo restarts"), "0");
}

INSTANTIATE_TEST_SUITE_P(Template, VideoFormatTest,
                         ::testing::Values("UYVY", "YUY2", "YVYU", "NV12", "I420", "YV12", "BGR", "RGB", "BGRA",
                                           "BGRx", "ARGB", "xRGB"),
                         [](const ::testing::TestParamInfo<const char*>& i) { return std::string(i.param); });

struct AudioFormat {
    const char* name;
    int bits;
    int channels;
};

class AudioFormatTest : public HostileInputTest, public ::testing::WithParamInterface<AudioFormat> {};

// The line is 16-bit stereo: mono goes to both channels, every depth is
// converted (8 bits widen, 32 bits keep their upper half).
TEST_P(AudioFormatTest, PlaysConvertedOnBothChannels)
{
    const AudioFormat a = GetParam();
    const std::string caps = std::string("audio/x-raw,format=") + a.name +
                             ",rate=48000,layout=interleaved,channels=" + std::to_string(a.channels);
    start_board(kVideoCaps, caps.c_str());
    // Left and right as full-scale 32-bit values, exact in every depth.
    const int32_t left = 0x35 << 24, right = -(0x21 << 24);
    const auto frames = play_frames([&](int n) {
        push_video(n);
        const size_t bytes = a.bits / 8, frameBytes = bytes * a.channels;
        std::vector<uint8_t> pcm(960 * frameBytes);
        for (size_t s = 0; s < 960; ++s)
            for (int c = 0; c < a.channels; ++c) {
                const int32_t v = (c == 0 ? left : right) >> (32 - a.bits);
                std::memcpy(pcm.data() + s * frameBytes + c * bytes, &v, bytes);
            }
        EXPECT_EQ(gst_harness_push(m_audio, stamped(gst_buffer_new_memdup(pcm.data(), pcm.size()), n)), GST_FLOW_OK);
    });
    ASSERT_GE(frames.size(), static_cast<size_t>(kFrames - 16));
    // The 16-bit line value at the top of the 24-bit embedded word.
    const int32_t wantLeft = (left >> 16) * 256;
    const int32_t wantRight = (a.channels == 1 ? left >> 16 : right >> 16) * 256;
    size_t checked = 0;
    for (size_t k = 2; k < frames.size(); ++k) {
        const auto& f = frames[k];
        ASSERT_GE(f.audio_channels, 2u);
        for (uint32_t s = 0; s < f.audio_samples; s += 61, ++checked) {
            ASSERT_EQ(qvboardsim::audio_word_to_sample(f.audio[s * f.audio_channels]), wantLeft) << k;
            ASSERT_EQ(qvboardsim::audio_word_to_sample(f.audio[s * f.audio_channels + 1]), wantRight) << k;
        }
    }
    EXPECT_GT(checked, 100u);
    EXPECT_EQ(stat("Number of fifo restarts"), "0");
}

INSTANTIATE_TEST_SUITE_P(Template, AudioFormatTest,
                         ::testing::Values(AudioFormat{"S8", 8, 1}, AudioFormat{"S8", 8, 2},
                                           AudioFormat{"S16LE", 16, 1}, AudioFormat{"S16LE", 16, 2},
                                           AudioFormat{"S32LE", 32, 1}, AudioFormat{"S32LE", 32, 2}),
                         [](const ::testing::TestParamInfo<AudioFormat>& i) {
                             return std::string(i.param.name) + "_" + std::to_string(i.param.channels) + "ch";
                         });

// ---- Buffers no upstream should send. ----

struct HostileCase {
    const char* name;
    // Sends the hostile input; `self` gives the harnesses.
    std::function<void(HostileInputTest& self, GstHarness* video, GstHarness* audio)> send;
};

GstBuffer* bytes_at(std::vector<uint8_t> bytes, GstClockTime pts)
{
    GstBuffer* b = gst_buffer_new_memdup(bytes.data(), bytes.size());
    GST_BUFFER_PTS(b) = pts;
    return b;
}

// Garbage that is deterministic from run to run.
std::vector<uint8_t> garbage(size_t n, uint32_t seed)
{
    std::vector<uint8_t> v(n);
    for (auto& b : v) {
        seed = seed * 1103515245u + 12345u;
        b = static_cast<uint8_t>(seed >> 16);
    }
    return v;
}

class HostileBufferTest : public HostileInputTest, public ::testing::WithParamInterface<HostileCase> {};

TEST_P(HostileBufferTest, PlayOutGoesOnAndLosesNothingQueued)
{
    start_board();
    const auto frames = play_with([&] { GetParam().send(*this, m_video, m_audio); });
    expect_nothing_lost(frames);
}

constexpr GstClockTime kHour = 3600 * GST_SECOND;

const HostileCase kHostile[] = {
    {"ShortVideoBuffer",
     [](HostileInputTest&, GstHarness* v, GstHarness*) {
         // 1000 bytes under caps of a 320x180 UYVY picture: dropped, and
         // the stream goes on; the pictures around it still go out.
         EXPECT_EQ(gst_harness_push(v, bytes_at(std::vector<uint8_t>(1000, 0xFF), kInject * kFrame)),
                   GST_FLOW_OK);
     }},
    {"VideoStampAnHourAhead",
     [](HostileInputTest&, GstHarness* v, GstHarness*) {
         EXPECT_EQ(gst_harness_push(v, flat_uyvy(320, 180, 250, kHour, kFrame)), GST_FLOW_OK);
     }},
    {"AudioStampAnHourAhead",
     [](HostileInputTest&, GstHarness*, GstHarness* a) {
         std::vector<uint8_t> loud(960 * 4, 0x7F);
         EXPECT_EQ(gst_harness_push(a, bytes_at(loud, kHour)), GST_FLOW_OK);
     }},
    {"TeletextStampAnHourAhead",
     [](HostileInputTest& t, GstHarness*, GstHarness*) {
         GstHarness* h = t.harness("sink_teletext", "application/x-teletext");
         EXPECT_EQ(gst_harness_push(h, bytes_at(garbage(46, 1), kHour)), GST_FLOW_OK);
     }},
    {"GarbageOnTheDataPads",
     [](HostileInputTest& t, GstHarness*, GstHarness*) {
         GstHarness* ttx = t.harness("sink_teletext", "application/x-teletext");
         GstHarness* s104 = t.harness("sink_scte104", "application/x-scte104");
         GstHarness* s35 = t.harness("sink_scte35", "application/x-scte35");
         for (uint32_t seed = 1; seed <= 20; ++seed) {
             const size_t n = seed * 37 % 600 + 1;
             const GstClockTime pts = kInject * kFrame + (seed % 3) * kFrame;
             EXPECT_EQ(gst_harness_push(ttx, bytes_at(garbage(n, seed), pts)), GST_FLOW_OK);
             // A message header claiming more than it carries, then noise.
             std::vector<uint8_t> msg = garbage(n, seed + 100);
             msg[0] = msg[1] = 0xFF;
             EXPECT_EQ(gst_harness_push(s104, bytes_at(msg, GST_CLOCK_TIME_NONE)), GST_FLOW_OK);
             std::vector<uint8_t> sec = garbage(n, seed + 200);
             sec[0] = 0;
             if (n > 1)
                 sec[1] = 0xFC; // a splice_info_section table id, so that parsing goes deep
             EXPECT_EQ(gst_harness_push(s35, bytes_at(sec, GST_CLOCK_TIME_NONE)), GST_FLOW_OK);
         }
     }},
};

INSTANTIATE_TEST_SUITE_P(Upstream, HostileBufferTest, ::testing::ValuesIn(kHostile),
                         [](const ::testing::TestParamInfo<HostileCase>& i) { return std::string(i.param.name); });

// ---- Runs of unusable input: dropped or restamped, one warning, never the programme. ----

enum class Bad { short_runs, unstamped_video, caps_without_par_or_scan, unstamped_audio };

struct BadCase {
    const char* name;
    Bad bad;
    NodeKind kind;
};

class BadInputTest : public HostileInputTest, public ::testing::WithParamInterface<BadCase> {};

TEST_P(BadInputTest, PlayOutGoesOnWithOneWarningPerRun)
{
    const BadCase& c = GetParam();
    // Two runs of three short pictures.
    const auto dropped = [&](int n) {
        return c.bad == Bad::short_runs && ((n >= kInject && n < kInject + 3) || (n >= kInject + 8 && n < kInject + 11));
    };
    // A run of six without a stamp, then every third buffer (no duration either on audio).
    const auto unstamped = [](int n) { return (n >= kInject && n < kInject + 6) || (n > kInject + 8 && n % 3 == 0); };
    start_board(c.bad == Bad::caps_without_par_or_scan ? "video/x-raw,format=UYVY,width=320,height=180,framerate=50/1"
                                                       : kVideoCaps,
                "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved", c.kind);
    const auto frames = play_frames([&](int n) {
        GstBuffer* v = dropped(n) ? bytes_at(std::vector<uint8_t>(1000, 0xFF), n * kFrame)
                                  : flat_uyvy(320, 180, luma_of(n), n * kFrame, kFrame);
        if (c.bad == Bad::unstamped_video && unstamped(n))
            GST_BUFFER_PTS(v) = GST_CLOCK_TIME_NONE;
        EXPECT_EQ(gst_harness_push(m_video, v), GST_FLOW_OK);
        std::vector<int16_t> pcm(2 * 960, level_of(n));
        GstBuffer* a = stamped(gst_buffer_new_memdup(pcm.data(), pcm.size() * 2), n);
        if (c.bad == Bad::unstamped_audio && unstamped(n))
            GST_BUFFER_PTS(a) = GST_BUFFER_DURATION(a) = GST_CLOCK_TIME_NONE;
        EXPECT_EQ(gst_harness_push(m_audio, a), GST_FLOW_OK);
    });
    // A dropped picture's slot repeats the one before; the next good one is on air at once.
    expect_nothing_lost(frames, true, [&](int k) {
        while (dropped(k))
            --k;
        return k;
    });
    switch (c.bad) {
    case Bad::short_runs:
        EXPECT_EQ(pad_warnings("sink_video: buffer dropped, it holds 1000 bytes"), 2) << "one warning a run";
        break;
    case Bad::unstamped_video:
        EXPECT_EQ(pad_warnings("sink_video: buffers without a time stamp"), 1);
        break;
    case Bad::caps_without_par_or_scan:
        EXPECT_EQ(pad_warnings("sink_video: caps without pixel-aspect-ratio"), 1);
        EXPECT_EQ(pad_warnings("sink_video: caps without interlace-mode"), 1);
        break;
    case Bad::unstamped_audio:
        EXPECT_EQ(pad_warnings("src_audio0: buffers without a time stamp"), 1);
        break;
    }
}

const BadCase kBad[] = {
    {"ShortRuns", Bad::short_runs, NodeKind::multi_plane},
    {"ShortRuns", Bad::short_runs, NodeKind::single_plane},
    {"UnstampedVideo", Bad::unstamped_video, NodeKind::multi_plane},
    {"UnstampedVideo", Bad::unstamped_video, NodeKind::single_plane},
    {"CapsWithoutParOrScan", Bad::caps_without_par_or_scan, NodeKind::multi_plane},
    {"CapsWithoutParOrScan", Bad::caps_without_par_or_scan, NodeKind::single_plane},
    {"UnstampedAudio", Bad::unstamped_audio, NodeKind::multi_plane}, // audio leaves a single-plane board by ALSA
};

INSTANTIATE_TEST_SUITE_P(Upstream, BadInputTest, ::testing::ValuesIn(kBad),
                         [](const ::testing::TestParamInfo<BadCase>& i) {
                             return std::string(i.param.name) +
                                    (i.param.kind == NodeKind::multi_plane ? "_MultiPlane" : "_SinglePlane");
                         });

// ---- A demuxer's splice events. ----

// tsdemux sends every SCTE-35 section down all its pads as an event, the
// splice time already in running time. Decoded video carries no DTS.
TEST_F(HostileInputTest, DemuxerSpliceEventOnEveryPadGoesOutOnceWithRunningTimePreRoll)
{
    start_board();
    gsize n = 0;
    guchar* raw = g_base64_decode("/DAvAAAAAAAA///wFAVIAACPf+/+c2nALv4AUsz1AAAAAAAKAAhDVUVJAAABNWLbowo=", &n);
    gst_mpegts_initialize();
    GstMpegtsSection* section = gst_mpegts_section_new(0x101, raw, n); // takes the bytes
    ASSERT_NE(section, nullptr);
    GstEvent* event = gst_event_new_mpegts_section(section);
    gst_mpegts_section_unref(section);
    ASSERT_NE(event, nullptr);
    // Splice 3 s after the picture it arrives with (input frame kInject - 1).
    GstStructure* map = gst_structure_new("running-time-map", "event-1207959695-splice-time", G_TYPE_UINT64,
                                          static_cast<guint64>((kInject - 1) * kFrame + 3 * GST_SECOND), nullptr);
    gst_structure_set(gst_event_writable_structure(event), "running-time-map", GST_TYPE_STRUCTURE, map, nullptr);
    gst_structure_free(map);

    const auto frames = play_with([&] {
        EXPECT_TRUE(gst_harness_push_event(m_video, gst_event_ref(event)));
        EXPECT_TRUE(gst_harness_push_event(m_audio, gst_event_ref(event)));
    });
    gst_event_unref(event);
    expect_nothing_lost(frames);

    int found = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        const auto& f = frames[k];
        if (f.vbi_lines <= 10)
            continue;
        for (const auto& p : qvboardsim::find_anc(f.vbi.data() + 10 * f.vbi_samples, f.vbi_samples, 10, true)) {
            if (p.did != 0x41 || p.sdid != 0x07)
                continue;
            ++found;
            EXPECT_EQ(k, static_cast<size_t>(kInject - 1)) << "with the picture it arrived after";
            ASSERT_GE(p.udw.size(), 1u + 25u);
            const uint8_t* m = p.udw.data() + 1; // after the payload descriptor
            EXPECT_EQ(m[12] << 8 | m[13], 0x0101) << "splice_request_data";
            EXPECT_EQ(m[23] << 8 | m[24], 3000) << "pre-roll in running time, ms";
        }
    }
    EXPECT_EQ(found, 1) << "one event on two pads is one message";
}

} // namespace
