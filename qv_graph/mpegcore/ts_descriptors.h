// Descriptors of transport-stream and DVB tables, field layouts as in ISO/IEC 13818-1
// (tags 2-17), ETSI EN 300 468 (tags 64-127), the EICTA/NorDig logical channel
// descriptor (131) and ANSI/SCTE 35 (138). Text fields are kept as the raw bytes of the
// stream (DVB character tables are not decoded here).
#pragma once

#include "qvdescriptorlist.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mpegcore {

enum ets_descriptor_tag : uint8_t {
    video_stream_descriptor_tag = 2,
    audio_stream_descriptor_tag = 3,
    registration_descriptor_tag = 5,
    CA_descriptor_tag = 9,
    ISO_639_language_descriptor_tag = 10,
    multiplex_buffer_utilization_descriptor_tag = 12,
    smoothing_buffer_descriptor_tag = 16,
    STD_descriptor_tag = 17,
    network_name_descriptor_tag = 64,
    service_list_descriptor_tag = 65,
    VBI_data_descriptor_tag = 69,
    VBI_teletext_descriptor_tag = 70,
    bouquet_name_descriptor_tag = 71,
    service_descriptor_tag = 72,
    short_event_descriptor_tag = 77,
    extended_event_descriptor_tag = 78,
    stream_identifier_descriptor_tag = 82,
    parental_rating_descriptor_tag = 85,
    teletext_descriptor_tag = 86,
    local_time_offset_descriptor_tag = 88,
    subtitling_descriptor_tag = 89,
    private_data_specifier_descriptor_tag = 95,
    ac3_descriptor_tag = 106,
    extension_descriptor_tag = 127,
    logical_channel_descriptor_tag = 131,
    cue_identifier_descriptor_tag = 138,
};

