#include "anc_decode.h"
#include "qv_afd_bar.h"
#include "qv_anc_packet.h"
#include "qv_cc_queue.h"
#include "qv_cdp.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<uint8_t> cdp_of(float fps, uint16_t seq, const std::vector<qv_cc_triplet>& t)
{
    std::vector<uint8_t> out(QV_CDP_MAX_SIZE);
    out.resize(qv_cdp_write(qv_cdp_rate_for(fps).nCode, seq, t.data(), t.size(), out.data(), out.size()));
    return out;
}

// The 608 pairs of one field, in the order the frames carry them.
std::vector<std::pair<uint8_t, uint8_t>> pairs_of(const std::vector<qv_cc_triplet>& frames, uint8_t type)
{
    std::vector<std::pair<uint8_t, uint8_t>> out;
    for (const qv_cc_triplet& t : frames)
        if (t.valid() && t.type() == type)
            out.emplace_back(t.b1, t.b2);
    return out;
}

} // namespace

// Bytes worked out by hand from the cdp syntax: 25 frames/s (code 3), two triplets.
TEST(Cdp, WritesTheHeaderSectionsAndChecksumOfTheSyntax)
{
    const std::vector<uint8_t> expected = {0x96, 0x69, 0x13, 0x3F, 0x43, 0x12, 0x34, 0x72, 0xE2, 0xFC,
                                           0xC1, 0xC2, 0xFE, 0x01, 0x02, 0x74, 0x12, 0x34, 0x98};
    EXPECT_EQ(cdp_of(25.0f, 0x1234, {{0xFC, 0xC1, 0xC2}, {0xFE, 0x01, 0x02}}), expected);
    qv_cdp_packet p;
    ASSERT_EQ(qv_cdp_read(expected.data(), expected.size(), p), qv_cdp_error::none);
    EXPECT_EQ(p.nRateCode, 3);
    EXPECT_EQ(p.nSequence, 0x1234);
    EXPECT_EQ(p.triplets, (std::vector<qv_cc_triplet>{{0xFC, 0xC1, 0xC2}, {0xFE, 0x01, 0x02}}));
}

TEST(Cdp, RateCodesAndCountsOfEveryBoardRate)
{
    const struct {
        float fps;
        uint8_t code, count;
    } rows[] = {{23.98f, 1, 25}, {24.0f, 2, 25}, {25.0f, 3, 24},  {29.97f, 4, 20}, {30.0f, 5, 20},
                {50.0f, 6, 12},  {59.94f, 7, 10}, {60.0f, 8, 10}, {12.5f, 0, 0}};
    for (const auto& r : rows) {
        EXPECT_EQ(qv_cdp_rate_for(r.fps).nCode, r.code) << r.fps;
        EXPECT_EQ(qv_cdp_rate_for(r.fps).nCcCount, r.count) << r.fps;
    }
}

struct BadCdp {
    const char* what;
    void (*spoil)(std::vector<uint8_t>&);
    qv_cdp_error error;
};

class CdpMalformed : public ::testing::TestWithParam<BadCdp> {};

void fix_checksum(std::vector<uint8_t>& b)
{
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < b.size(); ++i)
        sum = static_cast<uint8_t>(sum + b[i]);
    b.back() = static_cast<uint8_t>(0x100 - sum);
}

