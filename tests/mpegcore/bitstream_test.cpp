#include "BaseMpegTable.h"
#include "QVBitStream.h"
#include "mpeg2_crc32.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using namespace mpegcore;

namespace {

// Bit-at-a-time reader, deliberately written without a cache, as the reference.
struct NaiveBits {
    const uint8_t* p;
    size_t nBits;
    size_t pos = 0;
    bool get(size_t n, uint64_t& v)
    {
        v = 0;
        for (size_t i = 0; i < n; ++i) {
            if (pos >= nBits)
                return false;
            v = (v << 1) | ((p[pos / 8] >> (7 - pos % 8)) & 1u);
            ++pos;
        }
        return true;
    }
};

} // namespace

TEST(BitReader, ReadPastTheEndFailsWithPartialValue)
{
    alignas(8) unsigned char d[3] = {0x12, 0x34, 0x56};
    BSReader r(d, 3);
    uint32_t v = 0;
    EXPECT_FALSE(r.getBits<32>(v));
    EXPECT_EQ(v, 0x123456u);
}

// Random field widths over random data at every start alignment, against the naive reader;
// then the same fields written back must give the same bytes.
TEST(BitReader, AgreesWithNaiveReaderAndWriterRoundTrips)
{
    std::mt19937 rng(1234);
    for (int trial = 0; trial < 200; ++trial) {
        alignas(8) unsigned char buf[80];
        for (auto& b : buf)
            b = static_cast<unsigned char>(rng());
        const size_t offset = trial % 8;
        const size_t len = 1 + rng() % 64;
        unsigned char* data = buf + offset;

        BSReader r(data, len);
        NaiveBits ref{data, len * 8};
        std::vector<std::pair<size_t, uint64_t>> fields;
        size_t total = 0;
        while (true) {
            size_t n = 1 + rng() % 64;
            uint64_t a = 0, b = 0;
            bool okRef = ref.get(n, b);
            bool ok = r.getBits(n, a);
            ASSERT_EQ(ok, okRef) << "trial " << trial << " width " << n;
            if (!ok)
                break;
            ASSERT_EQ(a, b);
            fields.emplace_back(n, a);
            total += n;
        }
        std::vector<unsigned char> out(len + 8, 0);
        BSWriter w(out.data(), out.size());
        for (auto& f : fields)
            ASSERT_TRUE(w.putBits(f.first, f.second));
        ASSERT_TRUE(w.flush());
        EXPECT_EQ(w.m_writeByte, (total + 7) / 8);
        EXPECT_EQ(0, std::memcmp(out.data(), data, total / 8));
    }
}

TEST(Crc32, MatchesTheMpeg2CheckValueAndZeroesOverItsOwnSection)
{
    const char* check = "123456789";
    EXPECT_EQ(mpeg2_crc32(reinterpret_cast<const unsigned char*>(check), 9), 0x0376E6E7u);
    EXPECT_EQ(g_MPEG2_PSI_CRC_32_Lookup[1], 0x04C11DB7u);

    unsigned char section[12] = {0xFC, 0x30, 0x11, 1, 2, 3, 4, 5};
    uint32_t crc = mpeg2_crc32(section, 8);
    for (int i = 0; i < 4; ++i)
        section[8 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
    EXPECT_EQ(mpeg2_crc32(section, 12), 0u);
}

