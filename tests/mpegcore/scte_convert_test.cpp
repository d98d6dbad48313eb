#include "scte_convert.h"
#include "test_data.h"

#include <gtest/gtest.h>

using namespace mpegcore;

namespace {

std::unique_ptr<splice_info_section> golden(const std::string& name)
{
    auto s = std::make_unique<splice_info_section>();
    for (auto& smp : qvtest::scte35_samples())
        if (smp.name == name) {
            EXPECT_TRUE(s->read(smp.bytes.data(), smp.bytes.size()));
            return s;
        }
    ADD_FAILURE() << "no sample " << name;
    return s;
}

std::vector<uint16_t> op_ids(const scte104_multiple_operation_message& m)
{
    std::vector<uint16_t> ids;
    for (auto& op : m.opIDs)
        ids.push_back(op->opID);
    return ids;
}

template <class D>
std::shared_ptr<D> add(splice_info_section& s)
{
    auto d = std::make_shared<D>();
    s.descriptors.add(d);
    return d;
}

constexpr long kWrap = 1L << 33;

} // namespace

struct PreRollCase {
    long now;
    uint64_t pts;
    uint16_t expected;
};

class PreRoll : public ::testing::TestWithParam<PreRollCase> {};

TEST_P(PreRoll, TruncatesAheadRoundsAfterAWrap)
{
    EXPECT_EQ(scte35_pts_to_pre_roll(GetParam().now, GetParam().pts), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PreRoll,
    ::testing::Values(PreRollCase{1000000, 1090000, 1000},              // one second ahead
                      PreRollCase{1000000, 1000000 - 90, 23301},        // 95443717 ms, kept in 16 bits
                      PreRollCase{500, 500 + 89, 0},                    // ahead: truncated
                      PreRollCase{500, 500 + 179, 1},
                      PreRollCase{kWrap - 46, 0, 1},                    // wrapped: 0.511 ms rounds up
                      PreRollCase{kWrap - 45, 0, 0},                    // exactly 0.5 ms does not (+0.499)
                      PreRollCase{kWrap - 90 * 5000, 45000, 5500}));    // across the wrap

struct InsertCase {
    const char* what;
    uint8_t cancel, out, program, immediate, timeSpecified, durationFlag;
    uint8_t expectedType;
    uint16_t expectedPreRoll, expectedBreak;
};

class SpliceInsertToRequest : public ::testing::TestWithParam<InsertCase> {};

TEST_P(SpliceInsertToRequest, TypeTimesAndCopiedFields)
{
    const auto& c = GetParam();
    splice_insert_t si;
    si.splice_event_id = 0xABCDEF01;
    si.splice_event_cancel_indicator = c.cancel;
    si.out_of_network_indicator = c.out;
    si.program_splice_flag = c.program;
    si.splice_immediate_flag = c.immediate;
    si.splice_time.time_specified_flag = c.timeSpecified;
    si.splice_time.pts_time = 10 * 90000 + 180000;
    si.duration_flag = c.durationFlag;
    si.break_duration.auto_return = 1;
    si.break_duration.duration = 2700000;
    si.unique_program_id = 77;
    si.avail_num = 2;
    si.avails_expected = 4;

    auto srd = scte35_si_to_scte104_srd(10 * 90000, si);
    ASSERT_TRUE(srd) << c.what;
    EXPECT_EQ(srd->splice_insert_type, c.expectedType) << c.what;
    EXPECT_EQ(srd->pre_roll_time, c.expectedPreRoll) << c.what;
    EXPECT_EQ(srd->break_duration, c.expectedBreak) << c.what;
    EXPECT_EQ(srd->auto_return_flag, c.expectedBreak ? 1 : 0) << c.what;
    EXPECT_EQ(srd->splice_event_id, 0xABCDEF01u);
    EXPECT_EQ(srd->unique_program_id, 77);
    EXPECT_EQ(srd->avail_num, 2);
    EXPECT_EQ(srd->avails_expected, 4);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SpliceInsertToRequest,
    ::testing::Values(InsertCase{"out, normal, 30 s break", 0, 1, 1, 0, 1, 1, spliceStart_normal, 2000, 300},
                      InsertCase{"out, normal, no break", 0, 1, 1, 0, 1, 0, spliceStart_normal, 2000, 0},
                      InsertCase{"out, time not specified", 0, 1, 1, 0, 0, 0, spliceStart_normal, 0, 0},
                      InsertCase{"in, normal: no break even when flagged", 0, 0, 1, 0, 1, 1, spliceEnd_normal, 2000, 0},
                      InsertCase{"out, immediate", 0, 1, 1, 1, 1, 1, spliceStart_immediate, 0, 300},
                      InsertCase{"in, immediate", 0, 0, 1, 1, 0, 0, spliceEnd_immediate, 0, 0},
                      InsertCase{"cancel", 1, 1, 1, 0, 1, 1, splice_cancel, 0, 0}));

TEST(ScteConvert, InsertTakesOneOperationPerTagInTagOrder)
{
    splice_info_section s;
    s.protocol_version = 0;
    auto& si = s.set_command<splice_insert_t>();
    si.out_of_network_indicator = 1;
    si.splice_immediate_flag = 1;
    auto t = add<scte35_time_descriptor>(s);
    t->TAI_seconds = 0x123456789ABCull;
    t->TAI_ns = 500;
    t->UTC_offset = 37;
    auto seg1 = add<scte35_segmentation_descriptor>(s);
    seg1->segmentation_event_id = 1;
    auto seg2 = add<scte35_segmentation_descriptor>(s);
    seg2->segmentation_event_id = 2;
    auto dtmf = add<scte35_dtmf_descriptor>(s);
    dtmf->preroll = 40;
    dtmf->dtmf_count = 2;
    dtmf->DTMF_chars = {'9', '#'};
    add<avail_descriptor>(s)->provider_avail_id = 0x135;

    auto m = to_scte104(0, 25.0, s);
    ASSERT_TRUE(m);
    EXPECT_EQ(op_ids(*m), (std::vector<uint16_t>{0x0101, 0x010A, 0x0109, 0x010B, 0x0110}));
    auto seg = std::dynamic_pointer_cast<scte104_insert_segmentation_descriptor_request_data>(m->opIDs[3]);
    EXPECT_EQ(seg->segmentation_event_id, 1u);
    auto d = std::dynamic_pointer_cast<scte104_insert_DTMF_descriptor_request_data>(m->opIDs[2]);
    EXPECT_EQ(d->pre_roll, 40);
    EXPECT_EQ(d->dtmf_length, 2);
    EXPECT_EQ(d->DTMF_char, (std::vector<uint8_t>{'9', '#'}));
    auto td = std::dynamic_pointer_cast<scte104_insert_time_descriptor>(m->opIDs[4]);
    EXPECT_EQ(td->TAI_seconds, 0x123456789ABCull);
    EXPECT_EQ(td->TAI_ns, 500u);
    EXPECT_EQ(td->UTC_offset, 37);
    EXPECT_EQ(m->Reserved, 0xFFFF);
    EXPECT_EQ(m->num_ops, 5);
    EXPECT_EQ(m->messageSize, m->calc_section_length());
    EXPECT_EQ(m->messageSize, 12 + (4 + 14) + (4 + 5) + (4 + 4) + (4 + 19) + (4 + 12));

    std::vector<uint8_t> out(4096);
    ASSERT_TRUE(m->write(out.data(), out.size()));
    scte104_multiple_operation_message back;
    ASSERT_TRUE(back.read(out.data(), m->messageSize));
    EXPECT_TRUE(back.isEqual(*m));
}

// The standard's own sample 14.2 as it would arrive two seconds before its splice time.
TEST(ScteConvert, GoldenSpliceInsertBecomesAStartRequestWithAvail)
{
    auto s = golden("14.2_splice_insert");
    auto m = to_scte104(0x07369c02e - 180000, 25.0, *s);
    ASSERT_TRUE(m);
    EXPECT_EQ(op_ids(*m), (std::vector<uint16_t>{0x0101, 0x010A}));
    auto srd = std::dynamic_pointer_cast<scte104_splice_request_data>(m->opIDs[0]);
    EXPECT_EQ(srd->splice_insert_type, spliceStart_normal);
    EXPECT_EQ(srd->splice_event_id, 0x4800008fu);
    EXPECT_EQ(srd->pre_roll_time, 2000);
    EXPECT_EQ(srd->break_duration, 602); // 0x52ccf5 ticks = 60.29 s
    EXPECT_EQ(srd->auto_return_flag, 1);
    auto avail = std::dynamic_pointer_cast<scte104_insert_avail_descriptor_request_data>(m->opIDs[1]);
    EXPECT_EQ(avail->provider_avail_ids, (std::vector<uint32_t>{0x135}));
    EXPECT_EQ(m->messageSize, 12 + 18 + 9);
}

TEST(ScteConvert, SpliceRequestBackToSpliceInsert)
{
    auto srd = std::make_shared<scte104_splice_request_data>();
    srd->splice_insert_type = spliceStart_normal;
    srd->splice_event_id = 42;
    srd->pre_roll_time = 4000;
    srd->break_duration = 300;
    srd->auto_return_flag = 1;
    srd->unique_program_id = 9;
    auto section = scte104_srd_to_scte35_si(kWrap - 90000, 25.0, srd);
    ASSERT_TRUE(section);
    auto* si = section->command<splice_insert_t>();
    ASSERT_TRUE(si);
    EXPECT_EQ(si->splice_time.pts_time, 270000u); // 4 s after now, across the wrap
    EXPECT_EQ(si->break_duration.duration, 2700000u);

    // And through the wire format and forward again: the same request.
    std::vector<uint8_t> out(1024);
    ASSERT_TRUE(section->write(out.data(), out.size()));
    splice_info_section back;
    ASSERT_TRUE(back.read(out.data(), size_t(section->section_length) + 3));
    auto m = to_scte104(kWrap - 90000, 25.0, back);
    ASSERT_TRUE(m);
    auto again = std::dynamic_pointer_cast<scte104_splice_request_data>(m->opIDs.at(0));
    EXPECT_TRUE(again->isEqual(*srd));

    srd->splice_insert_type = reserved;
    EXPECT_FALSE(scte104_srd_to_scte35_si(0, 25.0, srd));
}
