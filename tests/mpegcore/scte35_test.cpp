#include "mpeg2_crc32.h"
#include "scte35.h"
#include "test_data.h"

#include <gtest/gtest.h>

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

INSTANTIATE_TEST_SUITE_P(Samples, Scte35Golden, ::testing::ValuesIn(qvtest::scte35_samples()),
                         [](const auto& p) {
                             std::string n = p.param.name;
                             for (auto& c : n)
                                 if (!isalnum(static_cast<unsigned char>(c)))
                                     c = '_';
                             return n;
                         });

struct GoldenFields {
    const char* name;
    uint8_t commandType;
    uint64_t pts;
    size_t descriptors;
};

class Scte35GoldenFields : public ::testing::TestWithParam<GoldenFields> {};

TEST_P(Scte35GoldenFields, CommandTimeAndDescriptorCount)
{
    const auto& p = GetParam();
    auto bytes = sample(p.name).bytes;
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    EXPECT_EQ(s.splice_command_type, p.commandType);
    if (auto* t = s.command<time_signal_t>()) {
        EXPECT_EQ(t->time_specified_flag, 1);
        EXPECT_EQ(t->pts_time, p.pts);
    }
    if (auto* i = s.command<splice_insert_t>(); i && !i->splice_immediate_flag) {
        EXPECT_EQ(i->splice_time.pts_time, p.pts);
    }
    EXPECT_EQ(s.descriptors.descriptor.size(), p.descriptors);
}

INSTANTIATE_TEST_SUITE_P(
    Samples, Scte35GoldenFields,
    ::testing::Values(GoldenFields{"14.1_time_signal_po_start", 6, 0x072bd0050, 1},
                      GoldenFields{"14.2_splice_insert", 5, 0x07369c02e, 1},
                      GoldenFields{"14.4_time_signal_program_start_end", 6, 0x07a4d88b6, 2},
                      GoldenFields{"14.8_time_signal_three_segmentations", 6, 0x0a8cd44ed, 3},
                      GoldenFields{"splice_insert_dtmf", 5, 3490025771u, 1},
                      GoldenFields{"time_signal_mid_upid", 6, 4294967296u, 1},
                      GoldenFields{"legacy_command_length_fff", 6, 3550479013u, 1},
                      GoldenFields{"non_cuei_descriptor", 6, 4742663042u, 2},
                      GoldenFields{"splice_null_heartbeat", 0, 0, 0},
                      GoldenFields{"alignment_stuffing", 5, 0, 0}));

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

TEST(Scte35, SpliceInsertAndDtmfOfPublicVector)
{
    auto bytes = sample("splice_insert_dtmf").bytes;
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    auto* i = s.command<splice_insert_t>();
    ASSERT_TRUE(i);
    EXPECT_EQ(i->splice_event_id, 1073776558u);
    EXPECT_EQ(i->out_of_network_indicator, 1);
    EXPECT_EQ(i->program_splice_flag, 1);
    EXPECT_EQ(i->duration_flag, 1);
    EXPECT_EQ(i->break_duration.auto_return, 1);
    EXPECT_EQ(i->break_duration.duration, 5400000u);
    EXPECT_EQ(i->unique_program_id, 45);
    EXPECT_EQ(i->avail_num, 0);
    EXPECT_EQ(i->avails_expected, 127);
    auto d = std::dynamic_pointer_cast<scte35_dtmf_descriptor>(s.descriptors.find(1));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->preroll, 80);
    EXPECT_EQ(d->dtmf_count, 4);
    EXPECT_EQ(std::string(d->DTMF_chars.begin(), d->DTMF_chars.end()), "519*");
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

TEST_P(Scte35Corruption, GetsTheSpecifiedReaction)
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

TEST(Scte35, TimeSignalLengthAndBytes)
{
    splice_info_section s;
    auto& t = s.set_command<time_signal_t>();
    t.time_specified_flag = 1;
    t.reserved = 0x3F;
    t.pts_time = 0x1FFFFFFFFull;
    auto out = write_section(s);
    EXPECT_EQ(s.splice_command_length, 5);
    EXPECT_EQ(s.calc_section_length(), 22);
    ASSERT_EQ(out.size(), 25u);
    const std::vector<uint8_t> head = {0xFC, 0x30, 22, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xF0, 5, 6, 0xFF, 0xFF,
                                       0xFF, 0xFF, 0xFF, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 21), head);
    EXPECT_EQ(mpeg2_crc32(out.data(), out.size()), 0u);
}

TEST(Scte35, ImmediateProgramSpliceHasNoSpliceTime)
{
    splice_info_section s;
    auto& i = s.set_command<splice_insert_t>();
    i.splice_event_id = 99;
    i.program_splice_flag = 1;
    i.splice_immediate_flag = 1;
    i.splice_time.time_specified_flag = 1; // must not be written
    auto out = write_section(s);
    EXPECT_EQ(s.splice_command_length, 10); // id 4, flags 2, upid 2, avail 2
    splice_info_section back;
    ASSERT_TRUE(back.read(out.data(), out.size()));
    ASSERT_TRUE(back.command<splice_insert_t>());
    EXPECT_EQ(back.command<splice_insert_t>()->splice_time.time_specified_flag, 0);
}

