// Captions, AFD/bar data and time code of the pictures' metadata as they leave
// the board, read back with readers of their own: the simulator's ANC and cdp
// readers, and GStreamer's ccconverter on buffers rebuilt from the captured
// packets.
#include "onair_driver.h"

#include "anc_decode.h"
#include "cdp_decode.h"
#include "gst_test_env.h"

#include <gst/video/video.h>

#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

namespace {

using qvboardsim::CapturedFrame;
using qvboardsim::NodeKind;
using triplet = std::array<uint8_t, 3>;

uint8_t odd_parity(uint8_t c)
{
    return static_cast<uint8_t>(__builtin_parity(c & 0x7F) ? (c & 0x7F) : (c | 0x80));
}

// The 608 pair of field 1 (or 2) stamped with frame i: two letters that name i.
std::pair<uint8_t, uint8_t> pair_of(int i, int field)
{
    const char base = field == 0 ? 'A' : 'a';
    return {odd_parity(static_cast<uint8_t>(base + i / 26 % 26)), odd_parity(static_cast<uint8_t>(base + i % 26))};
}

int frame_of_pair(uint8_t a, uint8_t b, int field)
{
    const int base = field == 0 ? 'A' : 'a';
    return ((a & 0x7F) - base) * 26 + ((b & 0x7F) - base);
}

// A DTVCC packet of frame i as four triplets: header (sequence, size), a
// service 1 block of six bytes naming the frame.
std::vector<triplet> dtvcc_of(int i)
{
    const auto header = static_cast<uint8_t>((i % 4) << 6 | 4);
    const uint8_t p[8] = {header, 0x26, static_cast<uint8_t>(0x20 + i % 90), 'q', 'v', 'j', 't', static_cast<uint8_t>(i)};
    return {{0xFF, p[0], p[1]}, {0xFE, p[2], p[3]}, {0xFE, p[4], p[5]}, {0xFE, p[6], p[7]}};
}

// What frame i carries: 608 pairs (one a field a frame up to 30 frames/s,
// the fields taking turns above) and one DTVCC packet.
struct frame_captions {
    std::vector<triplet> cea608; // as cc_data triplets, cc_type 0 or 1
    std::vector<triplet> dtvcc;
};

frame_captions captions_of(int i, float fps, bool field1Only)
{
    frame_captions c;
    for (int field = 0; field < 2; ++field) {
        if (field == 1 && field1Only)
            continue;
        if (fps > 31 && i % 2 != field)
            continue;
        const auto [a, b] = pair_of(i, field);
        c.cea608.push_back({static_cast<uint8_t>(0xFC | field), a, b});
    }
    c.dtvcc = dtvcc_of(i);
    return c;
}

// A cdp as the syntax has it, made here rather than by the element's writer.
std::vector<uint8_t> make_cdp(const std::vector<triplet>& cc, uint8_t rate, uint16_t seq)
{
    std::vector<uint8_t> b = {0x96, 0x69, 0, static_cast<uint8_t>(rate << 4 | 0xF), 0x43, uint8_t(seq >> 8),
                              uint8_t(seq), 0x72, static_cast<uint8_t>(0xE0 | cc.size())};
    for (const triplet& t : cc)
        b.insert(b.end(), t.begin(), t.end());
    b.insert(b.end(), {0x74, uint8_t(seq >> 8), uint8_t(seq), 0});
    b[2] = static_cast<uint8_t>(b.size());
    unsigned sum = 0;
    for (uint8_t v : b)
        sum += v;
    b.back() = static_cast<uint8_t>(0x100 - sum % 256);
    return b;
}

// How the captions reach the element: as metadata put on the pictures here
// in one of the forms, or from a caption stream through cccombiner.
enum class form { cc_data, cdp, s334_and_cc_data, raw_and_cdp, cccombiner };

void add_caption(GstBuffer* b, GstVideoCaptionType type, const std::vector<uint8_t>& data)
{
    gst_buffer_add_video_caption_meta(b, type, data.data(), data.size());
}

std::vector<uint8_t> flat(const std::vector<triplet>& t)
{
    std::vector<uint8_t> v;
    for (const triplet& x : t)
        v.insert(v.end(), x.begin(), x.end());
    return v;
}

void attach_captions(GstBuffer* b, form f, const frame_captions& c, uint8_t rate, int i)
{
    std::vector<triplet> all = c.cea608;
    all.insert(all.end(), c.dtvcc.begin(), c.dtvcc.end());
    switch (f) {
    case form::cc_data:
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, flat(all));
        break;
    case form::cdp:
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, make_cdp(all, rate, static_cast<uint16_t>(i)));
        break;
    case form::s334_and_cc_data: {
        std::vector<uint8_t> s334;
        for (const triplet& t : c.cea608)
            s334.insert(s334.end(), {static_cast<uint8_t>((t[0] & 1) ? 0x00 : 0x80), t[1], t[2]});
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A, s334);
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, flat(c.dtvcc));
        break;
    }
    case form::cccombiner:
        break;
    case form::raw_and_cdp: {
        std::vector<uint8_t> raw;
        for (const triplet& t : c.cea608)
            raw.insert(raw.end(), {t[1], t[2]});
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA608_RAW, raw);
        add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, make_cdp(c.dtvcc, rate, static_cast<uint16_t>(i)));
        break;
    }
    }
}

