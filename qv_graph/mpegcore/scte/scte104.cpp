#include "scte104.h"

#include <cstring>

namespace mpegcore {

namespace {
// Reads n bytes into v.
bool get_bytes(BSReader& r, std::vector<uint8_t>& v, size_t n)
{
    v.resize(n);
    return r.getBytes(v.data(), n);
}

// Serialises an operation's data for comparison; false when it does not fit.
bool serialise(const scte104_multiple_message_t& op, std::vector<uint8_t>& out)
{
    out.assign(65536, 0);
    BSWriter w(out.data(), out.size());
    if (!op.write(w) || !w.flush())
        return false;
    out.resize(w.m_writeByte);
    return true;
}
} // namespace

// ---- time stamp -------------------------------------------------------------------

uint16_t scte104_timestamp_t::time_size() const
{
    switch (time_type) {
    case 1: return 6;
    case 2: return 4;
    case 3: return 2;
    default: return 0;
    }
}

bool scte104_timestamp_t::read(BSReader& r)
{
    time = {};
    if (!r.getBits<8>(time_type))
        return false;
    switch (time_type) {
    case 1: return r.getBits<32>(time.utc.UTC_seconds) && r.getBits<16>(time.utc.UTC_microseconds);
    case 2:
        return r.getBits<8>(time.vitc.hours) && r.getBits<8>(time.vitc.minutes) && r.getBits<8>(time.vitc.seconds) &&
               r.getBits<8>(time.vitc.frames);
    case 3: return r.getBits<8>(time.gpi.GPI_number) && r.getBits<8>(time.gpi.GPI_edge);
    default: return true;
    }
}

bool scte104_timestamp_t::write(BSWriter& w) const
{
    if (!w.putBits<8>(time_type))
        return false;
    switch (time_type) {
    case 1: return w.putBits<32>(time.utc.UTC_seconds) && w.putBits<16>(time.utc.UTC_microseconds);
    case 2:
        return w.putBits<8>(time.vitc.hours) && w.putBits<8>(time.vitc.minutes) && w.putBits<8>(time.vitc.seconds) &&
               w.putBits<8>(time.vitc.frames);
    case 3: return w.putBits<8>(time.gpi.GPI_number) && w.putBits<8>(time.gpi.GPI_edge);
    default: return true;
    }
}

bool scte104_timestamp_t::operator==(const scte104_timestamp_t& o) const
{
    if (time_type != o.time_type)
        return false;
    switch (time_type) {
    case 1: return time.utc.UTC_seconds == o.time.utc.UTC_seconds && time.utc.UTC_microseconds == o.time.utc.UTC_microseconds;
    case 2: return std::memcmp(&time.vitc, &o.time.vitc, sizeof time.vitc) == 0;
    case 3: return time.gpi.GPI_number == o.time.gpi.GPI_number && time.gpi.GPI_edge == o.time.gpi.GPI_edge;
    default: return true;
    }
}

// ---- operations ---------------------------------------------------------------------

bool scte104_multiple_message_t::isEqual(const scte104_multiple_message_t& o) const
{
    if (opID != o.opID)
        return false;
    std::vector<uint8_t> a, b;
    return serialise(*this, a) && serialise(o, b) && a == b;
}

bool scte104_splice_request_data::read(BSReader& r)
{
    return r.getBits<8>(splice_insert_type) && r.getBits<32>(splice_event_id) && r.getBits<16>(unique_program_id) &&
           r.getBits<16>(pre_roll_time) && r.getBits<16>(break_duration) && r.getBits<8>(avail_num) &&
           r.getBits<8>(avails_expected) && r.getBits<8>(auto_return_flag);
}

bool scte104_splice_request_data::write(BSWriter& w) const
{
    return w.putBits<8>(splice_insert_type) && w.putBits<32>(splice_event_id) && w.putBits<16>(unique_program_id) &&
           w.putBits<16>(pre_roll_time) && w.putBits<16>(break_duration) && w.putBits<8>(avail_num) &&
           w.putBits<8>(avails_expected) && w.putBits<8>(auto_return_flag);
}

bool scte104_time_signal_request_data::read(BSReader& r)
{
    return r.getBits<16>(pre_roll_time);
}

bool scte104_time_signal_request_data::write(BSWriter& w) const
{
    return w.putBits<16>(pre_roll_time);
}

bool scte104_insert_DTMF_descriptor_request_data::read(BSReader& r)
{
    return r.getBits<8>(pre_roll) && r.getBits<8>(dtmf_length) && get_bytes(r, DTMF_char, dtmf_length);
}

bool scte104_insert_DTMF_descriptor_request_data::write(BSWriter& w) const
{
    return DTMF_char.size() <= 255 && w.putBits<8>(pre_roll) && w.putBits<8>(DTMF_char.size()) &&
           w.putBytes(DTMF_char.data(), DTMF_char.size());
}

bool scte104_insert_avail_descriptor_request_data::read(BSReader& r)
{
    if (!r.getBits<8>(num_provider_avails))
        return false;
    provider_avail_ids.assign(num_provider_avails, 0);
    for (auto& id : provider_avail_ids)
        if (!r.getBits<32>(id))
            return false;
    return true;
}

bool scte104_insert_avail_descriptor_request_data::write(BSWriter& w) const
{
    if (provider_avail_ids.size() > 255 || !w.putBits<8>(provider_avail_ids.size()))
        return false;
    for (uint32_t id : provider_avail_ids)
        if (!w.putBits<32>(id))
            return false;
    return true;
}

uint16_t scte104_insert_segmentation_descriptor_request_data::calc_data_length() const
{
    return static_cast<uint16_t>(19 + segmentation_upid.size() + (insert_sub_segment_info == 1 ? 2 : 0));
}

bool scte104_insert_segmentation_descriptor_request_data::read(BSReader& r)
{
    if (!r.getBits<32>(segmentation_event_id) || !r.getBits<8>(segmentation_event_cancel_indicator) ||
        !r.getBits<16>(duration) || !r.getBits<8>(segmentation_upid_type) || !r.getBits<8>(segmentation_upid_length) ||
        !get_bytes(r, segmentation_upid, segmentation_upid_length) || !r.getBits<8>(segmentation_type_id) ||
        !r.getBits<8>(segment_num) || !r.getBits<8>(segments_expected) || !r.getBits<8>(duration_extension_frames) ||
        !r.getBits<8>(delivery_not_restricted_flag) || !r.getBits<8>(web_delivery_allowed_flag) ||
        !r.getBits<8>(no_regional_blackout_flag) || !r.getBits<8>(archive_allowed_flag) ||
        !r.getBits<8>(device_restrictions))
        return false;
    // Injectors built to the 2012 edition of SCTE 104 end the operation here; such an
    // operation has no sub-segment information.
    insert_sub_segment_info = 0;
    if (r.empty())
        return true;
    if (!r.getBits<8>(insert_sub_segment_info))
        return false;
    if (insert_sub_segment_info == 1)
        return r.getBits<8>(sub_segment_num) && r.getBits<8>(sub_segments_expected);
    return true;
}

bool scte104_insert_segmentation_descriptor_request_data::write(BSWriter& w) const
{
    bool ok = segmentation_upid.size() <= 255 && w.putBits<32>(segmentation_event_id) &&
              w.putBits<8>(segmentation_event_cancel_indicator) && w.putBits<16>(duration) &&
              w.putBits<8>(segmentation_upid_type) && w.putBits<8>(segmentation_upid.size()) &&
              w.putBytes(segmentation_upid.data(), segmentation_upid.size()) && w.putBits<8>(segmentation_type_id) &&
              w.putBits<8>(segment_num) && w.putBits<8>(segments_expected) &&
              w.putBits<8>(duration_extension_frames) && w.putBits<8>(delivery_not_restricted_flag) &&
              w.putBits<8>(web_delivery_allowed_flag) && w.putBits<8>(no_regional_blackout_flag) &&
              w.putBits<8>(archive_allowed_flag) && w.putBits<8>(device_restrictions) &&
              w.putBits<8>(insert_sub_segment_info);
    if (ok && insert_sub_segment_info == 1)
        ok = w.putBits<8>(sub_segment_num) && w.putBits<8>(sub_segments_expected);
    return ok;
}

bool scte104_insert_time_descriptor::read(BSReader& r)
{
    return r.getBits<48>(TAI_seconds) && r.getBits<32>(TAI_ns) && r.getBits<16>(UTC_offset);
}

bool scte104_insert_time_descriptor::write(BSWriter& w) const
{
    return w.putBits<48>(TAI_seconds) && w.putBits<32>(TAI_ns) && w.putBits<16>(UTC_offset);
}

bool scte104_raw_operation::read(BSReader& r)
{
    return get_bytes(r, data, r.bytesLeft());
}

bool scte104_raw_operation::write(BSWriter& w) const
{
    return w.putBytes(data.data(), data.size());
}

std::shared_ptr<scte104_multiple_message_t> create_scte104_operation(uint16_t opID)
{
    switch (opID) {
    case scte104_splice_request_opid: return std::make_shared<scte104_splice_request_data>();
    case scte104_time_signal_request_opid: return std::make_shared<scte104_time_signal_request_data>();
    case scte104_insert_DTMF_descriptor_opid: return std::make_shared<scte104_insert_DTMF_descriptor_request_data>();
    case scte104_insert_avail_descriptor_opid: return std::make_shared<scte104_insert_avail_descriptor_request_data>();
    case scte104_insert_segmentation_descriptor_opid:
        return std::make_shared<scte104_insert_segmentation_descriptor_request_data>();
    case scte104_insert_time_descriptor_opid: return std::make_shared<scte104_insert_time_descriptor>();
    default: return std::make_shared<scte104_raw_operation>(opID);
    }
}

// ---- multiple_operation_message ---------------------------------------------------------

bool scte104_multiple_operation_message::read(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSReader r(data, length);
    return read(r);
}

bool scte104_multiple_operation_message::read(BSReader& r)
{
    opIDs.clear();
    if (!r.getBits<16>(Reserved) || !r.getBits<16>(messageSize) || !r.getBits<8>(protocol_version) ||
        !r.getBits<8>(AS_index) || !r.getBits<8>(message_number) || !r.getBits<16>(DPI_PID_index) ||
        !r.getBits<8>(SCTE35_protocol_version) || !timestamp.read(r) || !r.getBits<8>(num_ops))
        return false;
    for (unsigned i = 0; i < num_ops; ++i) {
        uint16_t id = 0, len = 0;
        if (!r.getBits<16>(id) || !r.getBits<16>(len) || r.bytesLeft() < len)
            return false;
        auto op = create_scte104_operation(id);
        op->data_length = len;
        // Each operation reads from its own data only, so that a short or long
        // operation cannot shift the ones after it.
        BSReader data(r.current(), len);
        if (!op->read(data))
            return false;
        r.skipBytes(len);
        opIDs.push_back(std::move(op));
    }
    return true;
}

uint16_t scte104_multiple_operation_message::calc_section_length() const
{
    uint16_t n = static_cast<uint16_t>(12 + timestamp.time_size());
    for (const auto& op : opIDs)
        if (op)
            n = static_cast<uint16_t>(n + 4 + op->data_length);
    return n;
}

void scte104_multiple_operation_message::add_message(std::shared_ptr<scte104_multiple_message_t> op)
{
    if (!op)
        return;
    op->data_length = op->calc_data_length();
    opIDs.push_back(std::move(op));
    num_ops = static_cast<uint8_t>(opIDs.size());
}

bool scte104_multiple_operation_message::write(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSWriter w(data, length);
    return write(w) && w.flush();
}

bool scte104_multiple_operation_message::write(BSWriter& w)
{
    if (opIDs.size() > 255)
        return false;
    for (auto& op : opIDs) {
        if (!op)
            return false;
        op->data_length = op->calc_data_length();
    }
    num_ops = static_cast<uint8_t>(opIDs.size());
    messageSize = calc_section_length();
    if (!w.putBits<16>(Reserved) || !w.putBits<16>(messageSize) || !w.putBits<8>(protocol_version) ||
        !w.putBits<8>(AS_index) || !w.putBits<8>(message_number) || !w.putBits<16>(DPI_PID_index) ||
        !w.putBits<8>(SCTE35_protocol_version) || !timestamp.write(w) || !w.putBits<8>(num_ops))
        return false;
    for (const auto& op : opIDs)
        if (!w.putBits<16>(op->opID) || !w.putBits<16>(op->data_length) || !op->write(w))
            return false;
    return true;
}

std::shared_ptr<scte104_multiple_message_t> scte104_multiple_operation_message::find_opID(uint16_t id) const
{
    for (const auto& op : opIDs)
        if (op && op->opID == id)
            return op;
    return {};
}

bool scte104_multiple_operation_message::isEqual(const scte104_multiple_operation_message& o) const
{
    if (Reserved != o.Reserved || protocol_version != o.protocol_version || AS_index != o.AS_index ||
        message_number != o.message_number || DPI_PID_index != o.DPI_PID_index ||
        SCTE35_protocol_version != o.SCTE35_protocol_version || !(timestamp == o.timestamp) ||
        opIDs.size() != o.opIDs.size())
        return false;
    for (size_t i = 0; i < opIDs.size(); ++i) {
        if (!opIDs[i] || !o.opIDs[i]) {
            if (opIDs[i] != o.opIDs[i])
                return false;
            continue;
        }
        if (!opIDs[i]->isEqual(*o.opIDs[i]))
            return false;
    }
    return true;
}

// ---- single_operation_message ---------------------------------------------------------

bool scte104_alive_request_data::read(BSReader& r)
{
    return r.getBits<32>(time.UTC_seconds) && r.getBits<16>(time.UTC_microseconds);
}

bool scte104_alive_request_data::write(BSWriter& w) const
{
    return w.putBits<32>(time.UTC_seconds) && w.putBits<16>(time.UTC_microseconds);
}

bool scte104_single_raw_data::read(BSReader& r)
{
    return get_bytes(r, data, r.bytesLeft());
}

bool scte104_single_raw_data::write(BSWriter& w) const
{
    return w.putBytes(data.data(), data.size());
}

bool scte104_single_operation_message::read(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSReader r(data, length);
    return read(r);
}

bool scte104_single_operation_message::read(BSReader& r)
{
    pOpID.reset();
    if (!r.getBits<16>(opID) || !r.getBits<16>(messageSize) || !r.getBits<16>(result) ||
        !r.getBits<16>(result_extension) || !r.getBits<8>(protocol_version) || !r.getBits<8>(AS_index) ||
        !r.getBits<8>(message_number) || !r.getBits<16>(DPI_PID_index))
        return false;
    if (messageSize < kHeaderBytes)
        return false;
    const size_t dataBytes = messageSize - kHeaderBytes;
    if (r.bytesLeft() < dataBytes)
        return false;
    if (opID == scte104_alive_request_opid || opID == scte104_alive_response_opid)
        pOpID = std::make_shared<scte104_alive_request_data>();
    else
        pOpID = std::make_shared<scte104_single_raw_data>();
    BSReader data(r.current(), dataBytes);
    if (!pOpID->read(data))
        return false;
    return r.skipBytes(dataBytes);
}

bool scte104_single_operation_message::write(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSWriter w(data, length);
    return write(w) && w.flush();
}

bool scte104_single_operation_message::write(BSWriter& w)
{
    messageSize = static_cast<uint16_t>(kHeaderBytes + (pOpID ? pOpID->calc_data_length() : 0));
    return w.putBits<16>(opID) && w.putBits<16>(messageSize) && w.putBits<16>(result) &&
           w.putBits<16>(result_extension) && w.putBits<8>(protocol_version) && w.putBits<8>(AS_index) &&
           w.putBits<8>(message_number) && w.putBits<16>(DPI_PID_index) && (!pOpID || pOpID->write(w));
}

scte104_single_operation_message make_scte104_alive_request(const scte104_time& t, uint8_t messageNumber)
{
    scte104_single_operation_message m;
    m.opID = scte104_alive_request_opid;
    m.message_number = messageNumber;
    auto data = std::make_shared<scte104_alive_request_data>();
    data->time = t;
    m.pOpID = data;
    m.messageSize = static_cast<uint16_t>(scte104_single_operation_message::kHeaderBytes + data->calc_data_length());
    return m;
}

} // namespace mpegcore