TEST_P(CdpMalformed, IsRefusedAndNothingIsQueued)
{
    std::vector<uint8_t> b = cdp_of(25.0f, 7, {{0xFC, 0x94, 0x20}, {0xFD, 0x41, 0x42}});
    GetParam().spoil(b);
    qv_cdp_packet p;
    EXPECT_EQ(qv_cdp_read(b.data(), b.size(), p), GetParam().error);

    qv_cc_queue q;
    ASSERT_TRUE(q.init(25.0f));
    std::string why;
    EXPECT_FALSE(q.add(qv_caption_form::cea708_cdp, b.data(), b.size(), why));
    EXPECT_FALSE(why.empty());
    EXPECT_EQ(q.counters().nTripletsQueued, 0u);
    EXPECT_EQ(q.counters().nBadInputs, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Cdp, CdpMalformed,
    ::testing::Values(
        BadCdp{"WrongLength", [](std::vector<uint8_t>& b) { b[2] += 3; fix_checksum(b); }, qv_cdp_error::bad_length},
        BadCdp{"Truncated", [](std::vector<uint8_t>& b) { b.resize(b.size() - 5); }, qv_cdp_error::bad_length},
        BadCdp{"BadChecksum", [](std::vector<uint8_t>& b) { b[10] ^= 0x01; }, qv_cdp_error::bad_checksum},
        BadCdp{"CcCountBeyondPacket", [](std::vector<uint8_t>& b) { b[8] = 0xE9; fix_checksum(b); },
               qv_cdp_error::bad_cc_count},
        BadCdp{"FooterCounterDiffers", [](std::vector<uint8_t>& b) { b[b.size() - 2] ^= 1; fix_checksum(b); },
               qv_cdp_error::bad_footer},
        BadCdp{"NoIdentifier", [](std::vector<uint8_t>& b) { b[0] = 0x69; fix_checksum(b); },
               qv_cdp_error::bad_identifier},
        BadCdp{"TooShort", [](std::vector<uint8_t>& b) { b.resize(6); }, qv_cdp_error::too_short}),
    [](const auto& p) { return std::string(p.param.what); });

// Every frame carries exactly the rate's cc_count; DTVCC data comes out in
// order however it arrives, padding fills the rest, the counter runs on.
class CcPacing : public ::testing::TestWithParam<float> {};

TEST_P(CcPacing, FramesCarryTheRateCountAndQueueTheSurplus)
{
    const float fps = GetParam();
    qv_cc_queue q;
    ASSERT_TRUE(q.init(fps));
    const size_t count = q.rate().nCcCount;

    // Three frames' worth of DTVCC data arrive at once, then nothing.
    std::vector<uint8_t> in;
    for (size_t i = 0; i < 3 * count; ++i) {
        in.push_back(i == 0 ? 0xFF : 0xFE);
        in.push_back(static_cast<uint8_t>(i));
        in.push_back(static_cast<uint8_t>(i >> 8));
    }
    std::string why;
    ASSERT_TRUE(q.add(qv_caption_form::cea708_cc_data, in.data(), in.size(), why));
    EXPECT_EQ(q.counters().nTripletsQueued, 3 * count);

    std::vector<uint8_t> out;
    std::vector<qv_cc_triplet> frame;
    uint16_t seq = 0;
    for (int f = 0; f < 6; ++f) {
        std::vector<uint8_t> cdp(QV_CDP_MAX_SIZE);
        cdp.resize(q.next_cdp(cdp.data(), cdp.size()));
        qv_cdp_packet p;
        ASSERT_EQ(qv_cdp_read(cdp.data(), cdp.size(), p), qv_cdp_error::none);
        ASSERT_EQ(p.triplets.size(), count);
        if (f > 0) {
            EXPECT_EQ(p.nSequence, static_cast<uint16_t>(seq + 1));
        }
        seq = p.nSequence;
        for (const qv_cc_triplet& t : p.triplets) {
            if (t.valid() && t.type() >= qv_cc_dtvcc_data) {
                out.push_back(t.b0);
                out.push_back(t.b1);
                out.push_back(t.b2);
            } else {
                EXPECT_FALSE(t.valid()) << "padding is marked invalid";
            }
        }
    }
    EXPECT_EQ(out, in);
    EXPECT_EQ(q.counters().nTripletsQueued, 0u);
    EXPECT_EQ(q.counters().nTripletsSent, 3 * count);
    EXPECT_EQ(q.counters().nFramesWithCaptions, 4u) << "608 slots leave room for less than three frames' worth";
}

INSTANTIATE_TEST_SUITE_P(Rates, CcPacing, ::testing::Values(23.98f, 24.0f, 25.0f, 29.97f, 30.0f, 50.0f, 59.94f, 60.0f));

// The four caption forms of the same two-field 608 text give the same frames:
// one pair per field a frame at 25 frames/s, the fields taking turns at 50.
TEST(CcForms, AllFormsOfTheSame608TextGiveTheSameFrames)
{
    const std::vector<std::pair<uint8_t, uint8_t>> f1 = {{0x94, 0x20}, {0xC8, 0xE5}, {0xEC, 0xEC}, {0xEF, 0x80}};
    const std::vector<std::pair<uint8_t, uint8_t>> f2 = {{0x15, 0x20}, {0x57, 0xEF}};
    std::vector<uint8_t> s334, ccdata, raw;
    std::vector<qv_cc_triplet> triplets;
    for (size_t i = 0; i < f1.size(); ++i) {
        raw.insert(raw.end(), {f1[i].first, f1[i].second});
        s334.insert(s334.end(), {0x85, f1[i].first, f1[i].second});
        ccdata.insert(ccdata.end(), {0xFC, f1[i].first, f1[i].second});
        triplets.push_back({0xFC, f1[i].first, f1[i].second});
        if (i < f2.size()) {
            s334.insert(s334.end(), {0x05, f2[i].first, f2[i].second});
            ccdata.insert(ccdata.end(), {0xFD, f2[i].first, f2[i].second});
            triplets.push_back({0xFD, f2[i].first, f2[i].second});
        }
    }
    std::vector<uint8_t> cdp = cdp_of(30.0f, 1, triplets);

    for (float fps : {25.0f, 50.0f}) {
        std::vector<std::vector<qv_cc_triplet>> results;
        for (auto [form, data] : {std::pair{qv_caption_form::cea608_s334_1a, &s334},
                                  std::pair{qv_caption_form::cea708_cc_data, &ccdata},
                                  std::pair{qv_caption_form::cea708_cdp, &cdp}}) {
            qv_cc_queue q;
            ASSERT_TRUE(q.init(fps));
            std::string why;
            ASSERT_TRUE(q.add(form, data->data(), data->size(), why)) << why;
            std::vector<qv_cc_triplet> all, frame;
            for (int f = 0; f < 8; ++f) {
                q.next_frame(frame);
                ASSERT_EQ(frame.size(), q.rate().nCcCount);
                // 608 slots come first: two at 25 frames/s, one at 50.
                for (size_t k = fps < 30 ? 2 : 1; k < frame.size(); ++k)
                    EXPECT_GE(frame[k].type(), qv_cc_dtvcc_data);
                all.insert(all.end(), frame.begin(), frame.end());
            }
            EXPECT_EQ(pairs_of(all, qv_cc_608_field1), f1);
            EXPECT_EQ(pairs_of(all, qv_cc_608_field2), f2);
            results.push_back(all);
        }
        EXPECT_EQ(results[0], results[1]);
        EXPECT_EQ(results[1], results[2]);
    }
    // Raw pairs belong to field 1.
    qv_cc_queue q;
    ASSERT_TRUE(q.init(25.0f));
    std::string why;
    ASSERT_TRUE(q.add(qv_caption_form::cea608_raw, raw.data(), raw.size(), why));
    std::vector<qv_cc_triplet> all, frame;
    for (int f = 0; f < 5; ++f) {
        q.next_frame(frame);
        all.insert(all.end(), frame.begin(), frame.end());
    }
    EXPECT_EQ(pairs_of(all, qv_cc_608_field1), f1);
    EXPECT_TRUE(pairs_of(all, qv_cc_608_field2).empty());
}

TEST(CcForms, MalformedBlocksAndAFullQueue)
{
    qv_cc_queue q;
    ASSERT_TRUE(q.init(59.94f));
    std::string why;
    const uint8_t odd[5] = {0xFC, 1, 2, 0xFC, 3};
    EXPECT_FALSE(q.add(qv_caption_form::cea608_raw, odd, 5, why));
    EXPECT_FALSE(q.add(qv_caption_form::cea608_s334_1a, odd, 5, why));
    EXPECT_FALSE(q.add(qv_caption_form::cea708_cc_data, odd, 5, why));
    EXPECT_FALSE(q.add(static_cast<qv_caption_form>(9), odd, 3, why));
    EXPECT_FALSE(q.add(qv_caption_form::cea708_cc_data, nullptr, 0, why));
    EXPECT_EQ(q.counters().nBadInputs, 5u);
    EXPECT_EQ(q.counters().nTripletsQueued, 0u);

    // Null 608 pairs and invalid triplets carry nothing and are not queued.
    const uint8_t nothing[9] = {0xFC, 0x80, 0x80, 0xFA, 0x00, 0x00, 0xF9, 0x41, 0x41};
    EXPECT_TRUE(q.add(qv_caption_form::cea708_cc_data, nothing, 9, why));
    EXPECT_EQ(q.counters().nTripletsQueued, 0u);

    std::vector<uint8_t> flood;
    for (size_t i = 0; i < qv_cc_queue::kMaxQueued + 10; ++i)
        flood.insert(flood.end(), {0xFE, static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8)});
    EXPECT_TRUE(q.add(qv_caption_form::cea708_cc_data, flood.data(), flood.size(), why));
    EXPECT_EQ(q.counters().nTripletsDropped, 10u);
    EXPECT_EQ(q.counters().nTripletsQueued, qv_cc_queue::kMaxQueued);
    std::vector<qv_cc_triplet> frame;
    q.next_frame(frame);
    EXPECT_EQ(frame[1].b1, 10) << "the oldest were dropped";
}

