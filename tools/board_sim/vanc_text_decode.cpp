#include "vanc_text_decode.h"

#include <cstdio>

namespace qvboardsim {

namespace {

unsigned be16(const std::vector<uint8_t>& b, size_t at)
{
    return unsigned(b[at]) << 8 | b[at + 1];
}

// Hamming 8/4: the data bits are 1, 3, 5 and 7 (errors are not corrected here).
unsigned hamming84(uint8_t b)
{
    return (b >> 1 & 1) | (b >> 3 & 1) << 1 | (b >> 5 & 1) << 2 | (b >> 7 & 1) << 3;
}

} // namespace

std::vector<std::string> describe_scte104(const std::vector<uint8_t>& udw)
{
    // Payload descriptor, then a multiple_operation_message: reserved (2),
    // messageSize (2), protocol_version, AS_index, message_number,
    // DPI_PID_index (2), SCTE35_protocol_version, timestamp, num_ops, operations.
    std::vector<std::string> out;
    if (udw.size() < 13 || be16(udw, 1) != 0xFFFF)
        return {"scte104 BAD (not a multiple_operation_message)"};
    size_t at = 11;
    static const size_t kTimeBytes[] = {0, 6, 4, 2};
    const unsigned timeType = udw[at++];
    if (timeType > 3)
        return {"scte104 BAD (time type " + std::to_string(timeType) + ")"};
    at += kTimeBytes[timeType];
    if (at >= udw.size())
        return {"scte104 BAD (truncated)"};
    const unsigned ops = udw[at++];
    for (unsigned i = 0; i < ops; ++i) {
        if (at + 4 > udw.size())
            return {"scte104 BAD (truncated operation)"};
        const unsigned op = be16(udw, at), len = be16(udw, at + 2);
        at += 4;
        if (at + len > udw.size())
            return {"scte104 BAD (operation longer than the packet)"};
        char line[160];
        if (op == 0x0101 && len >= 14) {
            const uint8_t* d = udw.data() + at;
            std::snprintf(line, sizeof line,
                          "scte104 splice_request insert_type=%u event=%lu program=%u pre_roll=%ums break=%u",
                          d[0], (unsigned long)(uint32_t(d[1]) << 24 | d[2] << 16 | d[3] << 8 | d[4]),
                          unsigned(d[5] << 8 | d[6]), unsigned(d[7] << 8 | d[8]), unsigned(d[9] << 8 | d[10]));
        } else {
            std::snprintf(line, sizeof line, "scte104 op=0x%04x length=%u", op, len);
        }
        out.emplace_back(line);
        at += len;
    }
    return out;
}

std::vector<std::string> describe_op47(const std::vector<uint8_t>& udw)
{
    // Subtitling data packet: identifier 0x51 0x15, length, format code, five
    // line descriptors, then per packet run-in 0x55 0x55, framing code 0x27
    // and the 42 bytes of the teletext packet.
    std::vector<std::string> out;
    if (udw.size() < 9 || udw[0] != 0x51 || udw[1] != 0x15)
        return {"op47 BAD (not a subtitling data packet)"};
    for (size_t at = 9; at + 45 <= udw.size(); at += 45) {
        if (udw[at] != 0x55 || udw[at + 1] != 0x55 || udw[at + 2] != 0x27)
            break;
        const uint8_t* p = udw.data() + at + 3;
        const unsigned a = hamming84(p[0]), b = hamming84(p[1]);
        const unsigned mag = (a & 7) ? (a & 7) : 8;
        const unsigned row = (a >> 3) | (b << 1);
        std::string text;
        for (int i = 2; i < 42; ++i) {
            const char c = char(p[i] & 0x7F);
            text += (c >= 0x20 && c < 0x7F) ? c : ' ';
        }
        while (!text.empty() && text.back() == ' ')
            text.pop_back();
        char line[96];
        std::snprintf(line, sizeof line, "op47 teletext mag %u row %02u \"", mag, row);
        out.push_back(line + text + "\"");
    }
    return out;
}

} // namespace qvboardsim
