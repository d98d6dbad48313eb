#include "scte104.h"
#include "test_data.h"

#include <gtest/gtest.h>

using namespace mpegcore;

namespace {

std::vector<uint8_t> write_message(scte104_multiple_operation_message& m)
{
    std::vector<uint8_t> out(4096);
    EXPECT_TRUE(m.write(out.data(), out.size()));
    out.resize(m.messageSize);
    return out;
}

std::shared_ptr<scte104_splice_request_data> sample_splice_request()
{
    auto srd = std::make_shared<scte104_splice_request_data>();
    srd->splice_insert_type = spliceStart_normal;
    srd->splice_event_id = 0x01020304;
    srd->unique_program_id = 0x0506;
    srd->pre_roll_time = 0x0708;
    srd->break_duration = 0x090A;
    srd->avail_num = 0x0B;
    srd->avails_expected = 0x0C;
    srd->auto_return_flag = 1;
    return srd;
}

} // namespace

// ---- golden messages from recorded/public VANC packets ----------------------------------

class Scte104Golden : public ::testing::TestWithParam<qvtest::VancPacket> {};

TEST_P(Scte104Golden, ReadsAndWritesBackTheSameBytes)
{
    auto msg = GetParam().message();
    scte104_multiple_operation_message m;
    ASSERT_TRUE(m.read(msg.data(), msg.size()));
    EXPECT_EQ(m.Reserved, 0xFFFF);
    EXPECT_EQ(m.num_ops, m.opIDs.size());
    EXPECT_EQ(m.calc_section_length(), msg.size());

    for (size_t n = 0; n < msg.size(); ++n) {
        scte104_multiple_operation_message cut;
        std::vector<uint8_t> part(msg.begin(), msg.begin() + n);
        part.push_back(0); // a valid pointer even for n = 0
        EXPECT_FALSE(cut.read(part.data(), n)) << "cut at " << n;
    }

    // Everything but messageSize (0 in most of these packets) must come back byte for
    // byte, except that a segmentation operation of the 2012 layout is written in the
    // current one (one byte longer).
    auto out = write_message(m);
    const bool legacy = GetParam().name == "klvanc_0" || GetParam().name == "klvanc_4";
    EXPECT_EQ(out.size(), msg.size() + (legacy ? 1 : 0));
    if (legacy)
        return;
    EXPECT_EQ(m.messageSize, msg.size());
    ASSERT_EQ(out.size(), msg.size());
    out[2] = msg[2];
    out[3] = msg[3];
    EXPECT_EQ(out, msg);
}

INSTANTIATE_TEST_SUITE_P(Klvanc, Scte104Golden, ::testing::ValuesIn(qvtest::scte104_vanc_packets()),
                         [](const auto& p) { return p.param.name; });

