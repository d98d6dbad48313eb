#include "ts_descriptors.h"

namespace mpegcore {

namespace {

bool get_bytes(BSReader& p, std::vector<uint8_t>& v, size_t n)
{
    v.resize(n);
    return p.getBytes(v.data(), n);
}

bool get_rest(BSReader& p, std::vector<uint8_t>& v)
{
    return get_bytes(p, v, p.bytesLeft());
}

bool get_string(BSReader& p, std::string& s, size_t n)
{
    std::vector<uint8_t> v;
    if (!get_bytes(p, v, n))
        return false;
    s.assign(v.begin(), v.end());
    return true;
}

// Length-prefixed (8-bit) text.
bool get_text(BSReader& p, std::string& s)
{
    uint8_t n = 0;
    return p.getBits<8>(n) && get_string(p, s, n);
}

bool put_bytes(BSWriter& w, const std::vector<uint8_t>& v)
{
    return w.putBytes(v.data(), v.size());
}

bool put_string(BSWriter& w, const std::string& s)
{
    return w.putBytes(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}

bool put_text(BSWriter& w, const std::string& s)
{
    return s.size() <= 255 && w.putBits<8>(s.size()) && put_string(w, s);
}

} // namespace

std::shared_ptr<base_descriptor> create_ts_descriptor(uint8_t tag)
{
    switch (tag) {
    case video_stream_descriptor_tag: return std::make_shared<video_stream_descriptor>();
    case audio_stream_descriptor_tag: return std::make_shared<audio_stream_descriptor>();
    case registration_descriptor_tag: return std::make_shared<registration_descriptor>();
    case CA_descriptor_tag: return std::make_shared<CA_descriptor>();
    case ISO_639_language_descriptor_tag: return std::make_shared<ISO_639_language_descriptor>();
    case multiplex_buffer_utilization_descriptor_tag:
        return std::make_shared<multiplex_buffer_utilization_descriptor>();
    case smoothing_buffer_descriptor_tag: return std::make_shared<smoothing_buffer_descriptor>();
    case STD_descriptor_tag: return std::make_shared<STD_descriptor>();
    case network_name_descriptor_tag: return std::make_shared<network_name_descriptor>();
    case service_list_descriptor_tag: return std::make_shared<service_list_descriptor>();
    case VBI_data_descriptor_tag: return std::make_shared<VBI_data_descriptor>();
    case VBI_teletext_descriptor_tag:
    case teletext_descriptor_tag: return std::make_shared<teletext_descriptor>(tag);
    case bouquet_name_descriptor_tag: return std::make_shared<bouquet_name_descriptor>();
    case service_descriptor_tag: return std::make_shared<service_descriptor>();
    case short_event_descriptor_tag: return std::make_shared<short_event_descriptor>();
    case extended_event_descriptor_tag: return std::make_shared<extended_event_descriptor>();
    case stream_identifier_descriptor_tag: return std::make_shared<stream_identifier_descriptor>();
    case parental_rating_descriptor_tag: return std::make_shared<parental_rating_descriptor>();
    case local_time_offset_descriptor_tag: return std::make_shared<local_time_offset_descriptor>();
    case subtitling_descriptor_tag: return std::make_shared<subtitling_descriptor>();
    case private_data_specifier_descriptor_tag: return std::make_shared<private_data_specifier_descriptor>();
    case ac3_descriptor_tag: return std::make_shared<ac3_descriptor>();
    case extension_descriptor_tag: return std::make_shared<extension_descriptor>();
    case logical_channel_descriptor_tag: return std::make_shared<logical_channel_descriptor>();
    case cue_identifier_descriptor_tag: return std::make_shared<cue_identifier_descriptor>();
    default: return std::make_shared<base_descriptor>(tag); // tag 0 (reserved) included
    }
}

// ---- ISO/IEC 13818-1 ---------------------------------------------------------------------

bool video_stream_descriptor::read_fields(BSReader& p)
{
    if (!p.getBits<1>(multiple_frame_rate_flag) || !p.getBits<4>(frame_rate_code) || !p.getBits<1>(MPEG_1_only_flag) ||
        !p.getBits<1>(constrained_parameter_flag) || !p.getBits<1>(still_picture_flag))
        return false;
    if (MPEG_1_only_flag)
        return true;
    return p.getBits<8>(profile_and_level_indication) && p.getBits<2>(chroma_format) &&
           p.getBits<1>(frame_rate_extension_flag) && p.getBits<5>(reserved);
}

bool video_stream_descriptor::write_fields(BSWriter& w) const
{
    bool ok = w.putBits<1>(multiple_frame_rate_flag) && w.putBits<4>(frame_rate_code) && w.putBits<1>(MPEG_1_only_flag) &&
              w.putBits<1>(constrained_parameter_flag) && w.putBits<1>(still_picture_flag);
    if (!ok || MPEG_1_only_flag)
        return ok;
    return w.putBits<8>(profile_and_level_indication) && w.putBits<2>(chroma_format) &&
           w.putBits<1>(frame_rate_extension_flag) && w.putBits<5>(reserved);
}

bool audio_stream_descriptor::read_fields(BSReader& p)
{
    return p.getBits<1>(free_format_flag) && p.getBits<1>(ID) && p.getBits<2>(layer) &&
           p.getBits<1>(variable_rate_audio_indicator) && p.getBits<3>(reserved);
}

bool audio_stream_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<1>(free_format_flag) && w.putBits<1>(ID) && w.putBits<2>(layer) &&
           w.putBits<1>(variable_rate_audio_indicator) && w.putBits<3>(reserved);
}

bool registration_descriptor::read_fields(BSReader& p)
{
    return p.getBits<32>(format_identifier) && get_rest(p, additional_identification_info);
}

bool registration_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<32>(format_identifier) && put_bytes(w, additional_identification_info);
}

