// ANSI/SCTE 35 splice information section (table_id 0xFC): parse, validate (table id,
// length, MPEG-2 CRC-32), serialise, deep copy. Encrypted sections are rejected.
#pragma once

#include "BaseMpegTable.h"
#include "qvdescriptorlist.h"
#include "scte35_descriptors.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace mpegcore {

constexpr uint8_t SCTE35_TABLE_ID = 0xFC;

enum esplice_command_type : uint8_t {
    splice_null_command_type = 0,
    splice_schedule_command_type = 4,
    splice_insert_command_type = 5,
    time_signal_command_type = 6,
    bandwidth_reservation_command_type = 7,
    private_command_command_type = 255,
};

struct splice_time_t {
    uint8_t time_specified_flag = 0;
    uint8_t reserved = 0x7F;  // 6 bits with a time, 7 without
    uint64_t pts_time = 0;    // 33 bits, 90 kHz
};

struct break_duration_t {
    uint8_t auto_return = 0;
    uint8_t reserved = 0x3F;  // 6 bits
    uint64_t duration = 0;    // 33 bits, 90 kHz
};

struct component_insert_t {
    uint8_t component_tag = 0;
    splice_time_t splice_time;
};

struct splice_insert_t {
    static constexpr uint8_t command_type = splice_insert_command_type;
    uint32_t splice_event_id = 0;
    uint8_t splice_event_cancel_indicator = 0;
    uint8_t reserved = 0x7F;  // 7 bits
    uint8_t out_of_network_indicator = 0;
    uint8_t program_splice_flag = 1;
    uint8_t duration_flag = 0;
    uint8_t splice_immediate_flag = 0;
    uint8_t reserved1 = 0x0F; // 4 bits
    splice_time_t splice_time;
    uint8_t component_count = 0;
    std::map<uint8_t, std::shared_ptr<component_insert_t>> components;
    break_duration_t break_duration;
    uint16_t unique_program_id = 0;
    uint8_t avail_num = 0;
    uint8_t avails_expected = 0;
};

struct component_t {
    uint8_t component_tag = 0;
    uint32_t utc_splice_time = 0;
};

struct splice_event_t {
    uint32_t splice_event_id = 0;
    uint8_t splice_event_cancel_indicator = 0;
    uint8_t reserved = 0x7F;  // 7 bits
    uint8_t out_of_network_indicator = 0;
    uint8_t program_splice_flag = 1;
    uint8_t duration_flag = 0;
    uint8_t reserved1 = 0x1F; // 5 bits
    uint32_t utc_splice_time = 0;
    uint8_t component_count = 0;
    std::map<uint8_t, std::shared_ptr<component_t>> components;
    break_duration_t break_duration;
    uint16_t unique_program_id = 0;
    uint8_t avail_num = 0;
    uint8_t avails_expected = 0;
};

struct splice_schedule_t {
    static constexpr uint8_t command_type = splice_schedule_command_type;
    uint8_t splice_count = 0;
    std::map<uint32_t, std::shared_ptr<splice_event_t>> splice_event;
};

// A time_signal's body is its splice time.
struct time_signal_t : splice_time_t {
    static constexpr uint8_t command_type = time_signal_command_type;
};

struct private_command_t {
    static constexpr uint8_t command_type = private_command_command_type;
    uint16_t identifier = 0; // the wire has 32 bits; only the low 16 are kept (deliberate)
    size_t private_length = 0;
    std::unique_ptr<uint8_t[]> private_bytes;
};

class splice_info_section : public CBaseMpegTable {
public:
    // As CBaseMpegTable: the caller's buffer, or an owned one of size bytes when null.
    explicit splice_info_section(unsigned char* buffer = nullptr, size_t size = 1024);
    ~splice_info_section() override;

    void Clear() override;
    bool read(unsigned char* data, size_t length);
    bool read(BSReader& r) override;
    bool write(unsigned char* data, size_t length);
    bool write(BSWriter& w) override;
    // splice_command_length + encoded descriptors + 17.
    uint16_t calc_section_length() const override;
    void copyTo(splice_info_section* dst) const;

    // The command body, typed; null when the section's command is of another type.
    template <class T>
    T* command() const
    {
        return splice_command_type == T::command_type ? static_cast<T*>(splice_command.get()) : nullptr;
    }
    // Replaces the command body; the type field follows it.
    template <class T>
    T& set_command()
    {
        auto c = std::make_shared<T>();
        T& ref = *c;
        splice_command = std::move(c);
        splice_command_type = T::command_type;
        return ref;
    }
    void set_command_type(uint8_t type); // a command without a body (null, bandwidth reservation)
    // Encoded size of the command body as write() produces it.
    uint16_t calc_command_length() const;

    uint8_t protocol_version = 0;
    uint8_t encrypted_packet = 0;
    uint8_t encryption_algorithm = 0; // 6 bits
    uint64_t pts_adjustment = 0;      // 33 bits
    uint8_t cw_index = 0xFF;
    uint16_t reserved1 = 0xFFF;       // 12 bits, kept as read
    uint16_t splice_command_length = 0;
    uint8_t splice_command_type = splice_null_command_type;
    std::shared_ptr<void> splice_command; // body typed by splice_command_type; null when none
    uint16_t descriptor_loop_length = 0;
    QVDescriptorList descriptors{e_scte35_desc_type};
    uint8_t alignment_stuffing = 0;   // never read or written
    uint32_t E_CRC_32 = 0;
    uint32_t CRC_32 = 0;

private:
    void reset_fields();
    bool splice_null_f(BSReader& r);
    bool splice_schedule_f(BSReader& r, splice_schedule_t& s);
    bool splice_insert_f(BSReader& r, splice_insert_t& s);
    bool time_signal_f(BSReader& r, splice_time_t& t);
    bool bandwidth_reservation_f(BSReader& r);
    bool private_command_f(BSReader& r, size_t length, private_command_t& p);
    static bool splice_time_f(BSReader& r, splice_time_t& t);
    static bool break_duration_f(BSReader& r, break_duration_t& b);

    bool put_command_f(BSWriter& w) const;
    static bool put_splice_schedule_f(BSWriter& w, const splice_schedule_t& s);
    static bool put_splice_insert_f(BSWriter& w, const splice_insert_t& s);
    static bool put_private_command_f(BSWriter& w, const private_command_t& p);
    static bool put_splice_time_f(BSWriter& w, const splice_time_t& t);
    static bool put_break_duration_f(BSWriter& w, const break_duration_t& b);
};

} // namespace mpegcore