TEST(Scte35, RepeatedComponentTagsKeepOneEntryWrittenInTagOrder)
{
    // splice_insert, component mode, not immediate: components 7, 3, 7.
    std::vector<uint8_t> cmd = {5, 0, 0, 0, 1, 0x7F, 0x8F /*out, comp, no dur, not imm*/, 3,
                                7, 0x7E,                  // tag 7, no time
                                3, 0xFE, 0, 0, 0, 9,      // tag 3, time 9
                                7, 0xFE, 0, 0, 0, 5,      // tag 7 again, time 5
                                0, 1, 0, 0};
    std::vector<uint8_t> b = {0xFC, 0x30, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xF0, static_cast<uint8_t>(cmd.size() - 1)};
    b.insert(b.end(), cmd.begin(), cmd.end());
    b.insert(b.end(), {0, 0, 0, 0, 0, 0});
    b[2] = static_cast<uint8_t>(b.size() - 3);
    fix_crc(b);
    splice_info_section s;
    ASSERT_TRUE(s.read(b.data(), b.size()));
    auto* i = s.command<splice_insert_t>();
    ASSERT_TRUE(i);
    EXPECT_EQ(i->component_count, 3);
    ASSERT_EQ(i->components.size(), 2u);
    EXPECT_EQ(i->components.at(7)->splice_time.pts_time, 5u);

    auto out = write_section(s);
    splice_info_section back;
    ASSERT_TRUE(back.read(out.data(), out.size()));
    auto* j = back.command<splice_insert_t>();
    ASSERT_TRUE(j);
    EXPECT_EQ(j->component_count, 2);
    EXPECT_EQ(out[13 + 8], 3); // first component written: the lowest tag
    EXPECT_EQ(j->components.at(3)->splice_time.pts_time, 9u);
}

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

// splice_schedule, hand-assembled from the SCTE 35 syntax: a program event, a component
// event with a break, a cancelled event.
TEST(Scte35, SpliceScheduleReadWriteAndDeepCopy)
{
    std::vector<uint8_t> cmd = {
        4, 3,
        0, 0, 0, 1, 0x7F, 0xDF, 0x5E, 0x00, 0x00, 0x10, 0x00, 0x01, 0x01, 0x02,       // program, out, no dur
        0, 0, 0, 2, 0x7F, 0x3F, 2, 0x11, 0, 0, 0, 5, 0x22, 0, 0, 0, 6,                 // component, dur
        0xFE, 0x00, 0x01, 0x5F, 0x90, 0x00, 0x03, 0x02, 0x04,
        0, 0, 0, 3, 0xFF};                                                              // cancelled
    std::vector<uint8_t> b = {0xFC, 0x30, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xF0, static_cast<uint8_t>(cmd.size() - 1)};
    b.insert(b.end(), cmd.begin(), cmd.end());
    b.insert(b.end(), {0, 0, 0, 0, 0, 0});
    b[2] = static_cast<uint8_t>(b.size() - 3);
    fix_crc(b);

    splice_info_section s;
    ASSERT_TRUE(s.read(b.data(), b.size()));
    auto* sch = s.command<splice_schedule_t>();
    ASSERT_TRUE(sch);
    ASSERT_EQ(sch->splice_event.size(), 3u);
    const auto& e1 = *sch->splice_event.at(1);
    EXPECT_EQ(e1.out_of_network_indicator, 1);
    EXPECT_EQ(e1.program_splice_flag, 1);
    EXPECT_EQ(e1.utc_splice_time, 0x5E000010u);
    EXPECT_EQ(e1.unique_program_id, 1);
    EXPECT_EQ(e1.avail_num, 1);
    EXPECT_EQ(e1.avails_expected, 2);
    const auto& e2 = *sch->splice_event.at(2);
    EXPECT_EQ(e2.program_splice_flag, 0);
    ASSERT_EQ(e2.components.size(), 2u);
    EXPECT_EQ(e2.components.at(0x22)->utc_splice_time, 6u);
    EXPECT_EQ(e2.duration_flag, 1);
    EXPECT_EQ(e2.break_duration.auto_return, 1);
    EXPECT_EQ(e2.break_duration.duration, 90000u);
    EXPECT_EQ(sch->splice_event.at(3)->splice_event_cancel_indicator, 1);
    EXPECT_EQ(write_section(s), b);

    splice_info_section copy;
    s.copyTo(&copy);
    sch->splice_event.at(2)->components.at(0x22)->utc_splice_time = 77;
    EXPECT_EQ(write_section(copy), b); // the copy owns its events
}

TEST(Scte35, ReadsASectionHeldInItsOwnBufferAndRendersIt)
{
    auto bytes = sample("14.2_splice_insert").bytes;
    splice_info_section s(nullptr, 256);
    ASSERT_TRUE(s.AddData(bytes.data(), bytes.size()));
    ASSERT_TRUE(s.read(s.m_pDataTable, s.m_lSizeTable));
    ASSERT_TRUE(s.RenderTable());
    EXPECT_EQ(std::vector<uint8_t>(s.m_pDataTable, s.m_pDataTable + s.m_lSizeTable), bytes);
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
