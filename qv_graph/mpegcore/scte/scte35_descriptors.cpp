#include "scte35_descriptors.h"

namespace mpegcore {

std::shared_ptr<base_descriptor> create_scte35_descriptor(uint8_t tag)
{
    switch (tag) {
    case avail_descriptor_tag: return std::make_shared<avail_descriptor>();
    case dtmf_descriptor_tag: return std::make_shared<scte35_dtmf_descriptor>();
    case segmentation_descriptor_tag: return std::make_shared<scte35_segmentation_descriptor>();
    case time_descriptor_tag: return std::make_shared<scte35_time_descriptor>();
    default: return std::make_shared<base_descriptor>(tag);
    }
}

std::shared_ptr<base_descriptor> create_scte35_descriptor_at(const unsigned char* p, size_t available)
{
    const bool cuei = available >= 6 && p[1] >= 4 &&
                      (uint32_t(p[2]) << 24 | uint32_t(p[3]) << 16 | uint32_t(p[4]) << 8 | p[5]) ==
                          SCTE35_CUEI_IDENTIFIER;
    if (!cuei)
        return std::make_shared<base_descriptor>(p[0]);
    return create_scte35_descriptor(p[0]);
}

bool avail_descriptor::read_fields(BSReader& p)
{
    return p.getBits<32>(identifier) && p.getBits<32>(provider_avail_id);
}

bool avail_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<32>(identifier) && w.putBits<32>(provider_avail_id);
}

bool scte35_dtmf_descriptor::read_fields(BSReader& p)
{
    if (!p.getBits<32>(identifier) || !p.getBits<8>(preroll) || !p.getBits<3>(dtmf_count) ||
        !p.getBits<5>(reserved))
        return false;
    DTMF_chars.resize(dtmf_count);
    return p.getBytes(DTMF_chars.data(), dtmf_count);
}

bool scte35_dtmf_descriptor::write_fields(BSWriter& w) const
{
    // The count field has 3 bits: at most 7 characters can be announced.
    size_t n = DTMF_chars.size() > 7 ? 7 : DTMF_chars.size();
    return w.putBits<32>(identifier) && w.putBits<8>(preroll) && w.putBits<3>(n) && w.putBits<5>(reserved) &&
           w.putBytes(DTMF_chars.data(), n);
}

bool scte35_segmentation_descriptor::has_sub_segments(uint8_t typeId)
{
    switch (typeId) {
    case 0x34: case 0x36: case 0x38: case 0x3A: case 0x44: case 0x46: return true;
    default: return false;
    }
}

bool scte35_segmentation_descriptor::read_fields(BSReader& p)
{
    if (!p.getBits<32>(identifier) || !p.getBits<32>(segmentation_event_id) ||
        !p.getBits<1>(segmentation_event_cancel_indicator) || !p.getBits<7>(reserved1))
        return false;
    components.clear();
    segmentation_upid.clear();
    sub_segment_present = false;
    if (segmentation_event_cancel_indicator)
        return true;
    if (!p.getBits<1>(program_segmentation_flag) || !p.getBits<1>(segmentation_duration_flag) ||
        !p.getBits<1>(delivery_not_restricted_flag))
        return false;
    if (!delivery_not_restricted_flag) {
        if (!p.getBits<1>(web_delivery_allowed_flag) || !p.getBits<1>(no_regional_blackout_flag) ||
            !p.getBits<1>(archive_allowed_flag) || !p.getBits<2>(device_restrictions))
            return false;
    } else if (!p.getBits<5>(reserved2)) {
        return false;
    }
    if (!program_segmentation_flag) {
        if (!p.getBits<8>(component_count))
            return false;
        for (unsigned i = 0; i < component_count; ++i) {
            segmentation_component_t c;
            if (!p.getBits<8>(c.component_tag) || !p.getBits<7>(c.reserved) || !p.getBits<33>(c.pts_offset))
                return false;
            components.push_back(c);
        }
    }
    if (segmentation_duration_flag && !p.getBits<40>(segmentation_duration))
        return false;
    if (!p.getBits<8>(segmentation_upid_type) || !p.getBits<8>(segmentation_upid_length))
        return false;
    // The UPID must lie inside the descriptor; a length past its end fails the read.
    segmentation_upid.resize(segmentation_upid_length);
    if (!p.getBytes(segmentation_upid.data(), segmentation_upid_length))
        return false;
    if (!p.getBits<8>(segmentation_type_id) || !p.getBits<8>(segment_num) || !p.getBits<8>(segments_expected))
        return false;
    // Older encoders omit the sub-segment pair even for the types that define it.
    if (has_sub_segments(segmentation_type_id) && p.bytesLeft() >= 2) {
        sub_segment_present = p.getBits<8>(sub_segment_num) && p.getBits<8>(sub_segments_expected);
        if (!sub_segment_present)
            return false;
    }
    return true;
}

bool scte35_segmentation_descriptor::write_fields(BSWriter& w) const
{
    bool ok = w.putBits<32>(identifier) && w.putBits<32>(segmentation_event_id) &&
              w.putBits<1>(segmentation_event_cancel_indicator) && w.putBits<7>(reserved1);
    if (!ok || segmentation_event_cancel_indicator)
        return ok;
    ok = w.putBits<1>(program_segmentation_flag) && w.putBits<1>(segmentation_duration_flag) &&
         w.putBits<1>(delivery_not_restricted_flag);
    if (!delivery_not_restricted_flag)
        ok = ok && w.putBits<1>(web_delivery_allowed_flag) && w.putBits<1>(no_regional_blackout_flag) &&
             w.putBits<1>(archive_allowed_flag) && w.putBits<2>(device_restrictions);
    else
        ok = ok && w.putBits<5>(reserved2);
    if (!program_segmentation_flag) {
        ok = ok && w.putBits<8>(components.size());
        for (const auto& c : components)
            ok = ok && w.putBits<8>(c.component_tag) && w.putBits<7>(c.reserved) && w.putBits<33>(c.pts_offset);
    }
    if (segmentation_duration_flag)
        ok = ok && w.putBits<40>(segmentation_duration);
    ok = ok && w.putBits<8>(segmentation_upid_type) && w.putBits<8>(segmentation_upid.size()) &&
         w.putBytes(segmentation_upid.data(), segmentation_upid.size()) && w.putBits<8>(segmentation_type_id) &&
         w.putBits<8>(segment_num) && w.putBits<8>(segments_expected);
    if (sub_segment_present)
        ok = ok && w.putBits<8>(sub_segment_num) && w.putBits<8>(sub_segments_expected);
    return ok;
}

bool scte35_time_descriptor::read_fields(BSReader& p)
{
    return p.getBits<32>(identifier) && p.getBits<48>(TAI_seconds) && p.getBits<32>(TAI_ns) &&
           p.getBits<16>(UTC_offset);
}

bool scte35_time_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<32>(identifier) && w.putBits<48>(TAI_seconds) && w.putBits<32>(TAI_ns) &&
           w.putBits<16>(UTC_offset);
}

} // namespace mpegcore
