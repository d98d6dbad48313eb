// ANC decoding of the inspector, checked against an independent packet
// builder, and the inspector binary on a capture file.
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

#include "anc_decode.h"
#include "capture_format.h"

using namespace qvboardsim;

namespace {

// Independent oracle: parity by counting bits one at a time.
uint16_t oracle_word(uint8_t v)
{
    int ones = 0;
    for (int b = 0; b < 8; ++b)
        ones += (v >> b) & 1;
    uint16_t b8 = ones % 2 ? 1 : 0;
    return uint16_t(v | b8 << 8 | (1 - b8) << 9);
}

std::vector<uint16_t> packet(uint8_t did, uint8_t sdid, const std::vector<uint8_t>& udw)
{
    std::vector<uint16_t> p = {0x000, 0x3FF, 0x3FF, oracle_word(did), oracle_word(sdid),
                               oracle_word(uint8_t(udw.size()))};
    for (uint8_t b : udw)
        p.push_back(oracle_word(b));
    uint32_t sum = 0;
    for (size_t i = 3; i < p.size(); ++i)
        sum += p[i] & 0x1FF;
    sum &= 0x1FF;
    p.push_back(uint16_t(sum | ((((sum >> 8) & 1) ^ 1) << 9)));
    return p;
}

// A black 10-bit UYVY line with `p` laid into the luma samples (HD) or into
// consecutive samples from `at` (SD).
std::vector<uint16_t> line_with(const std::vector<uint16_t>& p, size_t samples, bool hd, size_t at)
{
    std::vector<uint16_t> l(samples);
    for (size_t i = 0; i < samples; ++i)
        l[i] = i % 2 ? 0x040 : 0x200;
    for (size_t k = 0; k < p.size(); ++k)
        l[hd ? 2 * (at + k) + 1 : at + k] = p[k];
    return l;
}

TEST(AncParity, MatchesBitCountingForAllByteValues)
{
    for (int v = 0; v < 256; ++v)
        EXPECT_EQ(anc_word(uint8_t(v)), oracle_word(uint8_t(v))) << v;
    // Values from the conversion rules: two ones get b9, three ones get b8.
    EXPECT_EQ(anc_word(0x41), 0x241);
    EXPECT_EQ(anc_word(0x07), 0x107);
}

struct AncCase {
    const char* name;
    bool hd;
    size_t at;
    int damage; // 0 none, 1 parity of a UDW, 2 checksum, 3 data count past the end
};

class AncDecode : public ::testing::TestWithParam<AncCase> {};

TEST_P(AncDecode, FindsPacketsAndChecksThem)
{
    const AncCase c = GetParam();
    std::vector<uint8_t> udw = {0x08, 0x00, 0x1e, 0xff, 0x00, 0x5a, 0x80};
    auto p = packet(0x41, 0x07, udw);
    if (c.damage == 1)
        p[8] ^= 0x100;
    if (c.damage == 2)
        p.back() ^= 0x001;
    if (c.damage == 3)
        p[5] = oracle_word(200);
    const size_t samples = c.hd ? 3840 : 1440;
    const size_t at = c.damage == 3 ? (c.hd ? 1920 : 1440) - p.size() : c.at; // fits, but DC says 200
    auto line = line_with(p, samples, c.hd, at);
    auto found = find_anc(line.data(), line.size(), 9, c.hd);
    ASSERT_EQ(found.size(), 1u);
    const AncPacket& a = found[0];
    EXPECT_EQ(a.line, 9u);
    EXPECT_EQ(a.stream, c.hd ? 1 : 0);
    EXPECT_EQ(a.position, at);
    EXPECT_EQ(a.did, 0x41);
    EXPECT_EQ(a.sdid, 0x07);
    if (c.damage == 3) {
        EXPECT_TRUE(a.truncated);
        return;
    }
    EXPECT_EQ(a.dc, udw.size());
    EXPECT_EQ(a.udw, udw);
    EXPECT_EQ(a.parity_ok, c.damage != 1);
    if (c.damage != 1) { // a flipped b8 also changes the 9-bit sum
        EXPECT_EQ(a.checksum_ok, c.damage != 2);
    }
    EXPECT_FALSE(a.truncated);
}

INSTANTIATE_TEST_SUITE_P(Cases, AncDecode,
                         ::testing::Values(AncCase{"hd_clean", true, 0, 0}, AncCase{"hd_mid", true, 700, 0},
                                           AncCase{"sd_clean", false, 0, 0}, AncCase{"sd_parity", false, 12, 1},
                                           AncCase{"hd_checksum", true, 3, 2}, AncCase{"hd_short", true, 0, 3},
                                           AncCase{"sd_short", false, 0, 3}),
                         [](const ::testing::TestParamInfo<AncCase>& p) { return std::string(p.param.name); });

TEST(AncDecode, TwoPacketsOnOneLineAndNoneOnBlack)
{
    auto a = packet(0x60, 0x60, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    auto b = packet(0x41, 0x07, {0x08, 1, 2});
    std::vector<uint16_t> both = a;
    both.insert(both.end(), b.begin(), b.end());
    auto line = line_with(both, 3840, true, 10);
    auto found = find_anc(line.data(), line.size(), 0, true);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].did, 0x60);
    EXPECT_EQ(found[1].did, 0x41);
    EXPECT_EQ(found[1].position, 10 + a.size());
    auto black = line_with({}, 3840, true, 0);
    EXPECT_TRUE(find_anc(black.data(), black.size(), 0, true).empty());
}