// AFD code and bars of frame i: codes of the standard in turn, letterbox and pillarbox.
struct afd_case {
    unsigned code;
    bool letterbox;
    unsigned bar1, bar2;
};
// Pictures 40 to 44 carry no AFD meta: their frames carry no AFD packet.
bool has_afd(int i)
{
    return i < 40 || i >= 45;
}

afd_case afd_of(int i)
{
    static const unsigned codes[] = {8, 9, 10, 11, 13, 14, 15, 2, 3, 4};
    return {codes[i / 5 % 10], i % 2 == 0, 10u + static_cast<unsigned>(i), 500u + static_cast<unsigned>(i)};
}

struct rate_of_mode {
    int num, den;
};
rate_of_mode rate_for(float fps)
{
    const long whole = std::lround(fps);
    return std::fabs(fps - whole) > 0.01 ? rate_of_mode{static_cast<int>(whole * 1000), 1001}
                                          : rate_of_mode{static_cast<int>(whole), 1};
}

uint8_t rate_code(float fps)
{
    const struct {
        float fps;
        uint8_t code;
    } rows[] = {{23.976f, 1}, {24, 2}, {25, 3}, {29.97f, 4}, {30, 5}, {50, 6}, {59.94f, 7}, {60, 8}};
    for (const auto& r : rows)
        if (std::fabs(r.fps - fps) < 0.01f)
            return r.code;
    return 0;
}

struct caption_case {
    const char* name;
    NodeKind kind;
    int mode;
    form captions;
    uint32_t ccRow, afdRow; // default lines, counted from 0
};

// The cc_data ccconverter makes of the cdps, one buffer a frame at the output rate.
std::vector<triplet> cc_data_by_ccconverter(const std::vector<std::vector<uint8_t>>& cdps, int num, int den)
{
    GstHarness* h = gst_harness_new("ccconverter");
    const std::string rate = ",framerate=" + std::to_string(num) + "/" + std::to_string(den);
    gst_harness_set_src_caps_str(h, ("closedcaption/x-cea-708,format=cdp" + rate).c_str());
    gst_harness_set_sink_caps_str(h, ("closedcaption/x-cea-708,format=cc_data" + rate).c_str());
    std::vector<triplet> out;
    auto pull_all = [&] {
        while (GstBuffer* b = gst_harness_try_pull(h)) {
            GstMapInfo m;
            if (gst_buffer_map(b, &m, GST_MAP_READ)) {
                for (size_t k = 0; k + 2 < m.size; k += 3)
                    out.push_back({m.data[k], m.data[k + 1], m.data[k + 2]});
                gst_buffer_unmap(b, &m);
            }
            gst_buffer_unref(b);
        }
    };
    const GstClockTime period = gst_util_uint64_scale(GST_SECOND, static_cast<guint64>(den), static_cast<guint64>(num));
    for (size_t i = 0; i < cdps.size(); ++i) {
        GstBuffer* b = gst_buffer_new_memdup(cdps[i].data(), cdps[i].size());
        GST_BUFFER_PTS(b) = i * period;
        GST_BUFFER_DURATION(b) = period;
        EXPECT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
        pull_all();
    }
    gst_harness_push_event(h, gst_event_new_eos());
    pull_all();
    gst_harness_teardown(h);
    return out;
}

