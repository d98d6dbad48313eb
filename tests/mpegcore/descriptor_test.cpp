#include "qvdescriptorlist.h"
#include "scte35_descriptors.h"
#include "ts_descriptors.h"

#include <gtest/gtest.h>

using namespace mpegcore;

namespace {

bool read_list(QVDescriptorList& l, std::vector<uint8_t> b)
{
    const size_t n = b.size();
    b.push_back(0); // a valid pointer for an empty loop
    BSReader r(b.data(), n);
    return l.read(r);
}

std::vector<uint8_t> write_list(const QVDescriptorList& l)
{
    std::vector<uint8_t> out(4096);
    BSWriter w(out.data(), out.size());
    EXPECT_TRUE(l.write(w) && w.flush());
    out.resize(w.m_writeByte);
    return out;
}

} // namespace

TEST(DescriptorList, OverrunAndTruncationFailTheList)
{
    QVDescriptorList l(e_scte35_desc_type);
    EXPECT_FALSE(read_list(l, {0x00, 0x08, 'C', 'U', 'E', 'I', 0, 0}));
    // A CUEI descriptor too short for its own fields.
    QVDescriptorList m(e_scte35_desc_type);
    EXPECT_FALSE(read_list(m, {0x00, 0x06, 'C', 'U', 'E', 'I', 0, 0}));
    // DTMF count beyond the descriptor.
    QVDescriptorList n(e_scte35_desc_type);
    EXPECT_FALSE(read_list(n, {0x01, 0x07, 'C', 'U', 'E', 'I', 10, 0xFF, '1'}));
}

TEST(DescriptorList, SegmentationUpidMustFitTheDescriptor)
{
    std::vector<uint8_t> d = {0x02, 0x17, 'C', 'U', 'E', 'I', 0x48, 0, 0, 0x1A, 0x7F, 0xBF,
                              0x08, 0x08, 0, 0, 0, 0, 0x2C, 0xA0, 0xA1, 0x8A, 0x34, 2, 0};
    QVDescriptorList ok(e_scte35_desc_type);
    ASSERT_TRUE(read_list(ok, d));
    auto seg = std::dynamic_pointer_cast<scte35_segmentation_descriptor>(ok.descriptor.at(0));
    ASSERT_TRUE(seg);
    EXPECT_EQ(seg->segmentation_upid.size(), 8u);
    EXPECT_EQ(seg->delivery_not_restricted_flag, 1);
    EXPECT_EQ(seg->reserved2, 0x1F);
    EXPECT_FALSE(seg->sub_segment_present);
    EXPECT_EQ(write_list(ok), d);

    d[13] = 9; // UPID one byte longer than the descriptor allows
    QVDescriptorList bad(e_scte35_desc_type);
    EXPECT_FALSE(read_list(bad, d));
}

// ---- transport-stream and DVB descriptors ---------------------------------------------
// Each loop is assembled by hand from the syntax tables of ISO/IEC 13818-1 and ETSI
// EN 300 468; the check looks at the fields that the layout puts furthest from the start.


struct TsCase {
    const char* name;
    std::vector<uint8_t> bytes;
    bool (*check)(const base_descriptor& d);
};

class TsDescriptor : public ::testing::TestWithParam<TsCase> {};

TEST_P(TsDescriptor, ParsesItsFieldsAndWritesTheSameBytes)
{
    QVDescriptorList l(e_ts_desc_type);
    ASSERT_TRUE(read_list(l, GetParam().bytes));
    ASSERT_EQ(l.descriptor.size(), 1u);
    EXPECT_TRUE(GetParam().check(*l.descriptor[0])) << GetParam().name;
    EXPECT_EQ(write_list(l), GetParam().bytes);
    QVDescriptorList copy;
    l.copyTo(copy);
    EXPECT_TRUE(GetParam().check(*copy.descriptor.at(0)));
    // Cut short by one byte, the loop no longer holds the descriptor.
    auto cut = GetParam().bytes;
    cut.pop_back();
    QVDescriptorList shortList(e_ts_desc_type);
    if (cut.size() >= 3) {
        EXPECT_FALSE(read_list(shortList, cut));
    }
}

// A check that the descriptor is a T whose fields satisfy the condition on d.
#define FIELDS(T, condition) \
    [](const base_descriptor& b) { auto d = dynamic_cast<const T*>(&b); return d && (condition); }

