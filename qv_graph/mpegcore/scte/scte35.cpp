#include "scte35.h"

#include "mpeg2_crc32.h"

#include <cstring>

namespace mpegcore {

namespace {
constexpr uint16_t kMaxSectionLength = 0xFFD;
// protocol_version .. splice_command_type (11), descriptor_loop_length (2), CRC_32 (4)
constexpr uint16_t kFixedSectionBytes = 17;
} // namespace

splice_info_section::splice_info_section(unsigned char* buffer, size_t size) : CBaseMpegTable(buffer, size)
{
    table_id = SCTE35_TABLE_ID;
}

splice_info_section::~splice_info_section() = default;

void splice_info_section::Clear()
{
    CBaseMpegTable::Clear();
    reset_fields();
}

void splice_info_section::reset_fields()
{
    table_id = SCTE35_TABLE_ID;
    section_syntax_indicator = 0;
    zero = 0;
    reserved = 3;
    section_length = 0;
    protocol_version = 0;
    encrypted_packet = 0;
    encryption_algorithm = 0;
    pts_adjustment = 0;
    cw_index = 0xFF;
    reserved1 = 0xFFF;
    splice_command_length = 0;
    splice_command_type = splice_null_command_type;
    splice_command.reset();
    descriptor_loop_length = 0;
    descriptors.clear();
    alignment_stuffing = 0;
    E_CRC_32 = 0;
    CRC_32 = 0;
}

void splice_info_section::set_command_type(uint8_t type)
{
    splice_command.reset();
    splice_command_type = type;
}

bool splice_info_section::read(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSReader r(data, length);
    return read(r);
}

bool splice_info_section::read(BSReader& r)
{
    // Not Clear(): the data may lie in the table's own buffer.
    reset_fields();
    if (!r.byteAligned() || r.bytesLeft() < 3)
        return false;
    unsigned char* start = r.current();
    const size_t available = r.bytesLeft();
    CBaseMpegTable::read(r);
    // section_syntax_indicator and the reserved bits are not checked: encoders in the
    // field get them wrong and the CRC still protects the section.
    if (table_id != SCTE35_TABLE_ID || zero != 0)
        return false;
    if (section_length > kMaxSectionLength || available - 3 < section_length)
        return false;
    if (mpeg2_crc32(start, size_t(section_length) + 3) != 0)
        return false;
    r.skipBytes(section_length);

    // Everything else is read from the section alone: no field may reach into
    // whatever follows it in the caller's buffer.
    BSReader s(start + 3, section_length);
    if (!s.getBits<8>(protocol_version) || !s.getBits<1>(encrypted_packet) ||
        !s.getBits<6>(encryption_algorithm) || !s.getBits<33>(pts_adjustment) || !s.getBits<8>(cw_index) ||
        !s.getBits<12>(reserved1) || !s.getBits<12>(splice_command_length))
        return false;
    if (encrypted_packet)
        return false;
    if (!s.getBits<8>(splice_command_type))
        return false;

    bool ok = true;
    switch (splice_command_type) {
    case splice_null_command_type: ok = splice_null_f(s); break;
    case bandwidth_reservation_command_type: ok = bandwidth_reservation_f(s); break;
    case splice_schedule_command_type: ok = splice_schedule_f(s, set_command<splice_schedule_t>()); break;
    case splice_insert_command_type: ok = splice_insert_f(s, set_command<splice_insert_t>()); break;
    case time_signal_command_type: ok = time_signal_f(s, set_command<time_signal_t>()); break;
    case private_command_command_type:
        ok = private_command_f(s, splice_command_length, set_command<private_command_t>());
        break;
    default:
        // Unknown commands are neither parsed nor stepped over (deliberate): the
        // descriptor loop length is then taken from the command's first bytes.
        break;
    }
    if (!ok)
        return false;

    if (!s.getBits<16>(descriptor_loop_length) || !s.byteAligned() || s.bytesLeft() < descriptor_loop_length)
        return false;
    BSReader d(s.current(), descriptor_loop_length);
    if (!descriptors.read(d))
        return false;
    s.skipBytes(descriptor_loop_length);
    // Alignment stuffing is not skipped: with stuffing present, CRC_32 holds its first
    // bytes. The section's integrity was already proven above.
    return s.getBits<32>(CRC_32);
}

bool splice_info_section::splice_null_f(BSReader&)
{
    return true;
}

bool splice_info_section::bandwidth_reservation_f(BSReader&)
{
    return true;
}

bool splice_info_section::splice_time_f(BSReader& r, splice_time_t& t)
{
    if (!r.getBits<1>(t.time_specified_flag))
        return false;
    if (t.time_specified_flag)
        return r.getBits<6>(t.reserved) && r.getBits<33>(t.pts_time);
    t.pts_time = 0;
    return r.getBits<7>(t.reserved);
}

bool splice_info_section::break_duration_f(BSReader& r, break_duration_t& b)
{
    return r.getBits<1>(b.auto_return) && r.getBits<6>(b.reserved) && r.getBits<33>(b.duration);
}

bool splice_info_section::time_signal_f(BSReader& r, splice_time_t& t)
{
    return splice_time_f(r, t);
}

bool splice_info_section::splice_insert_f(BSReader& r, splice_insert_t& s)
{
    if (!r.getBits<32>(s.splice_event_id) || !r.getBits<1>(s.splice_event_cancel_indicator) ||
        !r.getBits<7>(s.reserved))
        return false;
    if (s.splice_event_cancel_indicator)
        return true;
    if (!r.getBits<1>(s.out_of_network_indicator) || !r.getBits<1>(s.program_splice_flag) ||
        !r.getBits<1>(s.duration_flag) || !r.getBits<1>(s.splice_immediate_flag) || !r.getBits<4>(s.reserved1))
        return false;
    if (s.program_splice_flag && !s.splice_immediate_flag && !splice_time_f(r, s.splice_time))
        return false;
    if (!s.program_splice_flag) {
        if (!r.getBits<8>(s.component_count))
            return false;
        for (unsigned i = 0; i < s.component_count; ++i) {
            auto c = std::make_shared<component_insert_t>();
            if (!r.getBits<8>(c->component_tag))
                return false;
            if (!s.splice_immediate_flag && !splice_time_f(r, c->splice_time))
                return false;
            s.components[c->component_tag] = c; // a repeated tag keeps its last entry
        }
    }
    if (s.duration_flag && !break_duration_f(r, s.break_duration))
        return false;
    return r.getBits<16>(s.unique_program_id) && r.getBits<8>(s.avail_num) && r.getBits<8>(s.avails_expected);
}

bool splice_info_section::splice_schedule_f(BSReader& r, splice_schedule_t& s)
{
    if (!r.getBits<8>(s.splice_count))
        return false;
    for (unsigned i = 0; i < s.splice_count; ++i) {
        auto e = std::make_shared<splice_event_t>();
        if (!r.getBits<32>(e->splice_event_id) || !r.getBits<1>(e->splice_event_cancel_indicator) ||
            !r.getBits<7>(e->reserved))
            return false;
        if (!e->splice_event_cancel_indicator) {
            if (!r.getBits<1>(e->out_of_network_indicator) || !r.getBits<1>(e->program_splice_flag) ||
                !r.getBits<1>(e->duration_flag) || !r.getBits<5>(e->reserved1))
                return false;
            if (e->program_splice_flag) {
                if (!r.getBits<32>(e->utc_splice_time))
                    return false;
            } else {
                if (!r.getBits<8>(e->component_count))
                    return false;
                for (unsigned k = 0; k < e->component_count; ++k) {
                    auto c = std::make_shared<component_t>();
                    if (!r.getBits<8>(c->component_tag) || !r.getBits<32>(c->utc_splice_time))
                        return false;
                    e->components[c->component_tag] = c;
                }
            }
            if (e->duration_flag && !break_duration_f(r, e->break_duration))
                return false;
            if (!r.getBits<16>(e->unique_program_id) || !r.getBits<8>(e->avail_num) ||
                !r.getBits<8>(e->avails_expected))
                return false;
        }
        s.splice_event[e->splice_event_id] = e;
    }
    return true;
}

bool splice_info_section::private_command_f(BSReader& r, size_t length, private_command_t& p)
{
    if (length < 4)
        return false;
    uint32_t identifier = 0;
    if (!r.getBits<32>(identifier))
        return false;
    p.identifier = static_cast<uint16_t>(identifier);
    p.private_length = length - 4;
    p.private_bytes.reset(new uint8_t[p.private_length ? p.private_length : 1]);
    return r.getBytes(p.private_bytes.get(), p.private_length);
}

bool splice_info_section::put_splice_time_f(BSWriter& w, const splice_time_t& t)
{
    if (t.time_specified_flag)
        return w.putBits<1>(1) && w.putBits<6>(t.reserved) && w.putBits<33>(t.pts_time);
    return w.putBits<1>(0) && w.putBits<7>(t.reserved);
}

bool splice_info_section::put_break_duration_f(BSWriter& w, const break_duration_t& b)
{
    return w.putBits<1>(b.auto_return) && w.putBits<6>(b.reserved) && w.putBits<33>(b.duration);
}

bool splice_info_section::put_splice_insert_f(BSWriter& w, const splice_insert_t& s)
{
    bool ok = w.putBits<32>(s.splice_event_id) && w.putBits<1>(s.splice_event_cancel_indicator) &&
              w.putBits<7>(s.reserved);
    if (!ok || s.splice_event_cancel_indicator)
        return ok;
    ok = w.putBits<1>(s.out_of_network_indicator) && w.putBits<1>(s.program_splice_flag) &&
         w.putBits<1>(s.duration_flag) && w.putBits<1>(s.splice_immediate_flag) && w.putBits<4>(s.reserved1);
    if (s.program_splice_flag && !s.splice_immediate_flag)
        ok = ok && put_splice_time_f(w, s.splice_time);
    if (!s.program_splice_flag) {
        ok = ok && w.putBits<8>(s.components.size());
        for (const auto& kv : s.components) {
            ok = ok && w.putBits<8>(kv.first);
            if (!s.splice_immediate_flag)
                ok = ok && put_splice_time_f(w, kv.second ? kv.second->splice_time : splice_time_t{});
        }
    }
    if (s.duration_flag)
        ok = ok && put_break_duration_f(w, s.break_duration);
    return ok && w.putBits<16>(s.unique_program_id) && w.putBits<8>(s.avail_num) && w.putBits<8>(s.avails_expected);
}

bool splice_info_section::put_splice_schedule_f(BSWriter& w, const splice_schedule_t& s)
{
    bool ok = w.putBits<8>(s.splice_event.size());
    for (const auto& kv : s.splice_event) {
        if (!kv.second)
            return false;
        const splice_event_t& e = *kv.second;
        ok = ok && w.putBits<32>(kv.first) && w.putBits<1>(e.splice_event_cancel_indicator) &&
             w.putBits<7>(e.reserved);
        if (e.splice_event_cancel_indicator)
            continue;
        ok = ok && w.putBits<1>(e.out_of_network_indicator) && w.putBits<1>(e.program_splice_flag) &&
             w.putBits<1>(e.duration_flag) && w.putBits<5>(e.reserved1);
        if (e.program_splice_flag) {
            ok = ok && w.putBits<32>(e.utc_splice_time);
        } else {
            ok = ok && w.putBits<8>(e.components.size());
            for (const auto& c : e.components)
                ok = ok && w.putBits<8>(c.first) && w.putBits<32>(c.second ? c.second->utc_splice_time : 0);
        }
        if (e.duration_flag)
            ok = ok && put_break_duration_f(w, e.break_duration);
        ok = ok && w.putBits<16>(e.unique_program_id) && w.putBits<8>(e.avail_num) && w.putBits<8>(e.avails_expected);
    }
    return ok;
}

bool splice_info_section::put_private_command_f(BSWriter& w, const private_command_t& p)
{
    return w.putBits<32>(p.identifier) && w.putBytes(p.private_bytes.get(), p.private_bytes ? p.private_length : 0);
}

bool splice_info_section::put_command_f(BSWriter& w) const
{
    switch (splice_command_type) {
    case splice_schedule_command_type:
        return command<splice_schedule_t>() ? put_splice_schedule_f(w, *command<splice_schedule_t>()) : false;
    case splice_insert_command_type:
        return command<splice_insert_t>() ? put_splice_insert_f(w, *command<splice_insert_t>()) : false;
    case time_signal_command_type:
        return command<time_signal_t>() ? put_splice_time_f(w, *command<time_signal_t>()) : false;
    case private_command_command_type:
        return command<private_command_t>() ? put_private_command_f(w, *command<private_command_t>()) : false;
    default:
        return true; // no body
    }
}

uint16_t splice_info_section::calc_command_length() const
{
    static constexpr size_t kMaxCommand = 4096;
    std::unique_ptr<unsigned char[]> scratch(new unsigned char[kMaxCommand]);
    BSWriter w(scratch.get(), kMaxCommand);
    if (!put_command_f(w) || !w.flush())
        return 0;
    return static_cast<uint16_t>(w.m_writeByte);
}

uint16_t splice_info_section::calc_section_length() const
{
    return static_cast<uint16_t>(splice_command_length + descriptors.getSize() + kFixedSectionBytes);
}

bool splice_info_section::write(unsigned char* data, size_t length)
{
    if (!data || length == 0)
        return false;
    BSWriter w(data, length);
    return write(w) && w.flush();
}

bool splice_info_section::write(BSWriter& w)
{
    // This system never produces encrypted sections, and the CRC can only be run over
    // a section that starts on a byte.
    if (encrypted_packet || (w.m_sizeCache & 7u) != 0)
        return false;
    for (auto& d : descriptors.descriptor)
        if (!d || !d->update_length())
            return false;
    splice_command_length = calc_command_length();
    descriptor_loop_length = descriptors.getSize();
    section_length = calc_section_length();
    if (section_length > kMaxSectionLength || section_length + 3u > 4096u)
        return false;
    if (!w.flush())
        return false;
    const size_t startOffset = w.m_writeByte;

    bool ok = CBaseMpegTable::write(w) && w.putBits<8>(protocol_version) && w.putBits<1>(encrypted_packet) &&
              w.putBits<6>(encryption_algorithm) && w.putBits<33>(pts_adjustment) && w.putBits<8>(cw_index) &&
              w.putBits<12>(reserved1) && w.putBits<12>(splice_command_length) &&
              w.putBits<8>(splice_command_type) && put_command_f(w) && w.putBits<16>(descriptor_loop_length) &&
              descriptors.write(w) && w.flush();
    if (!ok)
        return false;
    CRC_32 = mpeg2_crc32(w.begin() + startOffset, w.m_writeByte - startOffset);
    return w.putBits<32>(CRC_32);
}

void splice_info_section::copyTo(splice_info_section* dst) const
{
    if (!dst || dst == this)
        return;
    dst->table_id = table_id;
    dst->section_syntax_indicator = section_syntax_indicator;
    dst->zero = zero;
    dst->reserved = reserved;
    dst->section_length = section_length;
    dst->protocol_version = protocol_version;
    dst->encrypted_packet = encrypted_packet;
    dst->encryption_algorithm = encryption_algorithm;
    dst->pts_adjustment = pts_adjustment;
    dst->cw_index = cw_index;
    dst->reserved1 = reserved1;
    dst->splice_command_length = splice_command_length;
    dst->descriptor_loop_length = descriptor_loop_length;
    dst->alignment_stuffing = alignment_stuffing;
    dst->E_CRC_32 = E_CRC_32;
    dst->CRC_32 = CRC_32;
    dst->set_command_type(splice_command_type);

    if (auto* s = command<splice_schedule_t>()) {
        auto& d = dst->set_command<splice_schedule_t>();
        d.splice_count = s->splice_count;
        for (const auto& kv : s->splice_event) {
            if (!kv.second)
                continue;
            auto e = std::make_shared<splice_event_t>(*kv.second);
            for (auto& c : e->components)
                c.second = c.second ? std::make_shared<component_t>(*c.second) : nullptr;
            d.splice_event[kv.first] = e;
        }
    } else if (auto* i = command<splice_insert_t>()) {
        auto& d = dst->set_command<splice_insert_t>();
        d = *i;
        for (auto& c : d.components)
            c.second = c.second ? std::make_shared<component_insert_t>(*c.second) : nullptr;
    } else if (auto* t = command<time_signal_t>()) {
        dst->set_command<time_signal_t>() = *t;
    } else if (auto* p = command<private_command_t>()) {
        auto& d = dst->set_command<private_command_t>();
        d.identifier = p->identifier;
        d.private_length = p->private_length;
        if (p->private_bytes) {
            d.private_bytes.reset(new uint8_t[p->private_length ? p->private_length : 1]);
            std::memcpy(d.private_bytes.get(), p->private_bytes.get(), p->private_length);
        }
    }
    descriptors.copyTo(dst->descriptors);
}

} // namespace mpegcore
