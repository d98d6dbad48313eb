#include "mpeg2_crc32.h"
#include "scte35.h"
#include "test_data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace mpegcore;

namespace {

std::vector<uint8_t> write_section(splice_info_section& s)
{
    std::vector<uint8_t> out(4096);
    EXPECT_TRUE(s.write(out.data(), out.size()));
    out.resize(size_t(s.section_length) + 3);
    return out;
}

void fix_crc(std::vector<uint8_t>& b)
{
    const size_t n = b.size() - 4;
    uint32_t crc = mpeg2_crc32(b.data(), n);
    for (int i = 0; i < 4; ++i)
        b[n + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

bool parses(std::vector<uint8_t> b)
{
    splice_info_section s;
    return s.read(b.data(), b.size());
}

const qvtest::Scte35Sample& sample(const std::string& name)
{
    static const auto all = qvtest::scte35_samples();
    for (const auto& s : all)
        if (s.name == name)
            return s;
    static qvtest::Scte35Sample none;
    ADD_FAILURE() << "no sample " << name;
    return none;
}

} // namespace

// ---- golden sections ------------------------------------------------------------------

class Scte35Golden : public ::testing::TestWithParam<qvtest::Scte35Sample> {};

TEST_P(Scte35Golden, ReadsAndRoundTrips)
{
    auto bytes = GetParam().bytes;
    ASSERT_GT(bytes.size(), 3u);
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    EXPECT_EQ(s.table_id, 0xFC);
    EXPECT_EQ(size_t(s.section_length) + 3, bytes.size());
    EXPECT_EQ(s.reserved1, 0xFFF);
    if (!GetParam().roundTrip)
        return;
    EXPECT_EQ(s.calc_section_length(), s.section_length);
    EXPECT_EQ(write_section(s), bytes);

    splice_info_section copy;
    s.copyTo(&copy);
    EXPECT_EQ(write_section(copy), bytes);
}

INSTANTIATE_TEST_SUITE_P(Samples, Scte35Golden, ::testing::ValuesIn(qvtest::scte35_samples()), [](const auto& p) {
    std::string n = p.param.name;
    std::replace(n.begin(), n.end(), '.', '_');
    return n;
});

TEST(Scte35, SegmentationDescriptorOfSample14_1)
{
    auto bytes = sample("14.1_time_signal_po_start").bytes;
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    auto d = std::dynamic_pointer_cast<scte35_segmentation_descriptor>(s.descriptors.find(2));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->segmentation_event_id, 0x4800008eu);
    EXPECT_EQ(d->segmentation_event_cancel_indicator, 0);
    EXPECT_EQ(d->program_segmentation_flag, 1);
    EXPECT_EQ(d->segmentation_duration_flag, 1);
    EXPECT_EQ(d->delivery_not_restricted_flag, 0);
    EXPECT_EQ(d->web_delivery_allowed_flag, 0);
    EXPECT_EQ(d->no_regional_blackout_flag, 1);
    EXPECT_EQ(d->archive_allowed_flag, 1);
    EXPECT_EQ(d->device_restrictions, 3);
    EXPECT_EQ(d->segmentation_duration, 0x0001a599b0u);
    EXPECT_EQ(d->segmentation_upid_type, 0x08);
    EXPECT_EQ(d->segmentation_upid, (std::vector<uint8_t>{0, 0, 0, 0, 0x2c, 0xa0, 0xa1, 0x8a}));
    EXPECT_EQ(d->segmentation_type_id, 0x34);
    EXPECT_EQ(d->segment_num, 2);
    EXPECT_EQ(d->segments_expected, 0);
}

TEST(Scte35, NonCueiSpliceDescriptorIsKeptRaw)
{
    auto bytes = sample("non_cuei_descriptor").bytes;
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    auto first = s.descriptors.descriptor.at(0);
    EXPECT_EQ(first->descriptor_tag, 0);
    EXPECT_FALSE(std::dynamic_pointer_cast<avail_descriptor>(first));
    EXPECT_TRUE(std::dynamic_pointer_cast<scte35_segmentation_descriptor>(s.descriptors.descriptor.at(1)));
}

// ---- malformed input -------------------------------------------------------------------

TEST(Scte35Malformed, EveryTruncationIsRejected)
{
    for (const auto& smp : qvtest::scte35_samples()) {
        for (size_t n = 0; n < smp.bytes.size(); ++n) {
            std::vector<uint8_t> cut(smp.bytes.begin(), smp.bytes.begin() + n);
            cut.push_back(0); // a valid pointer even for length 0
            splice_info_section s;
            EXPECT_FALSE(s.read(cut.data(), n)) << smp.name << " cut at " << n;
        }
    }
    splice_info_section s;
    EXPECT_FALSE(s.read(nullptr, 10));
}

struct Corruption {
    const char* what;
    void (*apply)(std::vector<uint8_t>&);
    bool accepted;
};

class Scte35Corruption : public ::testing::TestWithParam<Corruption> {};

TEST_P(Scte35Corruption, ReadResultMatchesTheDamage)
{
    auto bytes = sample("14.2_splice_insert").bytes;
    GetParam().apply(bytes);
    EXPECT_EQ(parses(bytes), GetParam().accepted) << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Scte35Corruption,
    ::testing::Values(
        Corruption{"last CRC byte changed", [](auto& b) { b.back() ^= 1; }, false},
        Corruption{"payload bit flipped", [](auto& b) { b[20] ^= 0x10; }, false},
        Corruption{"encrypted with valid CRC", [](auto& b) { b[4] |= 0x80; fix_crc(b); }, false},
        Corruption{"wrong table id", [](auto& b) { b[0] = 0xFD; fix_crc(b); }, false},
        Corruption{"private indicator set", [](auto& b) { b[1] |= 0x40; fix_crc(b); }, false},
        Corruption{"section_syntax_indicator set", [](auto& b) { b[1] |= 0x80; fix_crc(b); }, true},
        Corruption{"reserved bits cleared", [](auto& b) { b[1] &= 0xCF; fix_crc(b); }, true},
        Corruption{"section_length above 4093",
                   [](auto& b) { b[1] = static_cast<uint8_t>((b[1] & 0xF0) | 0x0F); b[2] = 0xFE; }, false},
        Corruption{"section_length beyond the data", [](auto& b) { b[2] = static_cast<uint8_t>(b[2] + 1); }, false},
        Corruption{"descriptor loop overruns the section",
                   [](auto& b) { b[b.size() - 4 - 10 - 1] = 11; fix_crc(b); }, false},
        Corruption{"descriptor length overruns the loop",
                   [](auto& b) { b[b.size() - 4 - 10 + 1] = 9; fix_crc(b); }, false},
        Corruption{"trailing bytes after the section", [](auto& b) { b.push_back(0xFF); b.push_back(0xFF); }, true}));

TEST(Scte35Malformed, DescriptorLoopWithStrayBytesStillReads)
{
    // splice_null with a loop of one avail descriptor and 2 stray bytes.
    std::vector<uint8_t> b = {0xFC, 0x30, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xF0, 0x00, 0x00,
                              0x00, 0x0C, 0x00, 0x08, 'C', 'U', 'E', 'I', 0, 0, 0, 7, 0xAA, 0xBB, 0, 0, 0, 0};
    b[2] = static_cast<uint8_t>(b.size() - 3);
    fix_crc(b);
    splice_info_section s;
    ASSERT_TRUE(s.read(b.data(), b.size()));
    ASSERT_EQ(s.descriptors.descriptor.size(), 1u);
    EXPECT_EQ(std::dynamic_pointer_cast<avail_descriptor>(s.descriptors.descriptor[0])->provider_avail_id, 7u);
}

// ---- commands built here, written and read back ----------------------------------------

TEST(Scte35, PrivateCommandKeepsTheLowIdentifierBits)
{
    std::vector<uint8_t> b = {0xFC, 0x30, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xF0, 7, 0xFF,
                              0x12, 0x34, 0x56, 0x78, 0xA1, 0xA2, 0xA3, 0, 0, 0, 0, 0, 0};
    b[2] = static_cast<uint8_t>(b.size() - 3);
    fix_crc(b);
    splice_info_section s;
    ASSERT_TRUE(s.read(b.data(), b.size()));
    auto* p = s.command<private_command_t>();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->identifier, 0x5678);
    ASSERT_EQ(p->private_length, 3u);
    EXPECT_EQ(p->private_bytes[2], 0xA3);

    b[12] = 3; // splice_command_length too short for the identifier
    fix_crc(b);
    EXPECT_FALSE(parses(b));
}

TEST(Scte35, WriteFailsCleanlyWhenTheBufferIsTooSmall)
{
    auto bytes = sample("14.8_time_signal_three_segmentations").bytes;
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    for (size_t cap = 1; cap < bytes.size(); ++cap) {
        std::vector<uint8_t> out(cap + 16, 0xEE);
        EXPECT_FALSE(s.write(out.data(), cap)) << cap;
        for (size_t i = cap; i < out.size(); ++i)
            ASSERT_EQ(out[i], 0xEE);
    }
}