bool CA_descriptor::read_fields(BSReader& p)
{
    return p.getBits<16>(CA_system_ID) && p.getBits<3>(reserved) && p.getBits<13>(CA_PID) &&
           get_rest(p, private_data_byte);
}

bool CA_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<16>(CA_system_ID) && w.putBits<3>(reserved) && w.putBits<13>(CA_PID) &&
           put_bytes(w, private_data_byte);
}

bool ISO_639_language_descriptor::read_fields(BSReader& p)
{
    languages.clear();
    while (p.bytesLeft() >= 4) {
        language l;
        if (!p.getBits<24>(l.ISO_639_language_code) || !p.getBits<8>(l.audio_type))
            return false;
        languages.push_back(l);
    }
    return true;
}

bool ISO_639_language_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& l : languages)
        if (!w.putBits<24>(l.ISO_639_language_code) || !w.putBits<8>(l.audio_type))
            return false;
    return true;
}

bool multiplex_buffer_utilization_descriptor::read_fields(BSReader& p)
{
    return p.getBits<1>(bound_valid_flag) && p.getBits<15>(LTW_offset_lower_bound) && p.getBits<1>(reserved) &&
           p.getBits<15>(LTW_offset_upper_bound);
}

bool multiplex_buffer_utilization_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<1>(bound_valid_flag) && w.putBits<15>(LTW_offset_lower_bound) && w.putBits<1>(reserved) &&
           w.putBits<15>(LTW_offset_upper_bound);
}

bool smoothing_buffer_descriptor::read_fields(BSReader& p)
{
    return p.getBits<2>(reserved1) && p.getBits<22>(sb_leak_rate) && p.getBits<2>(reserved2) && p.getBits<22>(sb_size);
}

bool smoothing_buffer_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<2>(reserved1) && w.putBits<22>(sb_leak_rate) && w.putBits<2>(reserved2) && w.putBits<22>(sb_size);
}

bool STD_descriptor::read_fields(BSReader& p)
{
    return p.getBits<7>(reserved) && p.getBits<1>(leak_valid_flag);
}

bool STD_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<7>(reserved) && w.putBits<1>(leak_valid_flag);
}

// ---- ETSI EN 300 468 ---------------------------------------------------------------------

bool network_name_descriptor::read_fields(BSReader& p)
{
    return get_string(p, name, p.bytesLeft());
}

bool network_name_descriptor::write_fields(BSWriter& w) const
{
    return put_string(w, name);
}

bool bouquet_name_descriptor::read_fields(BSReader& p)
{
    return get_string(p, name, p.bytesLeft());
}

bool bouquet_name_descriptor::write_fields(BSWriter& w) const
{
    return put_string(w, name);
}

bool service_list_descriptor::read_fields(BSReader& p)
{
    services.clear();
    while (p.bytesLeft() >= 3) {
        service s;
        if (!p.getBits<16>(s.service_id) || !p.getBits<8>(s.service_type))
            return false;
        services.push_back(s);
    }
    return true;
}

