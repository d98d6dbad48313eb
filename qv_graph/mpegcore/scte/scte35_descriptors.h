// SCTE-35 splice descriptors. Each begins with a 32-bit identifier ("CUEI" for the
// descriptors the SCTE-35 standard itself defines).
#pragma once

#include "qvdescriptorlist.h"

#include <cstdint>
#include <vector>

namespace mpegcore {

constexpr uint32_t SCTE35_CUEI_IDENTIFIER = 0x43554549; // "CUEI"

enum esplice_descriptor_tag : uint8_t {
    avail_descriptor_tag = 0,
    dtmf_descriptor_tag = 1,
    segmentation_descriptor_tag = 2,
    time_descriptor_tag = 3,
};

class avail_descriptor : public descriptor_impl<avail_descriptor> {
public:
    avail_descriptor() : descriptor_impl(avail_descriptor_tag) {}
    uint32_t identifier = SCTE35_CUEI_IDENTIFIER;
    uint32_t provider_avail_id = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class scte35_dtmf_descriptor : public descriptor_impl<scte35_dtmf_descriptor> {
public:
    scte35_dtmf_descriptor() : descriptor_impl(dtmf_descriptor_tag) {}
    uint32_t identifier = SCTE35_CUEI_IDENTIFIER;
    uint8_t preroll = 0;    // tenths of a second
    uint8_t dtmf_count = 0; // 3 bits
    uint8_t reserved = 0x1F;
    std::vector<uint8_t> DTMF_chars;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

struct segmentation_component_t {
    uint8_t component_tag = 0;
    uint8_t reserved = 0x7F; // 7 bits
    uint64_t pts_offset = 0; // 33 bits
};

class scte35_segmentation_descriptor : public descriptor_impl<scte35_segmentation_descriptor> {
public:
    scte35_segmentation_descriptor() : descriptor_impl(segmentation_descriptor_tag) {}

    // Segmentation types that carry sub-segment numbers.
    static bool has_sub_segments(uint8_t typeId);

    uint32_t identifier = SCTE35_CUEI_IDENTIFIER;
    uint32_t segmentation_event_id = 0;
    uint8_t segmentation_event_cancel_indicator = 0;
    uint8_t reserved1 = 0x7F; // 7 bits
    uint8_t program_segmentation_flag = 1;
    uint8_t segmentation_duration_flag = 0;
    uint8_t delivery_not_restricted_flag = 1;
    uint8_t web_delivery_allowed_flag = 0;
    uint8_t no_regional_blackout_flag = 0;
    uint8_t archive_allowed_flag = 0;
    uint8_t device_restrictions = 0; // 2 bits
    uint8_t reserved2 = 0x1F;        // 5 bits, when delivery is not restricted
    uint8_t component_count = 0;
    std::vector<segmentation_component_t> components;
    uint64_t segmentation_duration = 0; // 40 bits, 90 kHz
    uint8_t segmentation_upid_type = 0;
    uint8_t segmentation_upid_length = 0;
    std::vector<uint8_t> segmentation_upid;
    uint8_t segmentation_type_id = 0;
    uint8_t segment_num = 0;
    uint8_t segments_expected = 0;
    bool sub_segment_present = false;
    uint8_t sub_segment_num = 0;
    uint8_t sub_segments_expected = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class scte35_time_descriptor : public descriptor_impl<scte35_time_descriptor> {
public:
    scte35_time_descriptor() : descriptor_impl(time_descriptor_tag) {}
    uint32_t identifier = SCTE35_CUEI_IDENTIFIER;
    uint64_t TAI_seconds = 0; // 48 bits
    uint32_t TAI_ns = 0;
    uint16_t UTC_offset = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

} // namespace mpegcore
