// Lip sync as measured on air: a flash picture and a click with the same PTS
// must leave the board together, the click at the sample the PTS gives.
#include "e2e_fixture.h"

#include "anc_decode.h"

#include <glib/gstdio.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using qvboardsim::NodeKind;

struct LipSyncCase {
    NodeKind kind;
    int mode;        // board mode of the frame rate
    int rate_n, rate_d;
    unsigned samples; // audio buffer length
};

std::string case_name(const ::testing::TestParamInfo<LipSyncCase>& info)
{
    const LipSyncCase& c = info.param;
    return std::string(c.kind == NodeKind::multi_plane ? "Embedded" : "Alsa") + "_mode" + std::to_string(c.mode) +
           "_buffer" + std::to_string(c.samples);
}

constexpr int kFlash = 12;   // input frame that flashes; well after the pre-roll
constexpr int kFrames = 20;  // input frames in all
constexpr int16_t kClick = 20000;
constexpr uint8_t kFlashLuma = 235;

// Luma of input frame n: its number, so that repeats and skips show. Scaling
// to an HD raster may move luma by a step or two, hence the spacing.
uint8_t luma_of_frame(int n)
{
    return n == kFlash ? kFlashLuma : static_cast<uint8_t>(20 + 8 * n);
}

int frame_of_luma(uint8_t luma)
{
    return luma > 200 ? kFlash : static_cast<int>(std::lround((luma - 20) / 8.0));
}

class LipSyncTest : public PlayoutTest, public ::testing::WithParamInterface<LipSyncCase> {
protected:
    // First sample of output frame n on the board's own frame grid.
    static int64_t grid(int64_t n, double fps) { return static_cast<int64_t>(std::trunc(n * 48000.0 / fps + 0.5)); }
};