bool service_list_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& s : services)
        if (!w.putBits<16>(s.service_id) || !w.putBits<8>(s.service_type))
            return false;
    return true;
}

bool VBI_data_descriptor::has_lines(uint8_t serviceId)
{
    switch (serviceId) {
    case 1: case 2: case 4: case 5: case 6: case 7: return true;
    default: return false;
    }
}

bool VBI_data_descriptor::read_fields(BSReader& p)
{
    services.clear();
    while (p.bytesLeft() >= 2) {
        data_service s;
        uint8_t len = 0;
        if (!p.getBits<8>(s.data_service_id) || !p.getBits<8>(len) || p.bytesLeft() < len)
            return false;
        if (has_lines(s.data_service_id)) {
            for (unsigned i = 0; i < len; ++i) {
                line l;
                if (!p.getBits<2>(l.reserved) || !p.getBits<1>(l.field_parity) || !p.getBits<5>(l.line_offset))
                    return false;
                s.lines.push_back(l);
            }
        } else if (!get_bytes(p, s.reserved_bytes, len)) {
            return false;
        }
        services.push_back(std::move(s));
    }
    return true;
}

bool VBI_data_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& s : services) {
        const bool lines = has_lines(s.data_service_id);
        const size_t len = lines ? s.lines.size() : s.reserved_bytes.size();
        if (len > 255 || !w.putBits<8>(s.data_service_id) || !w.putBits<8>(len))
            return false;
        if (!lines) {
            if (!put_bytes(w, s.reserved_bytes))
                return false;
            continue;
        }
        for (const auto& l : s.lines)
            if (!w.putBits<2>(l.reserved) || !w.putBits<1>(l.field_parity) || !w.putBits<5>(l.line_offset))
                return false;
    }
    return true;
}

bool teletext_descriptor::read_fields(BSReader& p)
{
    pages.clear();
    while (p.bytesLeft() >= 5) {
        page pg;
        if (!p.getBits<24>(pg.ISO_639_language_code) || !p.getBits<5>(pg.teletext_type) ||
            !p.getBits<3>(pg.teletext_magazine_number) || !p.getBits<8>(pg.teletext_page_number))
            return false;
        pages.push_back(pg);
    }
    return true;
}

bool teletext_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& pg : pages)
        if (!w.putBits<24>(pg.ISO_639_language_code) || !w.putBits<5>(pg.teletext_type) ||
            !w.putBits<3>(pg.teletext_magazine_number) || !w.putBits<8>(pg.teletext_page_number))
            return false;
    return true;
}

bool service_descriptor::read_fields(BSReader& p)
{
    return p.getBits<8>(service_type) && get_text(p, service_provider_name) && get_text(p, service_name);
}

bool service_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<8>(service_type) && put_text(w, service_provider_name) && put_text(w, service_name);
}

bool short_event_descriptor::read_fields(BSReader& p)
{
    return p.getBits<24>(ISO_639_language_code) && get_text(p, event_name) && get_text(p, text);
}

bool short_event_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<24>(ISO_639_language_code) && put_text(w, event_name) && put_text(w, text);
}

bool extended_event_descriptor::read_fields(BSReader& p)
{
    uint8_t itemsLength = 0;
    if (!p.getBits<4>(descriptor_number) || !p.getBits<4>(last_descriptor_number) ||
        !p.getBits<24>(ISO_639_language_code) || !p.getBits<8>(itemsLength) || p.bytesLeft() < itemsLength)
        return false;
    items.clear();
    BSReader ip(p.current(), itemsLength);
    while (!ip.empty()) {
        item it;
        if (!get_text(ip, it.item_description) || !get_text(ip, it.item_text))
            return false;
        items.push_back(std::move(it));
    }
    p.skipBytes(itemsLength);
    return get_text(p, text);
}

bool extended_event_descriptor::write_fields(BSWriter& w) const
{
    size_t itemsLength = 0;
    for (const auto& it : items)
        itemsLength += 2 + it.item_description.size() + it.item_text.size();
    if (itemsLength > 255 || !w.putBits<4>(descriptor_number) || !w.putBits<4>(last_descriptor_number) ||
        !w.putBits<24>(ISO_639_language_code) || !w.putBits<8>(itemsLength))
        return false;
    for (const auto& it : items)
        if (!put_text(w, it.item_description) || !put_text(w, it.item_text))
            return false;
    return put_text(w, text);
}

