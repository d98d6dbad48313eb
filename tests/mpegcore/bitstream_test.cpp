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

TEST(BitReader, TwelveBitsOfABCDLeaveFour)
{
    alignas(8) unsigned char d[2] = {0xAB, 0xCD};
    BSReader r(d, 2);
    uint16_t v = 0;
    ASSERT_TRUE(r.getBits<12>(v));
    EXPECT_EQ(v, 0xABC);
    EXPECT_EQ(r.m_sizeCache, 4u);
    uint8_t rest = 0;
    ASSERT_TRUE(r.getBits<4>(rest));
    EXPECT_EQ(rest, 0xD);
    EXPECT_TRUE(r.empty());
    EXPECT_FALSE(r.getBits<1>(rest));
}

TEST(BitReader, ReadPastTheEndFailsWithPartialValue)
{
    alignas(8) unsigned char d[3] = {0x12, 0x34, 0x56};
    BSReader r(d, 3);
    uint32_t v = 0;
    EXPECT_FALSE(r.getBits<32>(v));
    EXPECT_EQ(v, 0x123456u);
}

TEST(BitReader, FirstLoadReachesTheNextFourByteBoundary)
{
    alignas(8) unsigned char buf[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    BSReader r(buf + 1, 5);
    EXPECT_EQ(r.m_sizeCache, 24u);
    uint32_t v = 0;
    ASSERT_TRUE(r.getBits<24>(v));
    EXPECT_EQ(v, 0x010203u);
    EXPECT_EQ(r.m_sizeCache, 16u);

    BSReader aligned(buf, 16);
    EXPECT_EQ(aligned.m_sizeCache, 64u);
}

TEST(BitReader, NarrowTargetsAreTruncatedToTheirType)
{
    alignas(8) unsigned char d[4] = {0xFF, 0xEE, 0xDD, 0xCC};
    BSReader r(d, 4);
    uint8_t v = 0;
    ASSERT_TRUE(r.getBits<16>(v));
    EXPECT_EQ(v, 0xEE);
}

TEST(BitReader, SkipCountsCachedBytesAndRefusesOverruns)
{
    alignas(8) unsigned char d[20];
    for (int i = 0; i < 20; ++i)
        d[i] = static_cast<unsigned char>(i);
    BSReader r(d, 20);
    uint8_t v = 0;
    ASSERT_TRUE(r.getBits<8>(v));
    EXPECT_EQ(r.bytesLeft(), 19u);
    ASSERT_TRUE(r.skipBytes(10));
    ASSERT_TRUE(r.getBits<8>(v));
    EXPECT_EQ(v, 11);
    EXPECT_FALSE(r.skipBytes(9));
    ASSERT_TRUE(r.skipBytes(8));
    EXPECT_EQ(r.bytesLeft(), 0u);
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

TEST(BitWriter, FlushWritesPartialByteWithLowBitsZero)
{
    unsigned char out[4] = {0xAA, 0xAA, 0xAA, 0xAA};
    BSWriter w(out, 4);
    ASSERT_TRUE(w.putBits<12>(0xFFF));
    ASSERT_TRUE(w.flush());
    EXPECT_EQ(w.m_writeByte, 2u);
    EXPECT_EQ(w.m_length, 2u);
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(out[1], 0xF0);
    EXPECT_EQ(out[2], 0xAA);
}

TEST(BitWriter, NeverWritesPastItsBuffer)
{
    for (size_t cap : {0u, 1u, 5u, 7u, 8u, 9u, 15u}) {
        std::vector<unsigned char> buf(cap + 8, 0x5A);
        BSWriter w(buf.data(), cap);
        bool ok = true;
        for (int i = 0; i < 16 && ok; ++i)
            ok = w.putBits<8>(i);
        ok = ok && w.flush();
        EXPECT_FALSE(ok) << cap;
        for (size_t i = cap; i < buf.size(); ++i)
            EXPECT_EQ(buf[i], 0x5A) << "capacity " << cap << " byte " << i;
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

TEST(BaseMpegTable, AddDataNeverFillsTheLastByte)
{
    CBaseMpegTable t(nullptr, 8);
    EXPECT_TRUE(t.m_bSelfAlloc);
    unsigned char d[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_TRUE(t.AddData(d, 3));
    EXPECT_FALSE(t.AddData(d, 5)); // exactly the free capacity
    EXPECT_EQ(t.m_lSizeTable, 3u);
    EXPECT_TRUE(t.AddData(d, 4));
    EXPECT_EQ(0, std::memcmp(t.m_pDataTable + 3, d, 4));
    t.Clear();
    EXPECT_EQ(t.m_lSizeTable, 0u);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(t.m_pDataTable[i], 0);

    unsigned char external[4];
    CBaseMpegTable e(external, sizeof external);
    EXPECT_FALSE(e.m_bSelfAlloc);
    EXPECT_EQ(e.m_pDataTable, external);
}

TEST(BaseMpegTable, HeaderReadWriteAndShortInputIsNotAnError)
{
    alignas(8) unsigned char d[3] = {0xFC, 0xB1, 0x23};
    CBaseMpegTable t(nullptr, 16);
    BSReader r(d, 3);
    ASSERT_TRUE(t.read(r));
    EXPECT_EQ(t.table_id, 0xFC);
    EXPECT_EQ(t.section_syntax_indicator, 1);
    EXPECT_EQ(t.zero, 0);
    EXPECT_EQ(t.reserved, 3);
    EXPECT_EQ(t.section_length, 0x123);
    ASSERT_TRUE(t.RenderTable());
    EXPECT_EQ(t.m_lSizeTable, 3u);
    EXPECT_EQ(0, std::memcmp(t.m_pDataTable, d, 3));

    BSReader shortReader(d, 1);
    EXPECT_TRUE(t.read(shortReader));
}