void PrintTo(const caption_case& c, std::ostream* os)
{
    *os << c.name;
}

class OnAirCaptions : public OnAirTest, public ::testing::WithParamInterface<caption_case> {};

// What one output frame carried, read with the simulator's readers.
struct frame_seen {
    int tag = -1;
    std::vector<qvboardsim::CdpInfo> cdps;
    std::vector<std::vector<uint8_t>> cdpBytes;
    std::vector<uint32_t> cdpRows;
    std::vector<qvboardsim::AfdInfo> afds;
    std::vector<uint32_t> afdRows;
};

// cccombiner fed by two harnesses (pictures, captions); what it lets out goes
// on to the element's video pad.
struct caption_combiner {
    caption_combiner(const std::string& videoCaps, const std::string& captionCaps)
    {
        GstElement* e = gst_element_factory_make("cccombiner", nullptr);
        video = gst_harness_new_with_element(e, "sink", "src");
        captions = gst_harness_new_with_element(e, "caption", nullptr);
        gst_object_unref(e);
        gst_harness_set_src_caps_str(video, videoCaps.c_str());
        gst_harness_set_src_caps_str(captions, captionCaps.c_str());
    }
    ~caption_combiner()
    {
        gst_harness_teardown(captions);
        gst_harness_teardown(video);
    }
    caption_combiner(const caption_combiner&) = delete;
    caption_combiner& operator=(const caption_combiner&) = delete;

    // Forwards what came out; at the end waits (bounded) for everything.
    void forward(GstHarness* to, bool bAll)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(bAll ? 5 : 0);
        do {
            while (GstBuffer* b = gst_harness_try_pull(video)) {
                ++nOut;
                EXPECT_EQ(gst_harness_push(to, b), GST_FLOW_OK);
            }
            if (bAll && nOut < nPushed)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } while (bAll && nOut < nPushed && std::chrono::steady_clock::now() < end);
    }

    GstHarness* video = nullptr;
    GstHarness* captions = nullptr;
    int nPushed = 0; // pictures in
    int nOut = 0;    // pictures out
};

// The caption and AFD packets of a record; parity and checksum must hold.
frame_seen read_frame(const CapturedFrame& f, bool hd)
{
    frame_seen s;
    s.tag = OnAirTest::frame_of(f);
    for (uint32_t r = 0; r < f.vbi_lines; ++r)
        for (const auto& p : qvboardsim::find_anc(f.vbi.data() + size_t(r) * f.vbi_samples, f.vbi_samples, r, hd)) {
            EXPECT_TRUE(p.parity_ok && p.checksum_ok && !p.truncated) << "row " << r;
            if (p.did == 0x61 && p.sdid == 0x01) {
                s.cdps.push_back(qvboardsim::decode_cdp(p.udw));
                s.cdpBytes.push_back(p.udw);
                s.cdpRows.push_back(r);
            } else if (p.did == 0x41 && p.sdid == 0x05) {
                s.afds.push_back(qvboardsim::decode_afd(p.udw));
                s.afdRows.push_back(r);
            }
        }
    return s;
}

} // namespace