bool stream_identifier_descriptor::read_fields(BSReader& p)
{
    return p.getBits<8>(component_tag);
}

bool stream_identifier_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<8>(component_tag);
}

bool parental_rating_descriptor::read_fields(BSReader& p)
{
    ratings.clear();
    while (p.bytesLeft() >= 4) {
        rating_t r;
        if (!p.getBits<24>(r.country_code) || !p.getBits<8>(r.rating))
            return false;
        ratings.push_back(r);
    }
    return true;
}

bool parental_rating_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& r : ratings)
        if (!w.putBits<24>(r.country_code) || !w.putBits<8>(r.rating))
            return false;
    return true;
}

bool local_time_offset_descriptor::read_fields(BSReader& p)
{
    regions.clear();
    while (p.bytesLeft() >= 13) {
        region r;
        if (!p.getBits<24>(r.country_code) || !p.getBits<6>(r.country_region_id) || !p.getBits<1>(r.reserved) ||
            !p.getBits<1>(r.local_time_offset_polarity) || !p.getBits<16>(r.local_time_offset) ||
            !p.getBits<40>(r.time_of_change) || !p.getBits<16>(r.next_time_offset))
            return false;
        regions.push_back(r);
    }
    return true;
}

bool local_time_offset_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& r : regions)
        if (!w.putBits<24>(r.country_code) || !w.putBits<6>(r.country_region_id) || !w.putBits<1>(r.reserved) ||
            !w.putBits<1>(r.local_time_offset_polarity) || !w.putBits<16>(r.local_time_offset) ||
            !w.putBits<40>(r.time_of_change) || !w.putBits<16>(r.next_time_offset))
            return false;
    return true;
}

bool subtitling_descriptor::read_fields(BSReader& p)
{
    subtitles.clear();
    while (p.bytesLeft() >= 8) {
        subtitle s;
        if (!p.getBits<24>(s.ISO_639_language_code) || !p.getBits<8>(s.subtitling_type) ||
            !p.getBits<16>(s.composition_page_id) || !p.getBits<16>(s.ancillary_page_id))
            return false;
        subtitles.push_back(s);
    }
    return true;
}

bool subtitling_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& s : subtitles)
        if (!w.putBits<24>(s.ISO_639_language_code) || !w.putBits<8>(s.subtitling_type) ||
            !w.putBits<16>(s.composition_page_id) || !w.putBits<16>(s.ancillary_page_id))
            return false;
    return true;
}

bool private_data_specifier_descriptor::read_fields(BSReader& p)
{
    return p.getBits<32>(private_data_specifier);
}

bool private_data_specifier_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<32>(private_data_specifier);
}

bool ac3_descriptor::read_fields(BSReader& p)
{
    if (!p.getBits<1>(component_type_flag) || !p.getBits<1>(bsid_flag) || !p.getBits<1>(mainid_flag) ||
        !p.getBits<1>(asvc_flag) || !p.getBits<4>(reserved))
        return false;
    if ((component_type_flag && !p.getBits<8>(component_type)) || (bsid_flag && !p.getBits<8>(bsid)) ||
        (mainid_flag && !p.getBits<8>(mainid)) || (asvc_flag && !p.getBits<8>(asvc)))
        return false;
    return get_rest(p, additional_info);
}

bool ac3_descriptor::write_fields(BSWriter& w) const
{
    if (!w.putBits<1>(component_type_flag) || !w.putBits<1>(bsid_flag) || !w.putBits<1>(mainid_flag) ||
        !w.putBits<1>(asvc_flag) || !w.putBits<4>(reserved))
        return false;
    if ((component_type_flag && !w.putBits<8>(component_type)) || (bsid_flag && !w.putBits<8>(bsid)) ||
        (mainid_flag && !w.putBits<8>(mainid)) || (asvc_flag && !w.putBits<8>(asvc)))
        return false;
    return put_bytes(w, additional_info);
}

