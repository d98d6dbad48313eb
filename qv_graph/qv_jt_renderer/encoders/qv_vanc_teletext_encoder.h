// Teletext into the output's ancillary lines.
//
// Input is the PES data field of DVB teletext: an optional data_identifier
// byte followed by 46-byte data units (id 0x02 / 0x03, length 0x2C, field
// parity and line offset, framing code, 42 bytes), bits in transmission order.
// HD: each packet goes out as an OP-47 subtitling data packet (ANC DID 0x43,
// SDID 0x02) on a VANC line chosen from the configured line mask, with the
// original line number in its descriptor. SD: each packet is drawn as a
// teletext system B waveform (6.9375 Mbit/s) in the luma samples of its own
// VBI line, if that line is enabled in the mask.
#pragma once

#include <cstddef>
#include <cstdint>

class qv_vanc_teletext_encoder {
public:
    static constexpr int kMaxLines = 32;
    static constexpr size_t kUnitSize = 46;   // data unit: id, length, 44 bytes
    static constexpr size_t kPacketBytes = 42; // teletext packet after the framing code

    // nLineMask: bit (L - 1) % 32 enables VBI/VANC line L.
    void init(uint32_t nLineMask, bool isProgressive, bool isHD, int nWidth);
    void release();

    // Parses one frame's teletext; returns the number of lines prepared (0 when none).
    int next_data(const uint8_t* pData, size_t nSize);
    // Field (true for the first) and line (from 1) of prepared line i; false if it has none.
    bool get_line_info(int i, bool& bFirstField, int& nLine) const;
    // Writes prepared line i as 16-bit 4:2:2 samples (chroma, luma, ...) of a whole
    // line; a null target writes nothing.
    void encode_line(int i, uint16_t* pTarget);

private:
    struct line {
        bool bFirstField = true;
        int nLine = 0;         // where the line goes out
        int nSourceLine = 0;   // line the packet was meant for (OP-47 descriptor)
        uint8_t packet[kPacketBytes] = {}; // in teletext byte order (LSB sent first)
    };

    bool line_enabled(int nLine) const { return nLine > 0 && (m_nLineMask >> ((nLine - 1) % 32)) & 1u; }
    int next_free_line(bool bFirstField, int nFrom) const;
    void encode_op47(const line& l, uint16_t* pTarget);
    void encode_waveform(const line& l, uint16_t* pTarget) const;

    uint32_t m_nLineMask = 0;
    bool m_bProgressive = false;
    bool m_bHD = false;
    int m_nWidth = 0;
    uint16_t m_nSequence = 0; // OP-47 footer counter
    int m_nLines = 0;
    line m_lines[kMaxLines];
};