TEST(Inspector, PrintsFramesAncAudioAndWritesPng)
{
    char dir[] = "/tmp/qvbs-inspect-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string cap = std::string(dir) + "/c.qvcap", png = std::string(dir) + "/f.png",
                      out = std::string(dir) + "/out.txt";
    CaptureHeader h;
    h.kind = 1;
    h.width = 1280;
    h.height = 720;
    h.rate_num = 50;
    h.path = "/dev/qvsim-video1";
    {
        CaptureWriter w;
        ASSERT_TRUE(w.open(cap, h));
        CapturedFrame f;
        f.sequence = 7;
        f.flags = V4L2_BUF_FLAG_TIMECODE;
        f.tc_hours = 1;
        f.tc_minutes = 2;
        f.tc_seconds = 3;
        f.tc_frames = 4;
        f.pic_width = 1280;
        f.pic_lines = 720;
        f.picture.assign(size_t(1280) * 2 * 720, 0x80);
        f.vbi_lines = 2;
        f.vbi_samples = 2560;
        auto l0 = line_with(packet(0x41, 0x07, {0x08, 0xAA}), 2560, true, 0);
        auto l1 = line_with({}, 2560, true, 0);
        f.vbi = l0;
        f.vbi.insert(f.vbi.end(), l1.begin(), l1.end());
        f.audio_channels = 4;
        f.audio_samples = 1;
        f.audio = {0x400000, 0, 0xC00000, 0x7FFFFF}; // -6 dBFS, silence, -6 dBFS, full scale
        f.has_payload = true;
        compute_summary(f);
        ASSERT_TRUE(w.write(f));
    }
    std::string cmd = std::string(QVBS_INSPECT) + " --anc --png 7 " + png + " " + cap + " > " + out;
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::ifstream in(out);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("seq=7"), std::string::npos) << text;
    EXPECT_NE(text.find("tc=01:02:03:04"), std::string::npos) << text;
    EXPECT_NE(text.find("anc=1"), std::string::npos) << text;
    EXPECT_NE(text.find("line 0 Y DID=0x41 SDID=0x07 DC=2 parity=ok checksum=ok"), std::string::npos)
        << text;
    EXPECT_NE(text.find("peaks=-6.0,-inf,-6.0,-0.0"), std::string::npos) << text;
    std::ifstream p(png, std::ios::binary);
    std::array<char, 8> sig{};
    p.read(sig.data(), 8);
    EXPECT_EQ(std::string(sig.data() + 1, 3), "PNG");
    std::system((std::string("rm -rf ") + dir).c_str());
}

} // namespace