bool T2_delivery_system_descriptor::read(BSReader& p)
{
    cells.clear();
    if (!p.getBits<8>(plp_id) || !p.getBits<16>(T2_system_id))
        return false;
    has_system_parameters = !p.empty();
    if (!has_system_parameters)
        return true;
    if (!p.getBits<2>(SISO_MISO) || !p.getBits<4>(bandwidth) || !p.getBits<2>(reserved) ||
        !p.getBits<3>(guard_interval) || !p.getBits<3>(transmission_mode) || !p.getBits<1>(other_frequency_flag) ||
        !p.getBits<1>(tfs_flag))
        return false;
    while (!p.empty()) {
        cell c;
        if (!p.getBits<16>(c.cell_id))
            return false;
        uint8_t n = 4;
        if (tfs_flag && !p.getBits<8>(n))
            return false;
        for (unsigned i = 0; i < n / 4u; ++i) {
            uint32_t f = 0;
            if (!p.getBits<32>(f))
                return false;
            c.centre_frequency.push_back(f);
        }
        uint8_t subLength = 0;
        if (!p.getBits<8>(subLength))
            return false;
        for (unsigned i = 0; i < subLength / 5u; ++i) {
            subcell s;
            if (!p.getBits<8>(s.cell_id_extension) || !p.getBits<32>(s.transposer_frequency))
                return false;
            c.subcells.push_back(s);
        }
        if (subLength % 5 && !p.skipBytes(subLength % 5))
            return false;
        cells.push_back(std::move(c));
    }
    return true;
}

bool T2_delivery_system_descriptor::write(BSWriter& w) const
{
    if (!w.putBits<8>(plp_id) || !w.putBits<16>(T2_system_id))
        return false;
    if (!has_system_parameters)
        return true;
    if (!w.putBits<2>(SISO_MISO) || !w.putBits<4>(bandwidth) || !w.putBits<2>(reserved) ||
        !w.putBits<3>(guard_interval) || !w.putBits<3>(transmission_mode) || !w.putBits<1>(other_frequency_flag) ||
        !w.putBits<1>(tfs_flag))
        return false;
    for (const auto& c : cells) {
        if (!w.putBits<16>(c.cell_id))
            return false;
        if (tfs_flag) {
            if (c.centre_frequency.size() > 63 || !w.putBits<8>(4 * c.centre_frequency.size()))
                return false;
            for (uint32_t f : c.centre_frequency)
                if (!w.putBits<32>(f))
                    return false;
        } else if (!w.putBits<32>(c.centre_frequency.empty() ? 0 : c.centre_frequency.front())) {
            return false;
        }
        if (c.subcells.size() > 51 || !w.putBits<8>(5 * c.subcells.size()))
            return false;
        for (const auto& s : c.subcells)
            if (!w.putBits<8>(s.cell_id_extension) || !w.putBits<32>(s.transposer_frequency))
                return false;
    }
    return true;
}

bool extension_descriptor::read_fields(BSReader& p)
{
    if (!p.getBits<8>(descriptor_tag_extension))
        return false;
    has_T2_delivery_system = descriptor_tag_extension == T2_delivery_system_tag_extension;
    if (has_T2_delivery_system)
        return T2_delivery_system.read(p);
    return get_rest(p, selector_byte);
}

bool extension_descriptor::write_fields(BSWriter& w) const
{
    if (!w.putBits<8>(descriptor_tag_extension))
        return false;
    return has_T2_delivery_system ? T2_delivery_system.write(w) : put_bytes(w, selector_byte);
}

// ---- EICTA/NorDig, ANSI/SCTE 35 --------------------------------------------------------

bool logical_channel_descriptor::read_fields(BSReader& p)
{
    channels.clear();
    while (p.bytesLeft() >= 4) {
        channel c;
        if (!p.getBits<16>(c.service_id) || !p.getBits<1>(c.visible_service_flag) || !p.getBits<5>(c.reserved) ||
            !p.getBits<10>(c.logical_channel_number))
            return false;
        channels.push_back(c);
    }
    return true;
}

bool logical_channel_descriptor::write_fields(BSWriter& w) const
{
    for (const auto& c : channels)
        if (!w.putBits<16>(c.service_id) || !w.putBits<1>(c.visible_service_flag) || !w.putBits<5>(c.reserved) ||
            !w.putBits<10>(c.logical_channel_number))
            return false;
    return true;
}

bool cue_identifier_descriptor::read_fields(BSReader& p)
{
    return p.getBits<8>(cue_stream_type);
}

bool cue_identifier_descriptor::write_fields(BSWriter& w) const
{
    return w.putBits<8>(cue_stream_type);
}

} // namespace mpegcore