class video_stream_descriptor : public descriptor_impl<video_stream_descriptor> {
public:
    video_stream_descriptor() : descriptor_impl(video_stream_descriptor_tag) {}
    uint8_t multiple_frame_rate_flag = 0;
    uint8_t frame_rate_code = 0; // 4 bits
    uint8_t MPEG_1_only_flag = 0;
    uint8_t constrained_parameter_flag = 0;
    uint8_t still_picture_flag = 0;
    // Present when MPEG_1_only_flag is 0.
    uint8_t profile_and_level_indication = 0;
    uint8_t chroma_format = 0; // 2 bits
    uint8_t frame_rate_extension_flag = 0;
    uint8_t reserved = 0x1F; // 5 bits

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class audio_stream_descriptor : public descriptor_impl<audio_stream_descriptor> {
public:
    audio_stream_descriptor() : descriptor_impl(audio_stream_descriptor_tag) {}
    uint8_t free_format_flag = 0;
    uint8_t ID = 0;
    uint8_t layer = 0; // 2 bits
    uint8_t variable_rate_audio_indicator = 0;
    uint8_t reserved = 0x7; // 3 bits

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class registration_descriptor : public descriptor_impl<registration_descriptor> {
public:
    registration_descriptor() : descriptor_impl(registration_descriptor_tag) {}
    uint32_t format_identifier = 0;
    std::vector<uint8_t> additional_identification_info;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class CA_descriptor : public descriptor_impl<CA_descriptor> {
public:
    CA_descriptor() : descriptor_impl(CA_descriptor_tag) {}
    uint16_t CA_system_ID = 0;
    uint8_t reserved = 0x7; // 3 bits
    uint16_t CA_PID = 0;    // 13 bits
    std::vector<uint8_t> private_data_byte;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class ISO_639_language_descriptor : public descriptor_impl<ISO_639_language_descriptor> {
public:
    struct language {
        uint32_t ISO_639_language_code = 0; // 24 bits
        uint8_t audio_type = 0;
    };
    ISO_639_language_descriptor() : descriptor_impl(ISO_639_language_descriptor_tag) {}
    std::vector<language> languages;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class multiplex_buffer_utilization_descriptor : public descriptor_impl<multiplex_buffer_utilization_descriptor> {
public:
    multiplex_buffer_utilization_descriptor() : descriptor_impl(multiplex_buffer_utilization_descriptor_tag) {}
    uint8_t bound_valid_flag = 0;
    uint16_t LTW_offset_lower_bound = 0; // 15 bits
    uint8_t reserved = 1;
    uint16_t LTW_offset_upper_bound = 0; // 15 bits

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class smoothing_buffer_descriptor : public descriptor_impl<smoothing_buffer_descriptor> {
public:
    smoothing_buffer_descriptor() : descriptor_impl(smoothing_buffer_descriptor_tag) {}
    uint8_t reserved1 = 3;      // 2 bits
    uint32_t sb_leak_rate = 0;  // 22 bits, units of 400 bit/s
    uint8_t reserved2 = 3;      // 2 bits
    uint32_t sb_size = 0;       // 22 bits, bytes

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class STD_descriptor : public descriptor_impl<STD_descriptor> {
public:
    STD_descriptor() : descriptor_impl(STD_descriptor_tag) {}
    uint8_t reserved = 0x7F; // 7 bits
    uint8_t leak_valid_flag = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

// network_name_descriptor and bouquet_name_descriptor: a name and nothing else.
class network_name_descriptor : public descriptor_impl<network_name_descriptor> {
public:
    network_name_descriptor() : descriptor_impl(network_name_descriptor_tag) {}
    std::string name;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class bouquet_name_descriptor : public descriptor_impl<bouquet_name_descriptor> {
public:
    bouquet_name_descriptor() : descriptor_impl(bouquet_name_descriptor_tag) {}
    std::string name;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class service_list_descriptor : public descriptor_impl<service_list_descriptor> {
public:
    struct service {
        uint16_t service_id = 0;
        uint8_t service_type = 0;
    };
    service_list_descriptor() : descriptor_impl(service_list_descriptor_tag) {}
    std::vector<service> services;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class VBI_data_descriptor : public descriptor_impl<VBI_data_descriptor> {
public:
    struct line {
        uint8_t reserved = 3; // 2 bits
        uint8_t field_parity = 0;
        uint8_t line_offset = 0; // 5 bits
    };
    struct data_service {
        uint8_t data_service_id = 0;
        std::vector<line> lines;             // services 1, 2, 4, 5, 6, 7
        std::vector<uint8_t> reserved_bytes; // other services
    };
    VBI_data_descriptor() : descriptor_impl(VBI_data_descriptor_tag) {}
    static bool has_lines(uint8_t serviceId);
    std::vector<data_service> services;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

// Both the VBI teletext (70) and the teletext (86) descriptor.
class teletext_descriptor : public descriptor_impl<teletext_descriptor> {
public:
    struct page {
        uint32_t ISO_639_language_code = 0; // 24 bits
        uint8_t teletext_type = 0;          // 5 bits
        uint8_t teletext_magazine_number = 0; // 3 bits
        uint8_t teletext_page_number = 0;
    };
    explicit teletext_descriptor(uint8_t tag = teletext_descriptor_tag) : descriptor_impl(tag) {}
    std::vector<page> pages;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class service_descriptor : public descriptor_impl<service_descriptor> {
public:
    service_descriptor() : descriptor_impl(service_descriptor_tag) {}
    uint8_t service_type = 0;
    std::string service_provider_name;
    std::string service_name;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class short_event_descriptor : public descriptor_impl<short_event_descriptor> {
public:
    short_event_descriptor() : descriptor_impl(short_event_descriptor_tag) {}
    uint32_t ISO_639_language_code = 0; // 24 bits
    std::string event_name;
    std::string text;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class extended_event_descriptor : public descriptor_impl<extended_event_descriptor> {
public:
    struct item {
        std::string item_description;
        std::string item_text;
    };
    extended_event_descriptor() : descriptor_impl(extended_event_descriptor_tag) {}
    uint8_t descriptor_number = 0;      // 4 bits
    uint8_t last_descriptor_number = 0; // 4 bits
    uint32_t ISO_639_language_code = 0; // 24 bits
    std::vector<item> items;
    std::string text;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class stream_identifier_descriptor : public descriptor_impl<stream_identifier_descriptor> {
public:
    stream_identifier_descriptor() : descriptor_impl(stream_identifier_descriptor_tag) {}
    uint8_t component_tag = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class parental_rating_descriptor : public descriptor_impl<parental_rating_descriptor> {
public:
    struct rating_t {
        uint32_t country_code = 0; // 24 bits
        uint8_t rating = 0;
    };
    parental_rating_descriptor() : descriptor_impl(parental_rating_descriptor_tag) {}
    std::vector<rating_t> ratings;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class local_time_offset_descriptor : public descriptor_impl<local_time_offset_descriptor> {
public:
    struct region {
        uint32_t country_code = 0;     // 24 bits
        uint8_t country_region_id = 0; // 6 bits
        uint8_t reserved = 1;
        uint8_t local_time_offset_polarity = 0;
        uint16_t local_time_offset = 0; // BCD hhmm
        uint64_t time_of_change = 0;    // 40 bits: MJD + BCD hhmmss
        uint16_t next_time_offset = 0;  // BCD hhmm
    };
    local_time_offset_descriptor() : descriptor_impl(local_time_offset_descriptor_tag) {}
    std::vector<region> regions;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class subtitling_descriptor : public descriptor_impl<subtitling_descriptor> {
public:
    struct subtitle {
        uint32_t ISO_639_language_code = 0; // 24 bits
        uint8_t subtitling_type = 0;
        uint16_t composition_page_id = 0;
        uint16_t ancillary_page_id = 0;
    };
    subtitling_descriptor() : descriptor_impl(subtitling_descriptor_tag) {}
    std::vector<subtitle> subtitles;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class private_data_specifier_descriptor : public descriptor_impl<private_data_specifier_descriptor> {
public:
    private_data_specifier_descriptor() : descriptor_impl(private_data_specifier_descriptor_tag) {}
    uint32_t private_data_specifier = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

// DVB AC-3 descriptor: each flag announces the byte that follows the flags.
class ac3_descriptor : public descriptor_impl<ac3_descriptor> {
public:
    ac3_descriptor() : descriptor_impl(ac3_descriptor_tag) {}
    uint8_t component_type_flag = 0;
    uint8_t bsid_flag = 0;
    uint8_t mainid_flag = 0;
    uint8_t asvc_flag = 0;
    uint8_t reserved = 0; // 4 bits
    uint8_t component_type = 0;
    uint8_t bsid = 0;
    uint8_t mainid = 0;
    uint8_t asvc = 0;
    std::vector<uint8_t> additional_info;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

// T2_delivery_system_descriptor (extension tag 0x04 of the extension descriptor).
struct T2_delivery_system_descriptor {
    struct subcell {
        uint8_t cell_id_extension = 0;
        uint32_t transposer_frequency = 0;
    };
    struct cell {
        uint16_t cell_id = 0;
        std::vector<uint32_t> centre_frequency; // one unless tfs_flag
        std::vector<subcell> subcells;
    };
    uint8_t plp_id = 0;
    uint16_t T2_system_id = 0;
    bool has_system_parameters = false;
    uint8_t SISO_MISO = 0;     // 2 bits
    uint8_t bandwidth = 0;     // 4 bits
    uint8_t reserved = 3;      // 2 bits
    uint8_t guard_interval = 0;    // 3 bits
    uint8_t transmission_mode = 0; // 3 bits
    uint8_t other_frequency_flag = 0;
    uint8_t tfs_flag = 0;
    std::vector<cell> cells;

    bool read(BSReader& p);
    bool write(BSWriter& w) const;
};

class extension_descriptor : public descriptor_impl<extension_descriptor> {
public:
    static constexpr uint8_t T2_delivery_system_tag_extension = 0x04;
    extension_descriptor() : descriptor_impl(extension_descriptor_tag) {}
    uint8_t descriptor_tag_extension = 0;
    bool has_T2_delivery_system = false;
    T2_delivery_system_descriptor T2_delivery_system;
    std::vector<uint8_t> selector_byte; // other extensions

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class logical_channel_descriptor : public descriptor_impl<logical_channel_descriptor> {
public:
    struct channel {
        uint16_t service_id = 0;
        uint8_t visible_service_flag = 1;
        uint8_t reserved = 0x1F;              // 5 bits
        uint16_t logical_channel_number = 0;  // 10 bits
    };
    logical_channel_descriptor() : descriptor_impl(logical_channel_descriptor_tag) {}
    std::vector<channel> channels;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

class cue_identifier_descriptor : public descriptor_impl<cue_identifier_descriptor> {
public:
    cue_identifier_descriptor() : descriptor_impl(cue_identifier_descriptor_tag) {}
    uint8_t cue_stream_type = 0;

protected:
    bool read_fields(BSReader& p) override;
    bool write_fields(BSWriter& w) const override;
};

} // namespace mpegcore
