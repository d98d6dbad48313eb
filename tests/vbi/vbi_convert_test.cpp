#include "qv_vbi_convert.h"
#include "test_data.h"

#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

// Reference parity word, computed bit by bit.
uint16_t reference_anc_word(uint8_t v)
{
    int ones = 0;
    for (int b = 0; b < 8; ++b)
        ones += (v >> b) & 1;
    const uint16_t b8 = ones % 2 ? 1 : 0;
    return static_cast<uint16_t>(v | b8 << 8 | (b8 ? 0 : 1) << 9);
}

// Reference unpacking of the board's 10-bit groups.
std::vector<uint16_t> unpack10(const uint8_t* p, size_t groups)
{
    std::vector<uint16_t> s;
    for (size_t g = 0; g < groups; ++g, p += 5) {
        const uint64_t v = uint64_t(p[0]) | uint64_t(p[1]) << 8 | uint64_t(p[2]) << 16 | uint64_t(p[3]) << 24 |
                           uint64_t(p[4]) << 32;
        for (int k = 0; k < 4; ++k)
            s.push_back(static_cast<uint16_t>((v >> (10 * k)) & 0x3FF));
    }
    return s;
}

// An 8-bit SD line (every sample may carry words) holding the golden packet at offset 10,
// its checksum byte deliberately wrong.
std::vector<uint8_t> sd_line_with(const std::vector<uint16_t>& words, size_t pixels)
{
    std::vector<uint8_t> line(pixels * 2);
    for (size_t i = 0; i < line.size(); i += 2) {
        line[i] = 0x80;
        line[i + 1] = 0x10;
    }
    for (size_t k = 0; k < words.size(); ++k)
        line[10 + k] = static_cast<uint8_t>(words[k]);
    line[10 + words.size() - 1] = 0x5A;
    return line;
}

} // namespace

TEST(VbiConvert, ParityMatchesReferenceForAllBytes)
{
    for (int v = 0; v < 256; ++v)
        ASSERT_EQ(AncWordWithParity(static_cast<uint8_t>(v)), reference_anc_word(static_cast<uint8_t>(v))) << v;
    EXPECT_EQ(AncWordWithParity(0x41), 0x241);
    EXPECT_EQ(AncWordWithParity(0x07), 0x107);
}

TEST(VbiConvert, BlackFillsWholeUnitsOnly)
{
    std::vector<uint16_t> b16(8, 0xFFFF);
    BlackUYVY16(b16.data(), 14); // 3 pairs and a half: 3 pairs
    EXPECT_EQ(b16, (std::vector<uint16_t>{0x200, 0x40, 0x200, 0x40, 0x200, 0x40, 0xFFFF, 0xFFFF}));

    std::vector<uint8_t> b10(12, 0xEE);
    BlackUYVY10(b10.data(), b10.size());
    EXPECT_EQ(b10, (std::vector<uint8_t>{0x00, 0x02, 0x01, 0x20, 0x10, 0x00, 0x02, 0x01, 0x20, 0x10, 0xEE, 0xEE}));
    EXPECT_EQ(unpack10(b10.data(), 1), (std::vector<uint16_t>{0x200, 0x40, 0x200, 0x40}));
}

TEST(VbiConvert, PackingAgreesWithReferenceUnpacking)
{
    std::mt19937 rng(7);
    std::vector<uint16_t> src(64);
    for (auto& s : src)
        s = static_cast<uint16_t>(rng()); // bits above 10 must be dropped
    std::vector<uint8_t> dst(80 + 3, 0xCC);
    EXPECT_EQ(PackVBI_UYVY16toUYVY10(src.data(), src.size() * 2, dst.data(), 80), 80u);
    auto back = unpack10(dst.data(), 16);
    for (size_t i = 0; i < back.size(); ++i)
        ASSERT_EQ(back[i], src[i] & 0x3FF) << i;
    EXPECT_EQ(dst[80], 0xCC);

    std::vector<uint8_t> viaCopy(80);
    for (auto& s : src)
        s &= 0x3FF;
    EXPECT_TRUE(CopyVBIData16to10(viaCopy.data(), src.data(), 32));
    EXPECT_EQ(unpack10(viaCopy.data(), 16), src);
}

// The public SMPTE 2010 packets: the 8-bit words laid into a line must come out as the
// recorded 10-bit words, parity and checksum included.
class GoldenAncConversion : public ::testing::TestWithParam<qvtest::VancPacket> {};