// Captions in every form, AFD with bars and a time code on every picture:
// the captions come back from the capture in order and within a frame of
// their picture, the cdps are regular, AFD and time code are the picture's.
TEST_P(OnAirCaptions, CaptionsAfdAndTimeCodeGoOutWithTheirPictures)
{
    const caption_case& c = GetParam();
    make_onair(c.kind, c.mode);
    m_video = harness("sink_video", video_caps().c_str());
    play();
    const float fps = m_row.fps;
    const rate_of_mode rate = rate_for(fps);
    const bool field1Only = c.captions == form::raw_and_cdp;
    const int nFrames = 60;

    std::vector<frame_seen> seen;
    std::map<int, GstVideoTimeCode*> tcs;
    std::unique_ptr<caption_combiner> combiner;
    if (c.captions == form::cccombiner) {
        if (!qv_test_gst_has_plugin("closedcaption"))
            GTEST_SKIP() << "cccombiner is not installed";
        const std::string ccCaps = "closedcaption/x-cea-708,format=cc_data,framerate=" + std::to_string(rate.num) +
                                   "/" + std::to_string(rate.den);
        combiner = std::make_unique<caption_combiner>(video_caps(), ccCaps);
    }
    // With cccombiner the pictures get their time code from timecodestamper, as a station's would.
    GstHarness* stamper = nullptr;
    if (combiner && qv_test_gst_has_plugin("timecode")) {
        stamper = gst_harness_new("timecodestamper");
        gst_harness_set_src_caps_str(stamper, video_caps().c_str());
    }
    run(
        nFrames,
        [&](int i) {
            GstBuffer* b = tagged_frame(i);
            attach_captions(b, c.captions, captions_of(i, fps, field1Only), rate_code(fps), i);
            const afd_case a = afd_of(i);
            if (has_afd(i)) {
                gst_buffer_add_video_afd_meta(b, 0, GST_VIDEO_AFD_SPEC_SMPTE_ST2016_1, GstVideoAFDValue(a.code));
                gst_buffer_add_video_bar_meta(b, 0, a.letterbox, a.bar1, a.bar2);
            }
            if (stamper) {
                // timecodestamper's time code, as it stamped it, is the one to read back.
                ASSERT_EQ(gst_harness_push(stamper, b), GST_FLOW_OK);
                b = gst_harness_pull(stamper);
                ASSERT_NE(b, nullptr);
                const GstVideoTimeCodeMeta* m = gst_buffer_get_video_time_code_meta(b);
                ASSERT_NE(m, nullptr);
                tcs[i] = gst_video_time_code_copy(&m->tc);
            } else {
                GstVideoTimeCode* tc = gst_video_time_code_new(rate.num, rate.den, nullptr,
                                                               GST_VIDEO_TIME_CODE_FLAGS_NONE, 10, 0, 0, 0, 0);
                gst_video_time_code_add_frames(tc, i);
                gst_buffer_add_video_time_code_meta(b, tc);
                tcs[i] = tc;
            }
            if (!combiner) {
                ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
                return;
            }
            // The caption stream beside the pictures: one cc_data buffer a frame.
            const frame_captions fc = captions_of(i, fps, field1Only);
            std::vector<triplet> all = fc.cea608;
            all.insert(all.end(), fc.dtvcc.begin(), fc.dtvcc.end());
            const std::vector<uint8_t> bytes = flat(all);
            GstBuffer* cc = gst_buffer_new_memdup(bytes.data(), bytes.size());
            GST_BUFFER_PTS(cc) = GST_BUFFER_PTS(b);
            GST_BUFFER_DURATION(cc) = GST_BUFFER_DURATION(b);
            ASSERT_EQ(gst_harness_push(combiner->captions, cc), GST_FLOW_OK);
            ++combiner->nPushed;
            ASSERT_EQ(gst_harness_push(combiner->video, b), GST_FLOW_OK);
            if (i == nFrames - 1) {
                gst_harness_push_event(combiner->captions, gst_event_new_eos());
                gst_harness_push_event(combiner->video, gst_event_new_eos());
            }
            combiner->forward(m_video, i == nFrames - 1);
        },
        [&](const CapturedFrame& f) {
            const int tag = frame_of(f);
            // Time code: every buffer of the frame carries its picture's.
            if (tag >= 0 && tcs.count(tag)) {
                const GstVideoTimeCode* tc = tcs[tag];
                EXPECT_TRUE(f.flags & V4L2_BUF_FLAG_TIMECODE) << "frame " << tag;
                EXPECT_EQ((std::array<unsigned, 4>{f.tc_hours, f.tc_minutes, f.tc_seconds, f.tc_frames}),
                          (std::array<unsigned, 4>{tc->hours, tc->minutes, tc->seconds, tc->frames}))
                    << "frame " << tag;
            }
            if (f.field != V4L2_FIELD_BOTTOM)
                seen.push_back(read_frame(f, m_row.isHD));
        });
    if (stamper) {
        gst_harness_teardown(stamper);
        // timecodestamper counts frame by frame from its own start.
        ASSERT_TRUE(tcs.count(0) && tcs.count(nFrames - 1));
        EXPECT_EQ(gst_video_time_code_frames_since_daily_jam(tcs[nFrames - 1]) -
                      gst_video_time_code_frames_since_daily_jam(tcs[0]),
                  static_cast<guint64>(nFrames - 1));
    }
    for (auto& [i, tc] : tcs)
        gst_video_time_code_free(tc);

    // Expected streams, in stamping order.
    std::vector<std::pair<uint8_t, uint8_t>> want608[2];
    std::vector<triplet> want708;
    for (int i = 0; i < nFrames; ++i) {
        const frame_captions fc = captions_of(i, fps, field1Only);
        for (const triplet& t : fc.cea608)
            want608[t[0] & 1].emplace_back(t[1], t[2]);
        want708.insert(want708.end(), fc.dtvcc.begin(), fc.dtvcc.end());
    }

    // The simulator's readers: one cdp a frame from the first caption on, on
    // the default line, with the rate's count and a counter running on.
    const unsigned ccCount = fps > 31 ? 10u + (fps < 55 ? 2u : 0u) : (fps < 24.5f ? 25u : fps < 26 ? 24u : 20u);
    std::vector<std::pair<uint8_t, uint8_t>> got608[2];
    std::vector<triplet> got708;
    std::vector<std::vector<uint8_t>> cdpBytes; // for ccconverter, in output order
    int lastSeq = -1, cdpFrames = 0, afdFrames = 0, late608 = 0;
    for (const frame_seen& s : seen) {
        if (s.tag < 0)
            continue;
        if (lastSeq >= 0 || !s.cdps.empty()) {
            ASSERT_EQ(s.cdps.size(), 1u) << "frame " << s.tag;
        }
        for (size_t k = 0; k < s.cdps.size(); ++k) {
            const qvboardsim::CdpInfo& cdp = s.cdps[k];
            ASSERT_TRUE(cdp.ok) << cdp.error;
            EXPECT_EQ(s.cdpRows[k], c.ccRow);
            EXPECT_EQ(cdp.rate_code, rate_code(fps));
            EXPECT_EQ(cdp.cc_count, ccCount);
            if (lastSeq >= 0) {
                EXPECT_EQ(cdp.sequence, static_cast<unsigned>((lastSeq + 1) % 65536));
            }
            lastSeq = static_cast<int>(cdp.sequence);
            ++cdpFrames;
            cdpBytes.push_back(s.cdpBytes[k]);
            for (const triplet& t : cdp.cc) {
                if (!(t[0] & 0x04))
                    continue;
                const int type = t[0] & 3;
                if (type < 2) {
                    got608[type].emplace_back(t[1], t[2]);
                    late608 += std::abs(frame_of_pair(t[1], t[2], type) - s.tag) > 1;
                } else {
                    got708.push_back(t);
                }
            }
        }
        if (!has_afd(s.tag)) {
            EXPECT_TRUE(s.afds.empty()) << "frame " << s.tag << " has no AFD meta";
            continue;
        }
        ASSERT_EQ(s.afds.size(), 1u) << "frame " << s.tag;
        const afd_case a = afd_of(s.tag);
        const qvboardsim::AfdInfo& afd = s.afds[0];
        EXPECT_EQ(s.afdRows[0], c.afdRow);
        EXPECT_EQ(afd.afd, a.code) << "frame " << s.tag;
        EXPECT_EQ(afd.wide, m_row.isHD) << "the picture's shape: 720x576 with square pixels is not 16:9";
        EXPECT_EQ(afd.bar_flags, a.letterbox ? 0xCu : 0x3u) << "frame " << s.tag;
        EXPECT_EQ(afd.bar1, a.bar1);
        EXPECT_EQ(afd.bar2, a.bar2);
        ++afdFrames;
    }
    // The last frames the board had queued at the stop are not in the
    // capture: what came out is what went in up to there, none missing.
    EXPECT_GE(cdpFrames, nFrames - 6);
    const int lastTag = seen.empty() ? 0 : seen.back().tag;
    const auto prefix_of_want = [&](const auto& got, const auto& want, const char* what) {
        ASSERT_LE(got.size(), want.size()) << what;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin())) << what << " out of order or changed";
    };
    prefix_of_want(got608[0], want608[0], "608 field 1");
    prefix_of_want(got608[1], want608[1], "608 field 2");
    prefix_of_want(got708, want708, "DTVCC");
    if (!got608[0].empty()) {
        EXPECT_GE(frame_of_pair(got608[0].back().first, got608[0].back().second, 0), lastTag - 1);
    }
    EXPECT_GE(got708.size(), 4u * static_cast<size_t>(lastTag - 1));
    EXPECT_EQ(late608, 0) << "608 pairs more than a frame away from their picture";

    // GStreamer's own cdp reader on the packets as they went out gives the
    // same byte pairs and DTVCC data in the same order.
    if (qv_test_gst_has_plugin("closedcaption")) {
        std::vector<triplet> oracle;
        for (const triplet& t : cc_data_by_ccconverter(cdpBytes, rate.num, rate.den))
            if (t[0] & 0x04)
                oracle.push_back(t);
        std::vector<std::pair<uint8_t, uint8_t>> o608[2];
        std::vector<triplet> o708;
        for (const triplet& t : oracle) {
            if ((t[0] & 3) < 2) {
                if ((t[1] & 0x7F) || (t[2] & 0x7F))
                    o608[t[0] & 1].emplace_back(t[1], t[2]);
            } else {
                o708.push_back(t);
            }
        }
        EXPECT_FALSE(o708.empty());
        EXPECT_EQ(o608[0], got608[0]);
        EXPECT_EQ(o608[1], got608[1]);
        EXPECT_EQ(o708, got708);
    }
    EXPECT_EQ(stat("Caption triplets dropped"), "0");
    EXPECT_EQ(stat("Caption triplets sent"), std::to_string(want608[0].size() + want608[1].size() + want708.size()));
    EXPECT_EQ(stat("Caption blocks refused"), "0");
    EXPECT_GE(std::stoi(stat("AFD frames")), afdFrames);
    EXPECT_FALSE(stat("Timecode").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Boards, OnAirCaptions,
    ::testing::Values(caption_case{"Cdp1080i50MultiPlane", NodeKind::multi_plane, 2, form::cdp, 8, 10},
                      caption_case{"CcData720p5994MultiPlane", NodeKind::multi_plane, 7, form::cc_data, 8, 10},
                      caption_case{"S334And708_576iMultiPlane", NodeKind::multi_plane, 0, form::s334_and_cc_data, 4, 3},
                      caption_case{"RawAndCdp1080i60SinglePlane", NodeKind::single_plane, 3, form::raw_and_cdp, 8,
                                   10},
                      caption_case{"Cccombiner1080i50MultiPlane", NodeKind::multi_plane, 2, form::cccombiner, 8, 10},
                      caption_case{"Cccombiner720p5994MultiPlane", NodeKind::multi_plane, 7, form::cccombiner, 8, 10},
                      caption_case{"Cccombiner576iMultiPlane", NodeKind::multi_plane, 0, form::cccombiner, 4, 3},
                      caption_case{"Cccombiner1080i60SinglePlane", NodeKind::single_plane, 3, form::cccombiner, 8,
                                   10}),
    [](const auto& i) { return std::string(i.param.name); });

