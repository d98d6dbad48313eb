#include "scte_convert.h"

#include <cmath>

namespace mpegcore {

namespace {
constexpr int64_t kPtsWrap = int64_t(1) << 33;

// Double to integer without undefined behaviour for values out of range (garbage
// input must not crash the renderer); such values give 0.
int64_t to_int(double v)
{
    return (v >= -9.0e18 && v <= 9.0e18) ? static_cast<int64_t>(v) : 0;
}
} // namespace

uint16_t scte35_pts_to_pre_roll(long nowPts, uint64_t pts)
{
    const int64_t t = static_cast<int64_t>(pts & (uint64_t(kPtsWrap) - 1));
    const int64_t now = static_cast<int64_t>(nowPts);
    double ms;
    if (t >= now)
        ms = std::trunc(static_cast<double>(t - now) / 90.0);
    else
        ms = std::trunc((static_cast<double>(t) + static_cast<double>(kPtsWrap) - static_cast<double>(now)) / 90.0 +
                        0.499);
    return static_cast<uint16_t>(to_int(ms));
}

std::shared_ptr<scte104_splice_request_data> scte35_si_to_scte104_srd(long nowPts, const splice_insert_t& si)
{
    // A parsed cancel carries no program_splice_flag and keeps the default 1, so
    // cancels pass here; component splices do not.
    if (!si.program_splice_flag)
        return {};
    auto srd = std::make_shared<scte104_splice_request_data>();
    if (si.splice_event_cancel_indicator) {
        srd->splice_insert_type = splice_cancel;
    } else if (si.splice_immediate_flag != 1) {
        srd->splice_insert_type = si.out_of_network_indicator == 1 ? spliceStart_normal : spliceEnd_normal;
        if (si.splice_time.time_specified_flag)
            srd->pre_roll_time = scte35_pts_to_pre_roll(nowPts, si.splice_time.pts_time);
    } else {
        srd->splice_insert_type = si.out_of_network_indicator == 1 ? spliceStart_immediate : spliceEnd_immediate;
    }
    const bool start = srd->splice_insert_type == spliceStart_normal || srd->splice_insert_type == spliceStart_immediate;
    if (start && si.duration_flag == 1) {
        srd->break_duration = static_cast<uint16_t>(to_int(std::trunc(si.break_duration.duration / 9000.0)));
        srd->auto_return_flag = si.break_duration.auto_return;
    }
    srd->splice_event_id = si.splice_event_id;
    srd->unique_program_id = si.unique_program_id;
    srd->avail_num = si.avail_num;
    srd->avails_expected = si.avails_expected;
    return srd;
}

std::shared_ptr<scte104_time_signal_request_data> scte35_time_signal_to_scte104_time_signal(long nowPts,
                                                                                            const splice_time_t& t)
{
    auto ts = std::make_shared<scte104_time_signal_request_data>();
    // An unspecified time reads as 0 here: the pre-roll is then taken from 0.
    ts->pre_roll_time = scte35_pts_to_pre_roll(nowPts, t.pts_time);
    return ts;
}

std::shared_ptr<scte104_insert_avail_descriptor_request_data>
scte35_avail_desc_to_scte104_avail_desc(const avail_descriptor& d)
{
    auto a = std::make_shared<scte104_insert_avail_descriptor_request_data>();
    a->num_provider_avails = 1;
    a->provider_avail_ids.push_back(d.provider_avail_id);
    a->data_length = a->calc_data_length();
    return a;
}

std::shared_ptr<scte104_insert_DTMF_descriptor_request_data>
scte35_dtmf_desc_to_scte104_dtmf_desc(const scte35_dtmf_descriptor& d)
{
    auto o = std::make_shared<scte104_insert_DTMF_descriptor_request_data>();
    o->pre_roll = d.preroll;
    o->dtmf_length = d.dtmf_count;
    o->DTMF_char = d.DTMF_chars;
    o->DTMF_char.resize(d.dtmf_count);
    o->data_length = o->calc_data_length();
    return o;
}

std::shared_ptr<scte104_insert_segmentation_descriptor_request_data>
scte35_seg_desc_to_scte104_seg_desc(double fps, const scte35_segmentation_descriptor& d)
{
    auto s = std::make_shared<scte104_insert_segmentation_descriptor_request_data>();
    s->segmentation_event_id = d.segmentation_event_id;
    s->segmentation_event_cancel_indicator = d.segmentation_event_cancel_indicator;
    if (d.segmentation_duration_flag == 1) {
        s->duration = static_cast<uint16_t>(d.segmentation_duration / 90000);
        const uint64_t remainder = d.segmentation_duration % 90000;
        s->duration_extension_frames = static_cast<uint8_t>(to_int(std::trunc(remainder * fps / 90000.0)));
    }
    s->segmentation_upid_type = d.segmentation_upid_type;
    s->segmentation_upid_length = static_cast<uint8_t>(d.segmentation_upid.size());
    s->segmentation_upid = d.segmentation_upid;
    s->segmentation_type_id = d.segmentation_type_id;
    s->segment_num = d.segment_num;
    s->segments_expected = d.segments_expected;
    s->delivery_not_restricted_flag = d.delivery_not_restricted_flag;
    s->web_delivery_allowed_flag = d.web_delivery_allowed_flag;
    s->no_regional_blackout_flag = d.no_regional_blackout_flag;
    s->archive_allowed_flag = d.archive_allowed_flag;
    s->device_restrictions = d.device_restrictions;
    s->data_length = s->calc_data_length();
    return s;
}

std::shared_ptr<scte104_insert_time_descriptor> scte35_time_desc_to_scte104_time_desc(const scte35_time_descriptor& d)
{
    auto t = std::make_shared<scte104_insert_time_descriptor>();
    t->TAI_seconds = d.TAI_seconds;
    t->TAI_ns = d.TAI_ns;
    t->UTC_offset = d.UTC_offset;
    return t;
}

namespace {
// The first descriptor of the list with the tag, converted; one operation per tag at
// most, further descriptors with the same tag are ignored (deliberate).
void add_descriptor_op(scte104_multiple_operation_message& m, double fps, const QVDescriptorList& list, uint8_t tag)
{
    auto d = list.find(tag);
    if (!d)
        return;
    switch (tag) {
    case avail_descriptor_tag:
        if (auto a = std::dynamic_pointer_cast<avail_descriptor>(d))
            m.add_message(scte35_avail_desc_to_scte104_avail_desc(*a));
        break;
    case dtmf_descriptor_tag:
        if (auto t = std::dynamic_pointer_cast<scte35_dtmf_descriptor>(d))
            m.add_message(scte35_dtmf_desc_to_scte104_dtmf_desc(*t));
        break;
    case segmentation_descriptor_tag:
        if (auto s = std::dynamic_pointer_cast<scte35_segmentation_descriptor>(d))
            m.add_message(scte35_seg_desc_to_scte104_seg_desc(fps, *s));
        break;
    case time_descriptor_tag:
        if (auto t = std::dynamic_pointer_cast<scte35_time_descriptor>(d))
            m.add_message(scte35_time_desc_to_scte104_time_desc(*t));
        break;
    default:
        break;
    }
}
} // namespace

std::shared_ptr<scte104_multiple_operation_message> to_scte104(long nowPts, double fps,
                                                               const splice_info_section& section)
{
    if (!section.splice_command)
        return {};
    auto insert = section.command<splice_insert_t>();
    auto signal = section.command<time_signal_t>();
    if (!insert && !signal)
        return {};

    auto m = std::make_shared<scte104_multiple_operation_message>();
    m->Reserved = 0xFFFF;
    m->SCTE35_protocol_version = section.protocol_version;
    if (insert) {
        if (auto srd = scte35_si_to_scte104_srd(nowPts, *insert))
            m->add_message(srd);
        for (uint8_t tag : {avail_descriptor_tag, dtmf_descriptor_tag, segmentation_descriptor_tag, time_descriptor_tag})
            add_descriptor_op(*m, fps, section.descriptors, tag);
    } else {
        m->add_message(scte35_time_signal_to_scte104_time_signal(nowPts, *signal));
        for (uint8_t tag : {segmentation_descriptor_tag, time_descriptor_tag})
            add_descriptor_op(*m, fps, section.descriptors, tag);
    }
    m->num_ops = static_cast<uint8_t>(m->opIDs.size());
    m->messageSize = m->calc_section_length();
    return m;
}

long pre_roll_time_to_pts(unsigned short preRollMs, double fps)
{
    if (!(fps > 0.0))
        return static_cast<long>(preRollMs) * 90;
    const uint32_t frames = static_cast<uint32_t>(to_int(std::trunc(preRollMs * fps / 1000.0 + 0.499)));
    const int64_t ms = to_int(std::trunc(frames * 1000.0 / fps + 0.499));
    return static_cast<long>(ms * 90);
}

std::shared_ptr<splice_info_section> scte104_srd_to_scte35_si(long nowPts, double fps,
                                                              std::shared_ptr<scte104_splice_request_data> srd)
{
    if (!srd || srd->splice_insert_type < spliceStart_normal || srd->splice_insert_type > splice_cancel)
        return {};
    auto section = std::make_shared<splice_info_section>(nullptr, 1024);
    auto& si = section->set_command<splice_insert_t>();
    si.splice_event_id = srd->splice_event_id;
    si.unique_program_id = srd->unique_program_id;
    si.avail_num = srd->avail_num;
    si.avails_expected = srd->avails_expected;
    if (srd->splice_insert_type == splice_cancel) {
        si.splice_event_cancel_indicator = 1;
        return section;
    }
    const uint8_t type = srd->splice_insert_type;
    si.out_of_network_indicator = (type == spliceStart_normal || type == spliceStart_immediate) ? 1 : 0;
    si.splice_immediate_flag = (type == spliceStart_immediate || type == spliceEnd_immediate) ? 1 : 0;
    si.program_splice_flag = 1;
    if (!si.splice_immediate_flag) {
        si.splice_time.time_specified_flag = 1;
        si.splice_time.reserved = 0x3F;
        const int64_t pts = static_cast<int64_t>(nowPts) + pre_roll_time_to_pts(srd->pre_roll_time, fps);
        si.splice_time.pts_time = static_cast<uint64_t>(((pts % kPtsWrap) + kPtsWrap) % kPtsWrap);
    }
    if (si.out_of_network_indicator && srd->break_duration) {
        si.duration_flag = 1;
        si.break_duration.auto_return = srd->auto_return_flag ? 1 : 0;
        si.break_duration.duration = uint64_t(srd->break_duration) * 9000;
    }
    return section;
}

} // namespace mpegcore
