// Ancillary data as it leaves the board, read back with decoders of its own:
// SCTE-104 (and SCTE-35 after conversion) in SMPTE 2010 packets, teletext as a
// WST waveform (sliced by libzvbi) at SD and in OP-47 packets at HD, and line
// tables that point anywhere.
#include "onair_driver.h"

#include "anc_decode.h"
#include "mpeg2_crc32.h"

#include <libzvbi.h>

#include <array>
#include <map>
#include <set>
#include <tuple>

namespace {

using qvboardsim::CapturedFrame;
using qvboardsim::NodeKind;

struct raster_case {
    const char* name;
    NodeKind kind;
    int mode;
    uint32_t lines[2]; // VBI/VANC lines of each field
};

const raster_case k_sd{"SinglePlane576i", NodeKind::single_plane, 0, {22, 23}};
const raster_case k_720{"MultiPlane720p", NodeKind::multi_plane, 6, {25, 0}};
const raster_case k_1080i{"MultiPlane1080i", NodeKind::multi_plane, 2, {20, 21}};
const raster_case k_1080p{"SinglePlane1080p", NodeKind::single_plane, 11, {41, 0}};
const raster_case k_rasters[] = {k_sd, k_720, k_1080i, k_1080p};

template <class P>
std::string param_name(const ::testing::TestParamInfo<P>& i)
{
    return i.param.name;
}

// Every ANC packet of DID/SDID in a record, with its row; parity and checksum must hold.
template <class Fn>
void for_each_anc(const CapturedFrame& f, bool hd, uint8_t did, uint8_t sdid, Fn fn)
{
    for (uint32_t r = 0; r < f.vbi_lines; ++r)
        for (const auto& p : qvboardsim::find_anc(f.vbi.data() + size_t(r) * f.vbi_samples, f.vbi_samples, r, hd))
            if (p.did == did && p.sdid == sdid) {
                EXPECT_TRUE(p.parity_ok && p.checksum_ok && !p.truncated) << "row " << r;
                fn(p, r);
            }
}

// Rows of a record that are not blank (black is 0x200 / 0x040).
std::set<uint32_t> written_rows(const CapturedFrame& f)
{
    std::set<uint32_t> rows;
    for (uint32_t r = 0; r < f.vbi_lines; ++r)
        for (uint32_t s = 0; s < f.vbi_samples; ++s)
            if (f.vbi[size_t(r) * f.vbi_samples + s] != (s % 2 == 0 ? 0x200 : 0x040)) {
                rows.insert(r);
                break;
            }
    return rows;
}

class Ancillary : public OnAirTest {
protected:
    // The board of raster r with lines first..last of the line table set to
    // service, video and one data pad; play() is left to the caller.
    GstHarness* start(const raster_case& r, int first, int last, guint8 service, const char* pad, const char* caps)
    {
        make_onair(r.kind, r.mode);
        guint8 lines[64] = {};
        std::fill(lines + first - 1, lines + last, service);
        g_object_set(m_pElement, "vbi_lines", lines, nullptr);
        m_video = harness("sink_video", video_caps().c_str());
        return harness(pad, caps);
    }
    void push(GstHarness* h, const std::vector<uint8_t>& bytes, int frame = -1)
    {
        GstBuffer* b = gst_buffer_new_memdup(bytes.data(), bytes.size());
        if (frame >= 0) {
            GST_BUFFER_PTS(b) = frame * frame_ns();
            GST_BUFFER_DURATION(b) = frame_ns();
        }
        ASSERT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
    }
    void push_video(int i) { ASSERT_EQ(gst_harness_push(m_video, tagged_frame(i)), GST_FLOW_OK); }
};

// ---- SCTE-104 ----------------------------------------------------------------

// multiple_operation_message with one splice_request_data whose
// splice_event_id (bytes 17 to 20) carries id.
std::vector<uint8_t> scte104_message(uint32_t id)
{
    std::vector<uint8_t> m = {0xFF, 0xFF, 0x00, 0x1E, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x01, 0x00,
                              0x0E, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x0F, 0xA0, 0x00, 0x00, 0x00, 0x00, 0x01};
    for (int k = 0; k < 4; ++k)
        m[17 + k] = static_cast<uint8_t>(id >> (24 - 8 * k));
    return m;
}

// The splice_insert sample section of the SCTE 35 standard with its
// splice_event_id replaced by id, behind a pointer field of 0.
std::vector<uint8_t> scte35_section(uint32_t id)
{
    gsize n = 0;
    guchar* s = g_base64_decode("/DAvAAAAAAAA///wFAVIAACPf+/+c2nALv4AUsz1AAAAAAAKAAhDVUVJAAABNWLbowo=", &n);
    std::vector<uint8_t> v(s, s + n);
    g_free(s);
    for (int k = 0; k < 4; ++k)
        v[14 + k] = static_cast<uint8_t>(id >> (24 - 8 * k));
    const uint32_t crc = mpegcore::mpeg2_crc32(v.data(), v.size() - 4);
    for (int k = 0; k < 4; ++k)
        v[v.size() - 4 + k] = static_cast<uint8_t>(crc >> (24 - 8 * k));
    v.insert(v.begin(), 0x00);
    return v;
}

// Every SCTE-104 packet in a record: (event id, row, the frame it went out with).
struct scte_seen {
    uint32_t id;
    uint32_t row;
    int frame;
};

void find_scte104(const CapturedFrame& f, bool hd, std::vector<scte_seen>& out)
{
    for_each_anc(f, hd, 0x41, 0x07, [&](const qvboardsim::AncPacket& p, uint32_t r) {
        // After the payload descriptor: the message; its event id sits at
        // byte 17 for both what went in and what SCTE-35 became.
        if (p.udw.size() < 1 + 21)
            return;
        const uint8_t* m = p.udw.data() + 1;
        out.push_back({(uint32_t(m[17]) << 24) | (m[18] << 16) | (m[19] << 8) | m[20], r, OnAirTest::frame_of(f)});
    });
}

struct message_case {
    const char* name;
    raster_case raster;
    bool scte35;
};

class OnAirMessages : public Ancillary, public ::testing::WithParamInterface<message_case> {};

// N messages in, N packets out, each once, on the configured line, in the
// frame of the picture it was stamped with.
TEST_P(OnAirMessages, EachMessageGoesOutOnceOnItsLineWithItsPicture)
{
    const message_case& c = GetParam();
    GstHarness* scte = c.scte35 ? start(c.raster, 10, 10, 2, "sink_scte35", "application/x-scte35")
                                : start(c.raster, 10, 10, 2, "sink_scte104", "application/x-scte104");
    play();
    const int nFrames = 80;
    std::map<uint32_t, int> sent; // event id -> frame it was stamped with
    std::vector<scte_seen> seen;
    run(
        nFrames,
        [&](int i) {
            push_video(i);
            if (i >= 12 && i < nFrames - 20 && i % 3 == 0) {
                const uint32_t id = 0x48000000u + static_cast<uint32_t>(i);
                push(scte, c.scte35 ? scte35_section(id) : scte104_message(id));
                sent[id] = i;
            }
        },
        [&](const CapturedFrame& f) { find_scte104(f, m_row.isHD, seen); });

    std::map<uint32_t, int> times;
    std::map<int, int> offsets; // output frame minus stamped frame -> messages
    for (const auto& s : seen) {
        ++times[s.id];
        EXPECT_EQ(s.row, 10u) << "message " << std::hex << s.id;
        ASSERT_TRUE(sent.count(s.id)) << "a message nobody sent: " << std::hex << s.id;
        ++offsets[s.frame - sent[s.id]];
    }
    EXPECT_EQ(offsets, (std::map<int, int>{{0, static_cast<int>(seen.size())}}))
        << "messages by (picture they left with - picture they were stamped with)";
    for (const auto& [id, frame] : sent)
        EXPECT_EQ(times[id], 1) << "message of frame " << frame;
}

INSTANTIATE_TEST_SUITE_P(Boards, OnAirMessages,
                         ::testing::Values(message_case{"SinglePlane576i", k_sd, false},
                                           message_case{"MultiPlane720p", k_720, false},
                                           message_case{"MultiPlane1080i", k_1080i, false},
                                           message_case{"Scte35SinglePlane1080p", k_1080p, true},
                                           message_case{"Scte35MultiPlane720p", k_720, true}),
                         param_name<message_case>);

// ---- teletext -----------------------------------------------------------------

uint8_t reverse_bits(uint8_t b)
{
    uint8_t r = 0;
    for (int i = 0; i < 8; ++i)
        if (b & (1u << i))
            r = static_cast<uint8_t>(r | (0x80u >> i));
    return r;
}

// The 42 bytes of row k of frame i's page, as they go out (LSB first on the line).
std::array<uint8_t, 42> page_row(int i, int k)
{
    std::array<uint8_t, 42> b{};
    for (int j = 0; j < 42; ++j)
        b[j] = static_cast<uint8_t>(i * 13 + k * 71 + j * 5 + 1);
    b[0] = static_cast<uint8_t>(i);
    b[1] = static_cast<uint8_t>(k);
    return b;
}

// A four-row page a frame, two rows in each field: (first field, data unit line offset).
constexpr std::pair<bool, int> k_rows[4] = {{true, 7}, {true, 8}, {false, 20}, {false, 21}};

// A PES data field of EBU data units: (first field, line offset, the 42 bytes as they go out).
std::vector<uint8_t> teletext_pes(const std::vector<std::tuple<bool, int, std::array<uint8_t, 42>>>& units)
{
    std::vector<uint8_t> d = {0x10};
    for (const auto& [first, offset, bytes] : units) {
        d.insert(d.end(), {0x02, 0x2C, static_cast<uint8_t>(0xC0 | (first ? 0x20 : 0) | offset), 0xE4});
        for (uint8_t v : bytes)
            d.push_back(reverse_bits(v));
    }
    return d;
}

class OnAirTeletext : public Ancillary, public ::testing::WithParamInterface<raster_case> {};

// A subtitle page every frame for 10 s: every packet exactly once, on its line and field.
TEST_P(OnAirTeletext, EveryPacketOnceOnItsLineAndField)
{
    GstHarness* ttx = start(GetParam(), 7, 22, 1, "sink_teletext", "application/x-teletext");
    play();
    const bool hd = m_row.isHD;

    vbi_raw_decoder rd;
    vbi_raw_decoder_init(&rd);
    rd.scanning = 625;
    rd.sampling_format = VBI_PIXFMT_YUV420; // 8-bit luma samples
    rd.sampling_rate = 13500000;
    rd.bytes_per_line = m_row.width;
    rd.offset = 132; // our line starts this many samples after 0H
    rd.start[0] = 1;
    rd.count[0] = 22;
    rd.start[1] = 313;
    rd.count[1] = 23;
    rd.interlaced = FALSE;
    rd.synchronous = TRUE;
    if (!hd) {
        ASSERT_NE(vbi_raw_decoder_add_services(&rd, VBI_SLICED_TELETEXT_B, 0), 0u);
    }

    const int nFrames = static_cast<int>(10 * m_row.fps);
    std::map<std::pair<int, int>, int> times; // (frame, row of the page) -> packets
    int frames = 0, wrong = 0, wrongFrame = 0;
    std::set<int> sdpLines;
    auto account = [&](const uint8_t* data, bool first, int offset, int frame) {
        const int i = data[0], k = data[1];
        std::array<uint8_t, 42> a{};
        std::copy(data, data + 42, a.begin());
        if (k > 3 || page_row(i, k) != a) {
            ++wrong;
            return;
        }
        ++times[{i, k}];
        EXPECT_EQ(first, k_rows[k].first) << "frame " << i << " row " << k;
        EXPECT_EQ(offset, k_rows[k].second) << "frame " << i << " row " << k;
        wrongFrame += (i % 200) != frame;
    };
    std::vector<uint8_t> raw;
    run(
        nFrames,
        [&](int i) {
            push_video(i);
            std::vector<std::tuple<bool, int, std::array<uint8_t, 42>>> units;
            for (int k = 0; k < 4; ++k)
                units.emplace_back(k_rows[k].first, k_rows[k].second, page_row(i, k));
            push(ttx, teletext_pes(units), i);
        },
        [&](const CapturedFrame& f) {
            ++frames;
            if (!hd) {
                // The VBI node's lines, both fields, as 8-bit luma for the slicer.
                raw.assign(size_t(f.vbi_lines) * m_row.width, 0);
                for (uint32_t r = 0; r < f.vbi_lines; ++r)
                    for (int p = 0; p < m_row.width; ++p)
                        raw[size_t(r) * m_row.width + p] =
                            static_cast<uint8_t>(f.vbi[size_t(r) * f.vbi_samples + 2 * p + 1] >> 2);
                vbi_sliced sliced[64];
                const int n = vbi_raw_decode(&rd, raw.data(), sliced);
                for (int s = 0; s < n; ++s) {
                    const bool first = sliced[s].line < 313;
                    const int offset = static_cast<int>(first ? sliced[s].line : sliced[s].line - 313);
                    account(sliced[s].data, first, offset, frame_of(f));
                }
                return;
            }
            // OP-47: subtitling data packets in the VANC luma.
            const bool first = f.field != V4L2_FIELD_BOTTOM;
            for_each_anc(f, true, 0x43, 0x02, [&](const qvboardsim::AncPacket& p, uint32_t r) {
                sdpLines.insert((first ? 0 : 100) + static_cast<int>(r) + 1);
                const auto& u = p.udw;
                ASSERT_GE(u.size(), 13u);
                ASSERT_EQ(u[0], 0x51);
                ASSERT_EQ(u[1], 0x15);
                ASSERT_EQ(u[2], u.size());
                uint8_t sum = 0;
                for (uint8_t v : u)
                    sum = static_cast<uint8_t>(sum + v);
                EXPECT_EQ(sum, 0);
                size_t at = 9;
                for (int d = 0; d < 5; ++d) {
                    const uint8_t desc = u[4 + d];
                    if (desc == 0)
                        continue;
                    ASSERT_LE(at + 45 + 4, u.size());
                    EXPECT_EQ(u[at + 2], 0x27) << "framing code";
                    // The descriptor says the packet's own field; the SDP rides in its field's VANC.
                    const bool descFirst = (desc & 0x80) != 0;
                    EXPECT_EQ(descFirst, first);
                    account(&u[at + 3], descFirst, desc & 0x1F, frame_of(f));
                    at += 45;
                }
            });
        });
    vbi_raw_decoder_destroy(&rd);

    ASSERT_GT(frames, nFrames / 2);
    EXPECT_EQ(wrong, 0) << "packets that did not decode to what was sent";
    // Every packet of every page that went out, exactly once; the pages at
    // the edges of the run may be missing, but never a row within a page.
    std::map<int, int> rows;
    for (const auto& [key, n] : times) {
        EXPECT_EQ(n, 1) << "frame " << key.first << " row " << key.second;
        ++rows[key.first];
    }
    for (const auto& [i, n] : rows)
        EXPECT_EQ(n, 4) << "page of frame " << i;
    EXPECT_GE(rows.size(), static_cast<size_t>(nFrames - 2 * (0.2 * m_row.fps + 8)));
    EXPECT_EQ(wrongFrame, 0) << "pages that left with another frame's picture";
    if (hd) {
        // Both fields' rows fit one packet each, on the first enabled VANC line.
        EXPECT_EQ(sdpLines, (std::set<int>{7, 107}));
    }
}

INSTANTIATE_TEST_SUITE_P(Rasters, OnAirTeletext,
                         ::testing::Values(raster_case{"Wst576i", NodeKind::single_plane, 0, {22, 23}},
                                           raster_case{"Op47At1080i", NodeKind::multi_plane, 2, {20, 21}}),
                         param_name<raster_case>);

// ---- line tables ----------------------------------------------------------------

class OnAirTeletextLines : public Ancillary, public ::testing::WithParamInterface<raster_case> {};

// Every line entry set to teletext and a data unit for every line offset of
// both fields: what lies inside the area is written there, what lies outside
// is refused with one message per line, and nothing lands anywhere else.
TEST_P(OnAirTeletextLines, InsideTheAreaOrRefusedOnce)
{
    const raster_case& c = GetParam();
    GstHarness* ttx = start(c, 1, 64, 1, "sink_teletext", "application/x-teletext");
    print_capture console;
    play();

    std::vector<std::tuple<bool, int, std::array<uint8_t, 42>>> units;
    for (int field = 0; field < 2; ++field)
        for (int offset = 0; offset < 32; ++offset) {
            std::array<uint8_t, 42> bytes;
            bytes.fill(reverse_bits(static_cast<uint8_t>(0x80 + offset)));
            units.emplace_back(field == 0, offset, bytes);
        }
    const std::vector<uint8_t> pes = teletext_pes(units);
    std::set<uint32_t> rows[2];
    int frames = 0;
    run(
        16,
        [&](int i) {
            push_video(i);
            push(ttx, pes, i);
        },
        [&](const CapturedFrame& f) {
            ++frames;
            ASSERT_EQ(f.vbi.size(), size_t(f.vbi_lines) * f.vbi_samples);
            for (uint32_t r : written_rows(f)) {
                // Single-plane records hold both fields, multi-plane ones one field each.
                const bool second = f.field == V4L2_FIELD_BOTTOM || (f.field != V4L2_FIELD_TOP && r >= c.lines[0]);
                rows[second ? 1 : 0].insert(second && f.field != V4L2_FIELD_BOTTOM ? r - c.lines[0] : r);
            }
        });
    ASSERT_GT(frames, 4);

    const bool interlaced = c.lines[1] != 0;
    for (int field = 0; field < (interlaced ? 2 : 1); ++field) {
        // SD lines are the data units' offsets (field 1: 1 to 31, field 2:
        // 2 to 32 counted from the field's first line); HD takes the mask's 1 to 32.
        const uint32_t first = !m_row.isHD && field == 1 ? 2 : 1;
        const uint32_t last = !m_row.isHD && field == 0 ? 31 : 32;
        for (uint32_t line = first; line <= last; ++line) {
            const bool inside = line <= c.lines[field];
            const std::string what = "teletext line " + std::to_string(line) + " of field " + std::to_string(field + 1) +
                                     " is outside";
            EXPECT_EQ(console.count_containing(what), inside ? 0u : 1u) << what;
        }
        for (uint32_t r : rows[field])
            EXPECT_LT(r, c.lines[field]) << "field " << field + 1;
    }
    if (!m_row.isHD) {
        // Each offset on its own row; field 1 counts from line 1, field 2 from offset 0.
        std::set<uint32_t> want[2];
        for (uint32_t o = 1; o <= c.lines[0]; ++o)
            want[0].insert(o - 1);
        for (uint32_t o = 1; o + 1 <= c.lines[1]; ++o)
            want[1].insert(o);
        EXPECT_EQ(rows[0], want[0]);
        EXPECT_EQ(rows[1], want[1]);
    }
}

INSTANTIATE_TEST_SUITE_P(Rasters, OnAirTeletextLines, ::testing::ValuesIn(k_rasters), param_name<raster_case>);

struct scte_line_case {
    raster_case raster;
    int entry; // "vbi_lines" entry set to SCTE-104 (1 to 64)
};

class OnAirScteLines : public Ancillary, public ::testing::WithParamInterface<scte_line_case> {};

// An SCTE-104 line entry goes out on its row when the first field's area has
// it, and is otherwise refused with one message, whatever the message count.
TEST_P(OnAirScteLines, InsideTheAreaOrRefusedOnce)
{
    const raster_case& c = GetParam().raster;
    const int entry = GetParam().entry;
    GstHarness* scte = start(c, entry, entry, 2, "sink_scte104", "application/x-scte104");
    print_capture console;
    play();
    std::vector<scte_seen> seen;
    std::set<uint32_t> rows;
    int sent = 0;
    run(
        24,
        [&](int i) {
            push_video(i);
            if (i >= 10 && i < 16) {
                push(scte, scte104_message(static_cast<uint32_t>(i)));
                ++sent;
            }
        },
        [&](const CapturedFrame& f) {
            if (f.field != V4L2_FIELD_BOTTOM)
                find_scte104(f, m_row.isHD, seen);
            for (uint32_t r : written_rows(f))
                rows.insert(r);
        });

    // The row is the entry's line number itself.
    const uint32_t row = static_cast<uint32_t>(entry);
    const bool inside = row < c.lines[0];
    EXPECT_EQ(console.count_containing("SCTE-104 line " + std::to_string(row) + " is outside"), inside ? 0u : 1u);
    if (inside) {
        EXPECT_EQ(seen.size(), static_cast<size_t>(sent));
        EXPECT_EQ(rows, std::set<uint32_t>{row});
    } else {
        EXPECT_TRUE(seen.empty());
        EXPECT_TRUE(rows.empty()) << "nothing written anywhere else";
    }
}

std::vector<scte_line_case> scte_line_cases()
{
    // At every raster: the first line, the last inside, the first outside and the last entry.
    std::vector<scte_line_case> v;
    for (const raster_case& r : k_rasters)
        for (int e : {1, static_cast<int>(r.lines[0]) - 1, static_cast<int>(r.lines[0]), 64})
            v.push_back({r, e});
    return v;
}

INSTANTIATE_TEST_SUITE_P(Rasters, OnAirScteLines, ::testing::ValuesIn(scte_line_cases()),
                         [](const ::testing::TestParamInfo<scte_line_case>& i) {
                             return std::string(i.param.raster.name) + "Entry" + std::to_string(i.param.entry);
                         });

} // namespace