class OnAirCaptionInput : public OnAirTest {};

// Runs of malformed cdps between good ones: each run is reported once and
// counted, every picture still goes out, and the good captions around the
// runs go out whole and in order.
TEST_F(OnAirCaptionInput, MalformedCdpsAreDroppedOncePerRunAndThePicturesGoOn)
{
    make_onair(NodeKind::single_plane, 3);
    m_video = harness("sink_video", video_caps().c_str());
    print_capture console;
    play();
    const float fps = m_row.fps;
    const int nFrames = 60;
    const auto bad = [](int i) { return (i >= 10 && i < 20) || (i >= 30 && i < 40); };
    std::vector<frame_seen> seen;
    run(
        nFrames,
        [&](int i) {
            GstBuffer* b = tagged_frame(i);
            std::vector<uint8_t> cdp = make_cdp(captions_of(i, fps, false).cea608, rate_code(fps), uint16_t(i));
            if (bad(i)) {
                switch (i % 4) {
                case 0: // the length byte says more than there is
                    cdp[2] = static_cast<uint8_t>(cdp[2] + 9);
                    break;
                case 1:
                    cdp.back() ^= 0x5A; // checksum
                    break;
                case 2: { // cc_count beyond the packet, length and checksum made to agree
                    cdp[8] = 0xFF;
                    unsigned sum = 0;
                    for (size_t k = 0; k + 1 < cdp.size(); ++k)
                        sum += cdp[k];
                    cdp.back() = static_cast<uint8_t>(0x100 - sum % 256);
                    break;
                }
                default: // noise far longer than any cdp
                    cdp.assign(4000, static_cast<uint8_t>(i));
                    break;
                }
            }
            add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, cdp);
            ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
        },
        [&](const CapturedFrame& f) { seen.push_back(read_frame(f, m_row.isHD)); });

    EXPECT_EQ(console.count_containing("caption metadata dropped"), 2u);
    std::vector<std::pair<uint8_t, uint8_t>> got[2];
    int expectTag = seen.empty() ? 0 : seen.front().tag;
    for (const frame_seen& s : seen) {
        EXPECT_EQ(s.tag, expectTag++) << "every picture goes out once, in order";
        if (s.cdps.empty())
            continue;
        ASSERT_TRUE(s.cdps[0].ok) << s.cdps[0].error;
        for (const triplet& t : s.cdps[0].cc)
            if ((t[0] & 0x04) && (t[0] & 3) < 2)
                got[t[0] & 1].emplace_back(t[1], t[2]);
    }
    for (int field = 0; field < 2; ++field) {
        std::vector<std::pair<uint8_t, uint8_t>> want;
        for (int i = 0; i < nFrames && want.size() < got[field].size(); ++i)
            if (!bad(i))
                want.push_back(pair_of(i, field));
        EXPECT_EQ(got[field], want) << "field " << field + 1;
        EXPECT_GE(got[field].size(), 25u);
    }
    EXPECT_EQ(stat("Caption blocks refused"), "20");
}