TEST_P(GoldenAncConversion, SdLineGivesTheRecordedWords)
{
    const auto& words = GetParam().words;
    const size_t pixels = 360;
    auto line = sd_line_with(words, pixels);
    std::vector<uint16_t> out(pixels * 2, 0xFFFF);
    ASSERT_TRUE(ConvertSDIPacketsInUYVY8to10(out.data(), line.data(), pixels));
    EXPECT_EQ(std::vector<uint16_t>(out.begin() + 10, out.begin() + 10 + words.size()), words);
    EXPECT_EQ(out[0], 0x200);
    EXPECT_EQ(out[1], 0x040);
    EXPECT_EQ(out[10 + words.size()], line[10 + words.size()] << 2);
}

TEST_P(GoldenAncConversion, HdLumaGivesTheRecordedWords)
{
    const auto& words = GetParam().words;
    const size_t pixels = 300;
    std::vector<uint8_t> line(pixels * 2);
    for (size_t i = 0; i < line.size(); i += 2) {
        line[i] = 0x80;
        line[i + 1] = 0x10;
    }
    const size_t start = 8; // pixel of the first ADF word
    for (size_t k = 0; k < words.size(); ++k)
        line[2 * (start + k) + 1] = static_cast<uint8_t>(words[k]);
    std::vector<uint16_t> out(pixels * 2, 0x1234);
    ASSERT_TRUE(ConvertSDIPacketsInYOnly8to10(out.data(), line.data(), pixels));
    for (size_t k = 0; k < words.size(); ++k)
        ASSERT_EQ(out[2 * (start + k) + 1], words[k]) << "word " << k;
    // Chroma under the ADF is not written; the rest of the chroma is plain.
    EXPECT_EQ(out[2 * start], 0x1234);
    EXPECT_EQ(out[2 * (start + 2)], 0x1234);
    EXPECT_EQ(out[2 * (start + 3)], 0x200);
    EXPECT_EQ(out[2 * (start + words.size() - 1)], 0x200);
    EXPECT_EQ(out[1], 0x040);
}

INSTANTIATE_TEST_SUITE_P(Klvanc, GoldenAncConversion, ::testing::ValuesIn(qvtest::scte104_vanc_packets()),
                         [](const auto& p) { return p.param.name; });

TEST(VbiConvert, TruncatedPacketIsReported)
{
    // SD: DC = 10 but only a few words fit.
    std::vector<uint8_t> sd = {0x80, 0x10, 0x00, 0xFF, 0xFF, 0x41, 0x07, 10, 1, 2, 3, 4, 5, 6};
    std::vector<uint16_t> out(sd.size());
    EXPECT_FALSE(ConvertSDIPacketsInUYVY8to10(out.data(), sd.data(), sd.size() / 2));
    sd[7] = 0; // DC 0: ADF DID SDID DC CS = 7 words, fits
    EXPECT_TRUE(ConvertSDIPacketsInUYVY8to10(out.data(), sd.data(), sd.size() / 2));

    // HD: DC in the luma of the sixth pixel.
    std::vector<uint8_t> hd(32, 0x80);
    const uint8_t luma[] = {0x00, 0xFF, 0xFF, 0x41, 0x07, 20};
    for (size_t k = 0; k < 6; ++k)
        hd[2 * k + 1] = luma[k];
    std::vector<uint16_t> out2(hd.size());
    EXPECT_FALSE(ConvertSDIPacketsInYOnly8to10(out2.data(), hd.data(), hd.size() / 2));
    hd[11] = 1; // 8 words, 16 bytes: fits in 32
    EXPECT_TRUE(ConvertSDIPacketsInYOnly8to10(out2.data(), hd.data(), hd.size() / 2));
}

TEST(VbiConvert, GstTimecodeToV4l2)
{
    struct Case {
        GstVideoTimeCodeFlags flags;
        uint32_t expectedFlags;
    };
    for (const Case c : {Case{GST_VIDEO_TIME_CODE_FLAGS_NONE, 0},
                         Case{GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME, V4L2_TC_FLAG_DROPFRAME},
                         Case{GstVideoTimeCodeFlags(GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME |
                                                    GST_VIDEO_TIME_CODE_FLAGS_INTERLACED),
                              0}}) {
        GstVideoTimeCode tc;
        gst_video_time_code_init(&tc, 30000, 1001, nullptr, c.flags, 10, 59, 58, 12, 0);
        const v4l2_timecode v = convert_gst_timecode_to_v4l2_timecode(tc);
        EXPECT_EQ(v.type, 0u);
        EXPECT_EQ(v.flags, c.expectedFlags);
        EXPECT_EQ(v.hours, 10);
        EXPECT_EQ(v.minutes, 59);
        EXPECT_EQ(v.seconds, 58);
        EXPECT_EQ(v.frames, 12);
        EXPECT_EQ(v.userbits[0], 0);
        gst_video_time_code_clear(&tc);
    }
}