TEST(Scte104, FieldsOfAPublicSpliceRequestMessage)
{
    const auto packets = qvtest::scte104_vanc_packets();
    ASSERT_GE(packets.size(), 6u);
    auto msg = packets[1].message();
    scte104_multiple_operation_message m;
    ASSERT_TRUE(m.read(msg.data(), msg.size()));
    EXPECT_EQ(m.timestamp.time_type, 0);
    ASSERT_EQ(m.opIDs.size(), 2u);
    auto srd = std::dynamic_pointer_cast<scte104_splice_request_data>(m.find_opID(scte104_splice_request_opid));
    ASSERT_TRUE(srd);
    EXPECT_EQ(srd->data_length, 14);
    EXPECT_EQ(srd->splice_insert_type, spliceStart_immediate);
    EXPECT_EQ(srd->splice_event_id, 0x1234u);
    EXPECT_EQ(srd->unique_program_id, 0x4567);
    EXPECT_EQ(srd->pre_roll_time, 0);
    EXPECT_EQ(srd->break_duration, 300);
    EXPECT_EQ(srd->avail_num, 1);
    EXPECT_EQ(srd->avails_expected, 2);
    EXPECT_EQ(srd->auto_return_flag, 1);
    // An operation this system does not interpret is carried raw.
    auto other = std::dynamic_pointer_cast<scte104_raw_operation>(m.opIDs[1]);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->opID, 0x010F);
    EXPECT_EQ(other->data, (std::vector<uint8_t>{0x12, 0x34}));

    auto seg = qvtest::scte104_vanc_packets()[4].message();
    scte104_multiple_operation_message s;
    ASSERT_TRUE(s.read(seg.data(), seg.size()));
    auto sd = std::dynamic_pointer_cast<scte104_insert_segmentation_descriptor_request_data>(
        s.find_opID(scte104_insert_segmentation_descriptor_opid));
    ASSERT_TRUE(sd);
    EXPECT_EQ(sd->segmentation_event_id, 0x4D2u);
    EXPECT_EQ(sd->duration, 0x15E);
    EXPECT_EQ(sd->segmentation_upid_type, 1);
    EXPECT_EQ(sd->segmentation_upid, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(sd->segmentation_type_id, 3);
    EXPECT_EQ(sd->segment_num, 1);
    EXPECT_EQ(sd->segments_expected, 2);
    EXPECT_EQ(sd->duration_extension_frames, 0x3B);
    EXPECT_EQ(sd->delivery_not_restricted_flag, 1);
    EXPECT_EQ(sd->web_delivery_allowed_flag, 1);
    EXPECT_EQ(sd->no_regional_blackout_flag, 0);
    EXPECT_EQ(sd->archive_allowed_flag, 1);
    EXPECT_EQ(sd->device_restrictions, 0);
    EXPECT_EQ(sd->insert_sub_segment_info, 0);
    EXPECT_EQ(sd->data_length, 21); // 2012 layout, without insert_sub_segment_info
    EXPECT_EQ(sd->calc_data_length(), 22);

    auto td = qvtest::scte104_vanc_packets()[5].message();
    scte104_multiple_operation_message t;
    ASSERT_TRUE(t.read(td.data(), td.size()));
    auto tdesc = std::dynamic_pointer_cast<scte104_insert_time_descriptor>(t.find_opID(scte104_insert_time_descriptor_opid));
    ASSERT_TRUE(tdesc);
    EXPECT_EQ(tdesc->TAI_seconds, 0xEEC458DBEEC4ull);
    EXPECT_EQ(tdesc->TAI_ns, 0x1DCD6500u);
    EXPECT_EQ(tdesc->UTC_offset, 0x01F4);
}

// ---- lengths and layouts ----------------------------------------------------------------

TEST(Scte104, EveryOperationTypeRoundTripsAndInequalityIsSeen)
{
    scte104_multiple_operation_message m;
    m.add_message(sample_splice_request());
    auto ts = std::make_shared<scte104_time_signal_request_data>();
    ts->pre_roll_time = 4000;
    m.add_message(ts);
    auto dtmf = std::make_shared<scte104_insert_DTMF_descriptor_request_data>();
    dtmf->pre_roll = 50;
    dtmf->DTMF_char = {'1', '2', '*'};
    m.add_message(dtmf);
    auto avail = std::make_shared<scte104_insert_avail_descriptor_request_data>();
    avail->provider_avail_ids = {1, 0xFFFFFFFF};
    m.add_message(avail);
    EXPECT_EQ(dtmf->data_length, 5);
    EXPECT_EQ(avail->data_length, 9);

    auto out = write_message(m);
    scte104_multiple_operation_message back;
    ASSERT_TRUE(back.read(out.data(), out.size()));
    ASSERT_EQ(back.opIDs.size(), 4u);
    EXPECT_TRUE(back.isEqual(m));
    auto a = std::dynamic_pointer_cast<scte104_insert_avail_descriptor_request_data>(back.opIDs[3]);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->num_provider_avails, 2);
    EXPECT_EQ(a->provider_avail_ids[1], 0xFFFFFFFFu);

    std::dynamic_pointer_cast<scte104_time_signal_request_data>(back.opIDs[1])->pre_roll_time = 4001;
    EXPECT_FALSE(back.isEqual(m));
}

TEST(Scte104, OperationDataLengthBeyondTheMessageIsRejected)
{
    scte104_multiple_operation_message m;
    m.add_message(sample_splice_request());
    auto out = write_message(m);
    out[15] = 15; // data_length one past the message
    scte104_multiple_operation_message back;
    EXPECT_FALSE(back.read(out.data(), out.size()));
    out[15] = 13; // too short for a splice request
    EXPECT_FALSE(back.read(out.data(), out.size()));
}