// The line map moves captions and AFD; a default line that teletext holds
// moves to the next free line with a warning; a line named twice stays with
// the first.
TEST_F(OnAirCaptionInput, LineMapPlacesCaptionsAndAfd)
{
    const struct {
        const char* map;
        uint32_t ccRow, afdRow;
        const char* warning;
    } cases[] = {
        {"cc=14;afd=16", 13, 15, nullptr},
        {"teletext=9-10", 10, 11, "packets go on line 11"},
        {"afd=12;cc=12", 8, 11, "already taken by afd"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.map);
        make_onair(NodeKind::multi_plane, 6);
        print_capture console;
        g_object_set(m_pElement, "line-map", c.map, nullptr);
        m_video = harness("sink_video", video_caps().c_str());
        play();
        std::vector<frame_seen> seen;
        run(
            12,
            [&](int i) {
                GstBuffer* b = tagged_frame(i);
                add_caption(b, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, flat(captions_of(i, m_row.fps, false).cea608));
                gst_buffer_add_video_afd_meta(b, 0, GST_VIDEO_AFD_SPEC_SMPTE_ST2016_1, GST_VIDEO_AFD_16_9_TOP_ALIGNED);
                ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
            },
            [&](const CapturedFrame& f) { seen.push_back(read_frame(f, m_row.isHD)); });
        ASSERT_FALSE(seen.empty());
        for (const frame_seen& s : seen) {
            ASSERT_EQ(s.cdpRows.size(), 1u);
            ASSERT_EQ(s.afdRows.size(), 1u);
            EXPECT_EQ(s.cdpRows[0], c.ccRow);
            EXPECT_EQ(s.afdRows[0], c.afdRow);
            EXPECT_EQ(s.afds[0].afd, 2u);
            EXPECT_EQ(s.afds[0].bar_flags, 0u) << "no bar meta, no bars";
        }
        if (c.warning) {
            EXPECT_GE(console.count_containing(c.warning), 1u);
        }
        TearDown();
    }
}

