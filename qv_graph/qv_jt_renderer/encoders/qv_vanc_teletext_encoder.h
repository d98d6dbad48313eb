// Teletext into the output's ancillary lines.
//
// Input is the PES data field of DVB teletext: an optional data_identifier
// byte followed by 46-byte data units (id 0x02 / 0x03, length 0x2C, field
// parity and line offset, framing code, 42 bytes), bits in transmission order.
// HD: the packets go out in OP-47 subtitling data packets (ANC DID 0x43,
// SDID 0x02), up to five each, one per VANC line chosen from the configured
// line mask (a field's packets in its own field's VANC when there is room),
// each with its field and original line in its descriptor. SD: each packet is
// drawn as a teletext system B waveform (6.9375 Mbit/s) in the luma samples of
// its own VBI line, if that line is enabled in the mask. Packets that find no
// line are counted, never written out of place.
#pragma once

#include <cstddef>
#include <cstdint>

class qv_vanc_teletext_encoder {
public:
    static constexpr int kMaxPackets = 64;   // teletext packets taken from one frame's data
    static constexpr int kMaxLines = 64;     // lines prepared for one frame
    static constexpr int kPacketsPerSdp = 5; // teletext packets in one OP-47 subtitling data packet
    static constexpr size_t kUnitSize = 46;   // data unit: id, length, 44 bytes
    static constexpr size_t kPacketBytes = 42; // teletext packet after the framing code

    // nLineMask: bit (L - 1) % 32 enables VBI/VANC line L.
    void init(uint32_t nLineMask, bool isProgressive, bool isHD, int nWidth);
    void release();
    // Lines the output's VBI/VANC area has in each field; lines beyond are
    // never prepared. Until it is called, every line of the mask is taken.
    void set_area(size_t nLinesField1, size_t nLinesField2);

    // Parses one frame's teletext; returns the number of lines prepared (0 when none).
    int next_data(const uint8_t* pData, size_t nSize);
    // Field (true for the first) and line of prepared line i, counted from 1
    // within its field's VBI/VANC area; false if it has none.
    bool get_line_info(int i, bool& bFirstField, int& nLine) const;
    // Writes prepared line i as 16-bit 4:2:2 samples (chroma, luma, ...) over
    // at most nPixels pixels (the row's width); a null target writes nothing.
    void encode_line(int i, uint16_t* pTarget, size_t nPixels = SIZE_MAX);

    // Packets that found no line since init (more than the enabled lines hold).
    uint64_t dropped_packets() const { return m_nDropped; }

private:
    struct packet {
        bool bFirstField = true;
        int nSourceLine = 0;               // line the packet was meant for (OP-47 descriptor)
        uint8_t data[kPacketBytes] = {};   // in teletext byte order (LSB sent first)
    };
    struct line {
        bool bFirstField = true;
        int nLine = 0;     // where the line goes out
        int nFirst = 0;    // first of its packets in m_order
        int nPackets = 0;  // 1 in SD; up to kPacketsPerSdp in HD
    };

    bool line_enabled(int nLine) const { return nLine > 0 && (m_nLineMask >> ((nLine - 1) % 32)) & 1u; }
    bool line_in_area(bool bFirstField, int nLine) const;
    bool line_taken(bool bFirstField, int nLine) const;
    void prepare_sd();
    void prepare_hd();
    void report_outside(bool bFirstField, int nLine);
    void count_dropped(int n);
    void encode_op47(const line& l, uint16_t* pTarget, size_t nPixels);
    void encode_waveform(const packet& p, uint16_t* pTarget, size_t nPixels) const;

    uint32_t m_nLineMask = 0;
    bool m_bProgressive = false;
    bool m_bHD = false;
    int m_nWidth = 0;
    size_t m_nAreaLines[2] = {SIZE_MAX, SIZE_MAX};
    uint16_t m_nSequence = 0; // OP-47 footer counter
    uint64_t m_nDropped = 0;
    uint64_t m_nReported[2] = {0, 0}; // lines already reported outside the area, per field
    int m_nPackets = 0;
    packet m_packets[kMaxPackets];
    int m_order[kMaxPackets] = {}; // packets in the order the lines carry them
    int m_nLines = 0;
    line m_lines[kMaxLines];
};