// A cdp laid into a line and converted reads back with the simulator's
// independent ANC reader: DID 0x61/0x01, parity and checksum right.
TEST(AncPacket, CdpAndAfdPacketsReadBackOnSdAndHdLines)
{
    const std::vector<uint8_t> cdp = cdp_of(25.0f, 3, {{0xFC, 0x94, 0x2C}, {0xFD, 0x80, 0x80}});
    qv_afd_bar afd;
    afd.nAfd = 10;
    afd.bWide = true;
    afd.bBars = true;
    afd.nBar1 = 69;
    afd.nBar2 = 1011;
    uint8_t udw[QV_AFD_UDW];
    qv_afd_bar_write(afd, udw);
    for (bool sd : {true, false}) {
        const size_t pixels = sd ? 720 : 1920;
        std::vector<uint8_t> line(pixels * 2);
        std::vector<uint16_t> out(pixels * 2, 0xFFFF);
        for (int kind = 0; kind < 2; ++kind) {
            const size_t n = kind == 0 ? qv_put_anc_packet(line.data(), line.size(), sd, 0x61, 0x01, cdp.data(),
                                                           cdp.size())
                                       : qv_put_anc_packet(line.data(), line.size(), sd, QV_AFD_DID, QV_AFD_SDID,
                                                           udw, QV_AFD_UDW);
            ASSERT_GT(n, 0u);
            qv_convert_anc_line(line.data(), sd, out.data(), pixels);
            const auto packets = qvboardsim::find_anc(out.data(), out.size(), 0, !sd);
            ASSERT_EQ(packets.size(), 1u) << (sd ? "SD" : "HD");
            const auto& p = packets[0];
            EXPECT_TRUE(p.parity_ok && p.checksum_ok && !p.truncated);
            if (kind == 0) {
                EXPECT_EQ(p.did, 0x61);
                EXPECT_EQ(p.sdid, 0x01);
                EXPECT_EQ(p.udw, cdp);
            } else {
                EXPECT_EQ(p.did, 0x41);
                EXPECT_EQ(p.sdid, 0x05);
                qv_afd_bar back;
                ASSERT_TRUE(qv_afd_bar_read(p.udw.data(), p.udw.size(), back));
                EXPECT_EQ(back, afd);
            }
        }
    }
    // A packet longer than the line is not written.
    std::vector<uint8_t> tiny(20);
    EXPECT_EQ(qv_put_anc_packet(tiny.data(), tiny.size(), false, 0x61, 0x01, cdp.data(), cdp.size()), 0u);
}

// Bytes worked out by hand: AFD 8 (full frame), 16:9; pillarbox bars 240 and 1680.
TEST(AfdBar, WordsOfTheSyntaxAndRefusedReservedBits)
{
    qv_afd_bar afd;
    afd.nAfd = 8;
    afd.bWide = true;
    afd.bBars = true;
    afd.bLetterbox = false;
    afd.nBar1 = 240;
    afd.nBar2 = 1680;
    uint8_t udw[QV_AFD_UDW];
    qv_afd_bar_write(afd, udw);
    const uint8_t expected[QV_AFD_UDW] = {0x44, 0x00, 0x00, 0x30, 0x00, 0xF0, 0x06, 0x90};
    EXPECT_EQ(std::vector<uint8_t>(udw, udw + 8), std::vector<uint8_t>(expected, expected + 8));
    qv_afd_bar back;
    udw[0] |= 0x80;
    EXPECT_FALSE(qv_afd_bar_read(udw, 8, back));
    udw[0] &= 0x7F;
    udw[3] = 0x50;
    EXPECT_FALSE(qv_afd_bar_read(udw, 8, back)) << "top with left is no bar pair";
    EXPECT_FALSE(qv_afd_bar_read(udw, 7, back));
}