INSTANTIATE_TEST_SUITE_P(
    Tags, TsDescriptor,
    ::testing::Values(
        TsCase{"video_stream", {2, 3, 0x9A, 0x48, 0x5F},
               FIELDS(video_stream_descriptor, d->multiple_frame_rate_flag == 1 && d->frame_rate_code == 3 &&
                          d->still_picture_flag == 0 && d->profile_and_level_indication == 0x48 &&
                          d->chroma_format == 1 && d->frame_rate_extension_flag == 0)},
        TsCase{"CA", {9, 5, 0x0B, 0x00, 0xE1, 0x23, 0x77},
               FIELDS(CA_descriptor, d->CA_system_ID == 0x0B00 && d->CA_PID == 0x123 &&
                          d->private_data_byte.size() == 1)},
        TsCase{"ISO_639_language", {10, 8, 'e', 'n', 'g', 0, 'd', 'e', 'u', 3},
               FIELDS(ISO_639_language_descriptor, d->languages.size() == 2 &&
                          d->languages[1].ISO_639_language_code == 0x646575 && d->languages[1].audio_type == 3)},
        TsCase{"multiplex_buffer_utilization", {12, 4, 0x80, 0x10, 0xFF, 0xFE},
               FIELDS(multiplex_buffer_utilization_descriptor, d->bound_valid_flag == 1 &&
                          d->LTW_offset_lower_bound == 0x10 && d->LTW_offset_upper_bound == 0x7FFE)},
        TsCase{"smoothing_buffer", {16, 6, 0xC0, 0x01, 0x02, 0xFF, 0xFF, 0xFF},
               FIELDS(smoothing_buffer_descriptor, d->sb_leak_rate == 0x102 && d->sb_size == 0x3FFFFF)},
        TsCase{"service_list", {65, 6, 0x00, 0x01, 0x01, 0x12, 0x34, 0x19},
               FIELDS(service_list_descriptor, d->services.size() == 2 && d->services[1].service_id == 0x1234 &&
                          d->services[1].service_type == 0x19)},
        TsCase{"VBI_data", {69, 7, 0x02, 0x02, 0xF5, 0xDA, 0x80, 0x01, 0xAA},
               FIELDS(VBI_data_descriptor, d->services.size() == 2 && d->services[0].lines.size() == 2 &&
                          d->services[0].lines[0].field_parity == 1 && d->services[0].lines[0].line_offset == 21 &&
                          d->services[0].lines[1].field_parity == 0 && d->services[0].lines[1].line_offset == 26 &&
                          d->services[1].reserved_bytes == std::vector<uint8_t>{0xAA})},
        TsCase{"extended_event", {78, 14, 0x12, 'e', 'n', 'g', 6, 1, 'A', 3, 'b', 'c', 'd', 2, 'x', 'y'},
               FIELDS(extended_event_descriptor, d->descriptor_number == 1 && d->last_descriptor_number == 2 &&
                          d->items.size() == 1 && d->items[0].item_description == "A" &&
                          d->items[0].item_text == "bcd" && d->text == "xy")},
        TsCase{"parental_rating", {85, 4, 'G', 'B', 'R', 0x09},
               FIELDS(parental_rating_descriptor, d->ratings.size() == 1 && d->ratings[0].rating == 9)},
        TsCase{"teletext", {86, 10, 'e', 'n', 'g', 0x09, 0x00, 'd', 'e', 'u', 0x10, 0x88},
               FIELDS(teletext_descriptor, d->descriptor_tag == 86 && d->pages.size() == 2 &&
                          d->pages[0].teletext_type == 1 && d->pages[0].teletext_magazine_number == 1 &&
                          d->pages[1].teletext_type == 2 && d->pages[1].teletext_magazine_number == 0 &&
                          d->pages[1].teletext_page_number == 0x88)},
        TsCase{"local_time_offset", {88, 13, 'G', 'B', 'R', 0x06, 0x01, 0x00, 0xE4, 0x5B, 0x01, 0x00, 0x00, 0x00, 0x00},
               FIELDS(local_time_offset_descriptor, d->regions.size() == 1 && d->regions[0].country_region_id == 1 &&
                          d->regions[0].local_time_offset_polarity == 0 && d->regions[0].local_time_offset == 0x0100 &&
                          d->regions[0].time_of_change == 0xE45B010000ull)},
        TsCase{"subtitling", {89, 8, 'e', 'n', 'g', 0x10, 0x00, 0x01, 0x00, 0x02},
               FIELDS(subtitling_descriptor, d->subtitles.size() == 1 && d->subtitles[0].subtitling_type == 0x10 &&
                          d->subtitles[0].composition_page_id == 1 && d->subtitles[0].ancillary_page_id == 2)},
        TsCase{"ac3", {106, 4, 0xA0, 0x42, 0x01, 0x99},
               FIELDS(ac3_descriptor, d->component_type_flag && !d->bsid_flag && d->mainid_flag &&
                          d->component_type == 0x42 && d->mainid == 1 &&
                          d->additional_info == std::vector<uint8_t>{0x99})},
        TsCase{"extension_T2", {127, 18, 0x04, 0x00, 0x80, 0x01, 0x0B, 0x42, 0x00, 0x07, 0x03, 0x3F, 0x1A, 0x80,
                                0x05, 0x01, 0x00, 0x00, 0x00, 0x00},
               FIELDS(extension_descriptor,
                      d->has_T2_delivery_system && d->T2_delivery_system.T2_system_id == 0x8001 &&
                          d->T2_delivery_system.has_system_parameters && d->T2_delivery_system.bandwidth == 2 &&
                          d->T2_delivery_system.guard_interval == 2 && d->T2_delivery_system.transmission_mode == 0 &&
                          d->T2_delivery_system.tfs_flag == 0 && d->T2_delivery_system.cells.size() == 1 &&
                          d->T2_delivery_system.cells[0].cell_id == 7 &&
                          d->T2_delivery_system.cells[0].centre_frequency.at(0) == 0x033F1A80 &&
                          d->T2_delivery_system.cells[0].subcells.size() == 1 &&
                          d->T2_delivery_system.cells[0].subcells[0].cell_id_extension == 1)},
        TsCase{"extension_other", {127, 3, 0x07, 0xAA, 0xBB},
               FIELDS(extension_descriptor, !d->has_T2_delivery_system && d->selector_byte.size() == 2)},
        TsCase{"logical_channel", {131, 4, 0x00, 0x01, 0xFC, 0x05},
               FIELDS(logical_channel_descriptor, d->channels.size() == 1 &&
                          d->channels[0].visible_service_flag == 1 && d->channels[0].logical_channel_number == 5)},
        TsCase{"unknown_tag_raw", {0xF0, 2, 0x12, 0x34},
               [](const base_descriptor& d) {
                   return typeid(d) == typeid(base_descriptor) && d.descriptor_length == 2 && d.payload()[1] == 0x34;
               }}),
    [](const auto& p) { return std::string(p.param.name); });
