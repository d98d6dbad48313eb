#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "qv_sound.h"
#include "../common/print_capture.h"

using namespace QVSDK;

namespace {

// Little-endian signed sample of `bits` bits at (frame, channel).
inline int32_t readSample(const QVSDK::QVSound& s, size_t frame, unsigned channel)
{
    const unsigned bytes = s.format().m_bit_per_sample / 8;
    const uint8_t* p = s.data() + frame * s.format().m_block_align + channel * bytes;
    uint32_t v = 0;
    for (unsigned i = 0; i < bytes; ++i)
        v |= uint32_t(p[i]) << (8 * i);
    const unsigned shift = 32 - 8 * bytes;
    return static_cast<int32_t>(v << shift) >> shift;
}

inline void writeSample(QVSDK::QVSound& s, size_t frame, unsigned channel, int32_t value)
{
    const unsigned bytes = s.format().m_bit_per_sample / 8;
    uint8_t* p = s.data() + frame * s.format().m_block_align + channel * bytes;
    for (unsigned i = 0; i < bytes; ++i)
        p[i] = uint8_t(uint32_t(value) >> (8 * i));
}

std::vector<int32_t> boundaryValues(uint16_t bits)
{
    switch (bits) {
    case 16:
        return {-32768, -32767, -256, -1, 0, 1, 0x1234, 32767};
    case 24:
        return {-8388608, -8388607, -65536, -1, 0, 1, 0x123456, 8388607};
    default:
        return {std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::min() + 1, -65536, -1, 0, 1,
                0xFFFF, 0x12345678, std::numeric_limits<int32_t>::max()};
    }
}

// Oracle in plain arithmetic: widening scales, narrowing shifts right
// (truncation toward minus infinity, no rounding).
bool expectedSample(uint16_t from, uint16_t to, int32_t v, int32_t* out)
{
    if (from == to)
        *out = v;
    else if (from == 16 && to == 24)
        *out = v * 256;
    else if (from == 16 && to == 32)
        *out = v * 65536;
    else if (from == 32 && to == 24)
        *out = v >> 8;
    else if (from == 32 && to == 16)
        *out = v >> 16;
    else
        return false;
    return true;
}

struct ConversionCase {
    uint16_t from, to;
    bool viaCopyFrom; // otherwise convert_to
};

std::string caseName(const testing::TestParamInfo<ConversionCase>& info)
{
    return std::string(info.param.viaCopyFrom ? "copyFrom_" : "convert_to_") + std::to_string(info.param.from) +
           "_to_" + std::to_string(info.param.to);
}

class ConversionTest : public testing::TestWithParam<ConversionCase> {};

// Channel 1 carries the values in reverse so that swapped channels show.
TEST_P(ConversionTest, EveryDepthPairWithBoundarySamples)
{
    const ConversionCase& c = GetParam();
    const std::vector<int32_t> values = boundaryValues(c.from);
    const size_t n = values.size();
    QVSound src;
    ASSERT_TRUE(src.init(n * 2 * (c.from / 8), 0, 48000, c.from, 2));
    for (size_t i = 0; i < n; ++i) {
        writeSample(src, i, 0, values[i]);
        writeSample(src, i, 1, values[n - 1 - i]);
    }
    ASSERT_TRUE(src.markFilled(n));

    print_capture capture;
    QVSound dst;
    if (c.viaCopyFrom) {
        ASSERT_TRUE(dst.init(n * 2 * (c.to / 8), 0, 48000, c.to, 2));
        std::memset(dst.data(), 0x5A, dst.size());
        ASSERT_TRUE(dst.copyFrom(src));
    } else {
        dst = src.convert_to(c.to);
        ASSERT_EQ(dst.format().m_bit_per_sample, c.to);
        ASSERT_EQ(dst.format().m_block_align, 2 * c.to / 8);
    }
    EXPECT_EQ(dst.frames(), n);
    EXPECT_EQ(dst.samples(), n);

    int32_t unused;
    const bool supported = expectedSample(c.from, c.to, 0, &unused) && (c.viaCopyFrom || !(c.from == 16 && c.to == 32));
    if (supported) {
        EXPECT_TRUE(capture.lines().empty());
        for (size_t i = 0; i < n; ++i) {
            int32_t e0 = 0, e1 = 0;
            expectedSample(c.from, c.to, values[i], &e0);
            expectedSample(c.from, c.to, values[n - 1 - i], &e1);
            EXPECT_EQ(readSample(dst, i, 0), e0) << "frame " << i;
            EXPECT_EQ(readSample(dst, i, 1), e1) << "frame " << i;
        }
    } else {
        const std::string expected = std::string("QVSound::") + (c.viaCopyFrom ? "copyFrom" : "convert_to") +
                                     " ERROR - not supported " + std::to_string(c.from) + " bps -> " +
                                     std::to_string(c.to) + " bps !!!\n";
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_EQ(capture.lines()[0], expected);
        for (size_t i = 0; i < dst.size(); ++i)
            ASSERT_EQ(dst.data()[i], 0) << "byte " << i << " not silent";
    }
}

std::vector<ConversionCase> allPairs()
{
    std::vector<ConversionCase> cases;
    for (bool copyFrom : {true, false})
        for (uint16_t from : {16, 24, 32})
            for (uint16_t to : {16, 24, 32})
                cases.push_back({from, to, copyFrom});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(AllPairs, ConversionTest, testing::ValuesIn(allPairs()), caseName);

TEST(ConversionBytesTest, CopyFromHonoursFrameCountsAndPaddedFrames)
{
    // Source frames padded to 8 bytes (two 16-bit samples and 4 spare bytes).
    QVSound src;
    ASSERT_TRUE(src.init(8 * 4, 0, 48000, 16, 2, 8));
    std::memset(src.data(), 0, src.size());
    for (size_t f = 0; f < 4; ++f) {
        writeSample(src, f, 0, int32_t(f) + 1);
        writeSample(src, f, 1, -int32_t(f) - 1);
    }
    ASSERT_TRUE(src.markFilled(3));

    QVSound dst;
    ASSERT_TRUE(dst.init(6 * 10, 0, 48000, 24, 2));
    std::memset(dst.data(), 0x5A, dst.size());
    ASSERT_TRUE(dst.copyFrom(src));
    EXPECT_EQ(dst.samples(), 3u);
    for (size_t f = 0; f < 3; ++f) {
        EXPECT_EQ(readSample(dst, f, 0), (int32_t(f) + 1) * 256);
        EXPECT_EQ(readSample(dst, f, 1), (-int32_t(f) - 1) * 256);
    }
    EXPECT_EQ(dst.data()[3 * 6], 0x5A); // frames beyond the copied ones are left alone
}

} // namespace
