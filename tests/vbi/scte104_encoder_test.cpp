#include "qv_vanc_scte104_encoder.h"
#include "qv_vbi_convert.h"
#include "test_data.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

std::vector<uint8_t> message_of(size_t n)
{
    std::vector<uint8_t> m(n);
    std::iota(m.begin(), m.end(), 1);
    return m;
}

// Word k of a packet in a line, as the encoder places it.
uint8_t word(const qv_vanc_scte104_encoder& e, const uint8_t* line, size_t k)
{
    return e.m_isSD ? line[k] : line[2 * k + 1];
}

} // namespace

// The public SCTE-104 messages, encoded and converted, must give the recorded ANC packets.
class EncoderGolden : public ::testing::TestWithParam<qvtest::VancPacket> {};

TEST_P(EncoderGolden, SdAndHdPacketsMatchTheRecordedWords)
{
    const auto& golden = GetParam().words;
    const auto msg = GetParam().message();
    for (bool sd : {true, false}) {
        qv_vanc_scte104_encoder e;
        const size_t width = 720;
        e.init(sd, 1, width);
        auto packets = e.encoder(msg.data(), msg.size(), width * 2);
        ASSERT_EQ(packets.size(), 1u);
        EXPECT_EQ(packets[0].second, golden.size());
        std::vector<uint16_t> out(width * 2, 0);
        ASSERT_TRUE(e.convert(packets[0], out.data(), out.size()));
        for (size_t k = 0; k < golden.size(); ++k)
            ASSERT_EQ(out[sd ? k : 2 * k + 1], golden[k]) << (sd ? "SD" : "HD") << " word " << k;
        // After the packet the line is black.
        const size_t after = sd ? golden.size() + (golden.size() % 2) : 2 * golden.size();
        EXPECT_EQ(out[after], 0x200);
        EXPECT_EQ(out[after + 1], 0x040);
        EXPECT_EQ(out.back(), 0x040);
    }
}

INSTANTIATE_TEST_SUITE_P(Klvanc, EncoderGolden, ::testing::ValuesIn(qvtest::scte104_vanc_packets()),
                         [](const auto& p) { return p.param.name; });

struct SplitCase {
    const char* what;
    bool sd;
    size_t lines, width, size;
    std::vector<size_t> chunks;       // message bytes per packet
    std::vector<uint8_t> descriptors; // payload descriptor per packet
};

class Scte104Split : public ::testing::TestWithParam<SplitCase> {};

TEST_P(Scte104Split, PacketsAndDescriptors)
{
    const auto& c = GetParam();
    qv_vanc_scte104_encoder e;
    e.init(c.sd, c.lines, c.width);
    auto msg = message_of(c.size);
    auto p = e.encoder(msg.data(), msg.size(), c.width * 2);
    ASSERT_EQ(p.size(), c.chunks.size()) << c.what;
    size_t offset = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        EXPECT_EQ(p[i].first, e.m_vLine[i].get());
        EXPECT_EQ(p[i].second, c.chunks[i] + 8) << c.what << " packet " << i;
        EXPECT_EQ(word(e, p[i].first, 5), c.chunks[i] + 1);
        EXPECT_EQ(word(e, p[i].first, 6), c.descriptors[i]) << c.what << " packet " << i;
        for (size_t b = 0; b < c.chunks[i]; ++b)
            ASSERT_EQ(word(e, p[i].first, 7 + b), msg[offset + b]);
        offset += c.chunks[i];
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Scte104Split,
    ::testing::Values(
        SplitCase{"300 bytes over two HD lines", false, 2, 1920, 300, {254, 46}, {0x0C, 0x0A}},
        SplitCase{"300 bytes over three SD lines", true, 3, 720, 300, {254, 46}, {0x0C, 0x0A}},
        SplitCase{"600 bytes over three HD lines", false, 3, 1920, 600, {254, 254, 92}, {0x0C, 0x0E, 0x0A}},
        SplitCase{"exactly one full packet", true, 2, 720, 254, {254}, {0x08}},
        // A 200-word line holds 192 bytes; the capacity runs over all lines, so the second
        // line gets nothing and the message is cut (deliberate).
        SplitCase{"capacity carried over lines", true, 2, 100, 300, {192}, {0x08}},
        SplitCase{"one line only", false, 1, 1920, 300, {254}, {0x08}}));

TEST(Scte104Encoder, RefusesWhatCannotBePlaced)
{
    qv_vanc_scte104_encoder e;
    e.init(false, 10, 1920);
    auto big = message_of(2001);
    EXPECT_TRUE(e.encoder(big.data(), big.size(), 3840).empty());
    auto ok = message_of(2000);
    EXPECT_FALSE(e.encoder(ok.data(), ok.size(), 3840).empty());
    EXPECT_TRUE(e.encoder(ok.data(), 0, 3840).empty());

    qv_vanc_scte104_encoder narrow;
    narrow.init(true, 4, 4); // 8 words per line: C = 0
    auto one = message_of(1);
    EXPECT_TRUE(narrow.encoder(one.data(), 1, 8).empty());
    narrow.init(true, 4, 5); // 9 words: one byte per line
    EXPECT_EQ(narrow.encoder(one.data(), 1, 9).size(), 1u);
    auto two = message_of(2);
    // The capacity runs over all lines: the second byte finds none left.
    EXPECT_EQ(narrow.encoder(two.data(), 2, 9).size(), 1u);

    qv_vanc_scte104_encoder none;
    none.init(true, 0, 720);
    EXPECT_TRUE(none.encoder(one.data(), 1, 1440).empty());

    // A message longer than capacity x lines is refused.
    qv_vanc_scte104_encoder small;
    small.init(true, 1, 100); // 192 bytes
    auto m = message_of(193);
    EXPECT_TRUE(small.encoder(m.data(), m.size(), 200).empty());
}

TEST(Scte104Encoder, FillAndNullTarget)
{
    std::vector<uint8_t> line(5, 0);
    qv_vanc_scte104_encoder::fill(line.data(), line.size());
    EXPECT_EQ(line, (std::vector<uint8_t>{0x80, 0x10, 0x80, 0x10, 0}));

    qv_vanc_scte104_encoder e;
    e.init(true, 1, 720);
    auto msg = message_of(10);
    auto p = e.encoder(msg.data(), msg.size(), 1440);
    ASSERT_EQ(p.size(), 1u);
    EXPECT_TRUE(e.convert(p[0], nullptr, 1440));
    // A destination shorter than the line is never overrun.
    std::vector<uint16_t> shortRow(40 + 4, 0xABCD);
    EXPECT_TRUE(e.convert(p[0], shortRow.data(), 40));
    EXPECT_EQ(shortRow[40], 0xABCD);
}
