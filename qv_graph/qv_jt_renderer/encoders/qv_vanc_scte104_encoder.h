// SCTE-104 messages into SMPTE 2010 ancillary packets (DID 0x41, SDID 0x07), laid into
// 8-bit UYVY lines and converted to the 10-bit samples of the output's VANC/VBI area.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

class qv_vanc_scte104_encoder {
public:
    // One line's packet: the 8-bit line buffer and the number of ANC words in it.
    using packet = std::pair<uint8_t*, size_t>;

    static constexpr uint8_t kDID = 0x41;
    static constexpr uint8_t kSDID = 0x07;
    static constexpr size_t kMaxPayload = 254;      // message bytes in one packet
    static constexpr size_t kPacketOverhead = 8;    // ADF(3) DID SDID DC descriptor checksum
    static constexpr size_t kMaxPacketWords = kMaxPayload + kPacketOverhead;
    static constexpr size_t kMaxMessage = 2000;     // longest message ever placed

    qv_vanc_scte104_encoder() = default;

    // isSD: packets use every sample (SD) or the luma samples only (HD);
    // lineCount: lines one message may use; width: line width in pixels.
    void init(bool isSD, size_t lineCount, size_t width);

    // Splits the message into packets, one per line. lineLength is the line length in
    // 8-bit samples. Empty when the message cannot be placed.
    std::vector<packet> encoder(const uint8_t* pMessage, size_t nSize, size_t lineLength);

    // 8-bit black (0x80, 0x10) over nBytes, two at a time; a final odd byte is left.
    static void fill(uint8_t* pLine, size_t nBytes);

    // 8-bit line into 16-bit samples over m_vbiDX pixels; always true.
    bool convert(const uint8_t* pLine, size_t nLineSize, uint16_t* pDst, size_t nDstSize) const;
    bool convert(const packet& p, uint16_t* pDst, size_t nDstSize) const
    {
        return convert(p.first, p.second, pDst, nDstSize);
    }

    // Prints, once per line until the next init, that a configured line lies
    // outside the nLines lines of the output's first-field VBI/VANC area.
    void report_line_outside(uint32_t nLine, size_t nLines);

    bool m_isSD = true;
    size_t m_nLineCount = 0;
    size_t m_vbiDX = 0;
    std::vector<std::unique_ptr<uint8_t[]>> m_vLine;
    std::vector<uint32_t> m_vReported; // lines already reported outside the area
};
