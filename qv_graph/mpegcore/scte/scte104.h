// SCTE 104 messages: the multiple_operation_message that carries splice and descriptor
// requests, its time stamp and operations, and the single-operation message (alive
// request). Big-endian on the wire.
#pragma once

#include "BaseMpegTable.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace mpegcore {

// Operation ids of the multiple_operation_message.
enum scte104_multiple_opid : uint16_t {
    scte104_splice_request_opid = 0x0101,
    scte104_time_signal_request_opid = 0x0104,
    scte104_insert_DTMF_descriptor_opid = 0x0109,
    scte104_insert_avail_descriptor_opid = 0x010A,
    scte104_insert_segmentation_descriptor_opid = 0x010B,
    scte104_insert_time_descriptor_opid = 0x0110,
};

// Operation ids of single-operation messages.
enum scte104_single_opid : uint16_t {
    scte104_init_request_opid = 0x0001,
    scte104_init_response_opid = 0x0002,
    scte104_alive_request_opid = 0x0003,
    scte104_alive_response_opid = 0x0004,
};

enum scte104_splice_insert_type : uint8_t {
    reserved = 0,
    spliceStart_normal = 1,
    spliceStart_immediate = 2,
    spliceEnd_normal = 3,
    spliceEnd_immediate = 4,
    splice_cancel = 5,
};

struct scte104_timestamp_t {
    virtual ~scte104_timestamp_t() = default;
    virtual bool read(BSReader& r);
    virtual bool write(BSWriter& w) const;
    // Bytes that follow time_type: 0, 6, 4, 2 for types 0 to 3; other types carry none.
    uint16_t time_size() const;
    bool operator==(const scte104_timestamp_t& o) const;

    uint8_t time_type = 0;
    union {
        struct { uint32_t UTC_seconds; uint16_t UTC_microseconds; } utc;
        struct { uint8_t hours; uint8_t minutes; uint8_t seconds; uint8_t frames; } vitc;
        struct { uint8_t GPI_number; uint8_t GPI_edge; } gpi;
    } time{};
};

// Base of the operations. read and write move the operation's data only; the message
// handles opID and data_length around them.
class scte104_multiple_message_t {
public:
    explicit scte104_multiple_message_t(uint16_t id = 0) : opID(id) {}
    virtual ~scte104_multiple_message_t() = default;
    // Same opID and same data.
    virtual bool isEqual(const scte104_multiple_message_t& o) const;
    virtual uint16_t calc_data_length() const = 0;
    virtual bool write(BSWriter& w) const = 0;
    virtual bool read(BSReader& r) = 0;

    uint16_t opID;
    uint16_t data_length = 0;
};

class scte104_splice_request_data : public scte104_multiple_message_t {
public:
    scte104_splice_request_data() : scte104_multiple_message_t(scte104_splice_request_opid) { data_length = 14; }
    uint16_t calc_data_length() const override { return 14; }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint8_t splice_insert_type = reserved;
    uint32_t splice_event_id = 0;
    uint16_t unique_program_id = 0;
    uint16_t pre_roll_time = 0;  // ms
    uint16_t break_duration = 0; // tenths of a second
    uint8_t avail_num = 0;
    uint8_t avails_expected = 0;
    uint8_t auto_return_flag = 0;
};

class scte104_time_signal_request_data : public scte104_multiple_message_t {
public:
    scte104_time_signal_request_data() : scte104_multiple_message_t(scte104_time_signal_request_opid) { data_length = 2; }
    uint16_t calc_data_length() const override { return 2; }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint16_t pre_roll_time = 0; // ms
};

class scte104_insert_DTMF_descriptor_request_data : public scte104_multiple_message_t {
public:
    scte104_insert_DTMF_descriptor_request_data() : scte104_multiple_message_t(scte104_insert_DTMF_descriptor_opid) {}
    uint16_t calc_data_length() const override { return static_cast<uint16_t>(2 + DTMF_char.size()); }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint8_t pre_roll = 0; // tenths of a second
    uint8_t dtmf_length = 0;
    std::vector<uint8_t> DTMF_char;
};

class scte104_insert_avail_descriptor_request_data : public scte104_multiple_message_t {
public:
    scte104_insert_avail_descriptor_request_data() : scte104_multiple_message_t(scte104_insert_avail_descriptor_opid) {}
    uint16_t calc_data_length() const override { return static_cast<uint16_t>(1 + 4 * provider_avail_ids.size()); }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint8_t num_provider_avails = 0;
    std::vector<uint32_t> provider_avail_ids;
};