// With the raw VBI pad in use, a time code that comes through it is the
// frame's; frames whose VBI data carries none take their picture's.
TEST_F(OnAirCaptionInput, TheVbiPadsTimeCodeComesBeforeThePictures)
{
    make_onair(NodeKind::multi_plane, 6);
    g_object_set(m_pElement, "use_vbi", TRUE, nullptr);
    m_video = harness("sink_video", video_caps().c_str());
    GstHarness* vbi = harness("sink_vbi", "application/x-vbi,format=Y10,width=1280,height=25,framerate=50/1,"
                                          "interlace-mode=progressive,count-0=25,count-1=0,start-0=1,start-1=0,"
                                          "sample-per-line=2560");
    play();
    const auto stamp = [&](GstBuffer* b, guint hours, int i) {
        GstVideoTimeCode* tc =
            gst_video_time_code_new(50, 1, nullptr, GST_VIDEO_TIME_CODE_FLAGS_NONE, hours, 0, 0, 0, 0);
        gst_video_time_code_add_frames(tc, i);
        gst_buffer_add_video_time_code_meta(b, tc);
        gst_video_time_code_free(tc);
    };
    std::map<int, unsigned> hours; // frame -> hours of the time code that went out
    run(
        40,
        [&](int i) {
            GstBuffer* v = tagged_frame(i);
            stamp(v, 11, i);
            GstBuffer* d = gst_buffer_new_allocate(nullptr, 1280 * 4, nullptr);
            gst_buffer_memset(d, 0, 0, 1280 * 4);
            GST_BUFFER_PTS(d) = GST_BUFFER_PTS(v);
            GST_BUFFER_DURATION(d) = GST_BUFFER_DURATION(v);
            if (i % 2 == 0)
                stamp(d, 10, i);
            ASSERT_EQ(gst_harness_push(vbi, d), GST_FLOW_OK);
            ASSERT_EQ(gst_harness_push(m_video, v), GST_FLOW_OK);
        },
        [&](const CapturedFrame& f) {
            if (frame_of(f) >= 0 && (f.flags & V4L2_BUF_FLAG_TIMECODE))
                hours[frame_of(f)] = f.tc_hours;
        });
    ASSERT_GE(hours.size(), 20u);
    // The VBI stream's very first frame is not the output's first (its FIFO
    // starts after the pictures'): from the second frame on both streams play.
    for (const auto& [frame, h] : hours) {
        if (frame >= 2) {
            EXPECT_EQ(h, frame % 2 == 0 ? 10u : 11u) << "frame " << frame;
        }
    }
}