TEST_P(LipSyncTest, ClickLandsInTheFlashFrameAtItsSample)
{
    const LipSyncCase& c = GetParam();
    make(c.kind, c.mode, 1, qvboardsim::Pacing::stepped);
    const std::string raw = std::string(g_get_tmp_dir()) + "/qv-lipsync-" + std::to_string(getpid()) + ".raw";
    g_unlink(raw.c_str());
    g_object_set(m_pElement, "buffer_capacity", gulong(1000), nullptr);
    if (c.kind == NodeKind::single_plane)
        g_object_set(m_pElement, "alsa", ("file:'" + raw + "',raw").c_str(), nullptr);

    const bool interlaced = c.mode == 0;
    const unsigned slots = interlaced && c.kind == NodeKind::multi_plane ? 2 : 1;
    const char* scan = interlaced ? "interleaved" : "progressive";
    const std::string caps = "video/x-raw,format=UYVY,width=320,height=180,pixel-aspect-ratio=1/1,framerate=" +
                             std::to_string(c.rate_n) + "/" + std::to_string(c.rate_d) + ",interlace-mode=" + scan;
    GstHarness* video = harness("sink_video", caps.c_str());
    GstHarness* audio = harness("src_audio0", "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved");
    play();

    auto frame_pts = [&](int n) { return gst_util_uint64_scale(n, GST_SECOND * c.rate_d, c.rate_n); };
    auto sample_pts = [](uint64_t s) { return gst_util_uint64_scale(s, GST_SECOND, 48000); };
    // The sample nearest the flash's PTS carries the click.
    const GstClockTime flashPts = frame_pts(kFlash);
    const auto clickSample = static_cast<int64_t>(gst_util_uint64_scale_round(flashPts, 48000, GST_SECOND));

    // Audio follows each picture, never running ahead of it by more than a
    // buffer: that is how a live source delivers it.
    uint64_t nextSample = 0;
    for (int n = 0; n < kFrames; ++n) {
        EXPECT_EQ(gst_harness_push(video, flat_uyvy(320, 180, luma_of_frame(n), frame_pts(n),
                                                    frame_pts(n + 1) - frame_pts(n))),
                  GST_FLOW_OK);
        while (sample_pts(nextSample) < frame_pts(n + 1)) {
            std::vector<int16_t> pcm(2 * c.samples, 0);
            const auto first = static_cast<int64_t>(nextSample);
            if (clickSample >= first && clickSample < first + c.samples)
                pcm[2 * (clickSample - first)] = pcm[2 * (clickSample - first) + 1] = kClick;
            GstBuffer* b = gst_buffer_new_memdup(pcm.data(), pcm.size() * sizeof(int16_t));
            GST_BUFFER_PTS(b) = sample_pts(nextSample);
            GST_BUFFER_DURATION(b) = sample_pts(nextSample + c.samples) - sample_pts(nextSample);
            EXPECT_EQ(gst_harness_push(audio, b), GST_FLOW_OK);
            nextSample += c.samples;
        }
    }
    int pumped = 0;
    while (pumped < kFrames - 4 && pump(slots))
        ++pumped;
    EXPECT_GE(pumped, kFlash + 2) << "play-out stalled";
    stop();

    // Output frames as they went out: picture luma and, on the multi-plane
    // board, the left channel of the embedded audio.
    const double fps = static_cast<double>(c.rate_n) / c.rate_d;
    const double boardFps = c.mode == 12 ? static_cast<double>(29.97f) : fps;
    const auto frames = captured();
    std::vector<uint8_t> luma;
    std::vector<std::vector<int32_t>> left;
    for (size_t i = 0; i + slots <= frames.size(); i += slots) {
        luma.push_back(frames[i].picture.size() > 1 ? frames[i].picture[1] : 0);
        left.emplace_back();
        for (unsigned f = 0; f < slots; ++f)
            for (uint32_t k = 0; k < frames[i + f].audio_samples; ++k)
                left.back().push_back(
                    qvboardsim::audio_word_to_sample(frames[i + f].audio[k * frames[i + f].audio_channels]));
    }
    ASSERT_FALSE(luma.empty());
    // Every picture goes out once, in order, from the first: output frame k shows input frame k.
    for (size_t k = 0; k < luma.size() && k < static_cast<size_t>(kFrames); ++k)
        ASSERT_EQ(frame_of_luma(luma[k]), static_cast<int>(k)) << "output frame " << k;
    ASSERT_GT(luma.size(), static_cast<size_t>(kFlash));

    // The click's sample as it went out, counted from the flash frame's first sample.
    const int64_t expected = clickSample - grid(kFlash, boardFps);
    int64_t found = -1;
    int clicks = 0;
    if (c.kind == NodeKind::multi_plane) {
        for (size_t k = 0; k < left.size(); ++k)
            for (size_t s = 0; s < left[k].size(); ++s)
                if (left[k][s] != 0) {
                    ++clicks;
                    EXPECT_EQ(k, static_cast<size_t>(kFlash)) << "click in output frame " << k;
                    if (k == static_cast<size_t>(kFlash))
                        found = static_cast<int64_t>(s);
                }
    } else {
        // The ALSA bytes (16-bit stereo) start with output frame 0's audio.
        std::ifstream in(raw, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        g_unlink(raw.c_str());
        ASSERT_GE(bytes.size(), static_cast<size_t>(grid(kFlash + 1, boardFps) * 4)) << "too little ALSA audio";
        for (size_t s = 0; s + 1 < bytes.size() / 4; ++s) {
            int16_t l = 0;
            std::memcpy(&l, bytes.data() + 4 * s, 2);
            if (l == 0)
                continue;
            ++clicks;
            found = static_cast<int64_t>(s) - grid(kFlash, boardFps);
        }
    }
    EXPECT_EQ(clicks, 1) << "the click goes out once";
    EXPECT_NEAR(static_cast<double>(found), static_cast<double>(expected), 1.0)
        << "click at sample " << found << " of the flash frame, its PTS gives " << expected;
}

std::vector<LipSyncCase> lip_sync_cases()
{
    struct Rate {
        int mode, n, d;
    };
    // 576i25 (two fields a frame on the multi-plane board), 1080p29.97, 720p50.
    const Rate rates[] = {{0, 25, 1}, {12, 30000, 1001}, {6, 50, 1}};
    std::vector<LipSyncCase> cases;
    for (NodeKind kind : {NodeKind::multi_plane, NodeKind::single_plane})
        for (const Rate& r : rates)
            for (unsigned samples : {480u, 1024u, 1920u, 2002u})
                cases.push_back({kind, r.mode, r.n, r.d, samples});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(OnAir, LipSyncTest, ::testing::ValuesIn(lip_sync_cases()), case_name);

} // namespace