class scte104_insert_segmentation_descriptor_request_data : public scte104_multiple_message_t {
public:
    scte104_insert_segmentation_descriptor_request_data()
        : scte104_multiple_message_t(scte104_insert_segmentation_descriptor_opid) {}
    uint16_t calc_data_length() const override;
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint32_t segmentation_event_id = 0;
    uint8_t segmentation_event_cancel_indicator = 0;
    uint16_t duration = 0; // whole seconds
    uint8_t segmentation_upid_type = 0;
    uint8_t segmentation_upid_length = 0;
    std::vector<uint8_t> segmentation_upid;
    uint8_t segmentation_type_id = 0;
    uint8_t segment_num = 0;
    uint8_t segments_expected = 0;
    uint8_t duration_extension_frames = 0;
    uint8_t delivery_not_restricted_flag = 0;
    uint8_t web_delivery_allowed_flag = 0;
    uint8_t no_regional_blackout_flag = 0;
    uint8_t archive_allowed_flag = 0;
    uint8_t device_restrictions = 0;
    uint8_t insert_sub_segment_info = 0;
    uint8_t sub_segment_num = 0;
    uint8_t sub_segments_expected = 0;
};

class scte104_insert_time_descriptor : public scte104_multiple_message_t {
public:
    scte104_insert_time_descriptor() : scte104_multiple_message_t(scte104_insert_time_descriptor_opid) { data_length = 12; }
    uint16_t calc_data_length() const override { return 12; }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    uint64_t TAI_seconds = 0; // 48 bits
    uint32_t TAI_ns = 0;
    uint16_t UTC_offset = 0;
};

// An operation this system does not interpret; its data is carried unchanged.
class scte104_raw_operation : public scte104_multiple_message_t {
public:
    explicit scte104_raw_operation(uint16_t id) : scte104_multiple_message_t(id) {}
    uint16_t calc_data_length() const override { return static_cast<uint16_t>(data.size()); }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;

    std::vector<uint8_t> data;
};

std::shared_ptr<scte104_multiple_message_t> create_scte104_operation(uint16_t opID);

class scte104_multiple_operation_message {
public:
    bool read(unsigned char* data, size_t length);
    bool read(BSReader& r);
    // Writes messageSize, num_ops and every data_length as computed from the content
    // (and stores them), so that what goes out is always self-consistent.
    bool write(unsigned char* data, size_t length);
    bool write(BSWriter& w);
    // 12 + time stamp bytes + (4 + data_length) per operation, in 16 bits.
    uint16_t calc_section_length() const;
    std::shared_ptr<scte104_multiple_message_t> find_opID(uint16_t id) const;
    bool isEqual(const scte104_multiple_operation_message& o) const;
    // Appends an operation; its data_length and num_ops follow.
    void add_message(std::shared_ptr<scte104_multiple_message_t> op);

    uint16_t Reserved = 0xFFFF;
    uint16_t messageSize = 0;
    uint8_t protocol_version = 0;
    uint8_t AS_index = 0;
    uint8_t message_number = 0;
    uint16_t DPI_PID_index = 0;
    uint8_t SCTE35_protocol_version = 0;
    scte104_timestamp_t timestamp;
    uint8_t num_ops = 0;
    std::vector<std::shared_ptr<scte104_multiple_message_t>> opIDs;
};

// Data of a single-operation message.
class scte104_single_message {
public:
    virtual ~scte104_single_message() = default;
    virtual uint16_t calc_data_length() const = 0;
    virtual bool write(BSWriter& w) const = 0;
    virtual bool read(BSReader& r) = 0;
};

// SCTE 104 time(): UTC seconds since 1970 and microseconds.
struct scte104_time {
    uint32_t UTC_seconds = 0;
    uint16_t UTC_microseconds = 0;
};

// alive_request_data (and alive_response_data, same layout).
class scte104_alive_request_data : public scte104_single_message {
public:
    uint16_t calc_data_length() const override { return 6; }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;
    scte104_time time;
};

class scte104_single_raw_data : public scte104_single_message {
public:
    uint16_t calc_data_length() const override { return static_cast<uint16_t>(data.size()); }
    bool write(BSWriter& w) const override;
    bool read(BSReader& r) override;
    std::vector<uint8_t> data;
};

class scte104_single_operation_message {
public:
    // Header bytes up to and including DPI_PID_index.
    static constexpr uint16_t kHeaderBytes = 13;

    bool read(unsigned char* data, size_t length);
    bool read(BSReader& r);
    // messageSize is written as header + data.
    bool write(unsigned char* data, size_t length);
    bool write(BSWriter& w);
    uint16_t calc_section_length() const { return 14; }

    uint16_t opID = 0;
    uint16_t messageSize = 0;
    uint16_t result = 0xFFFF;
    uint16_t result_extension = 0xFFFF;
    uint8_t protocol_version = 0;
    uint8_t AS_index = 0;
    uint8_t message_number = 0;
    uint16_t DPI_PID_index = 0;
    std::shared_ptr<scte104_single_message> pOpID;
};

// An alive request stamped with the given time.
scte104_single_operation_message make_scte104_alive_request(const scte104_time& t, uint8_t messageNumber = 0);

} // namespace mpegcore
