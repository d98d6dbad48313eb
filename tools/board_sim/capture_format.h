// What the simulated board sent out for one buffer, and the capture file that
// holds a sequence of them. Shared by the simulator (writer), the inspector
// (reader) and tests.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qvboardsim {

// File layout (all little endian):
//   header : "QVBSCAP1", u32 version, u32 kind (0 single plane, 1 multi plane),
//            u32 width, u32 height, u32 interlaced, u32 rate_num, u32 rate_den,
//            u32 summary_only, u32 path length, path bytes
//   records: u32 "FRME", u32 body size, body (see capture_writer.cpp)
// The body carries the frame header, checksums and audio peaks always, and
// the picture, VBI and audio payloads unless the file is summary only.
constexpr char kCaptureMagic[9] = "QVBSCAP1";
constexpr uint32_t kCaptureVersion = 1;
constexpr uint32_t kRecordMagic = 0x454d5246; // "FRME"
constexpr int kMaxAudioChannels = 16;

struct CaptureHeader {
    uint32_t kind = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    bool interlaced = false;
    uint32_t rate_num = 0;
    uint32_t rate_den = 1;
    bool summary_only = false;
    std::string path;
};

struct CapturedFrame {
    uint64_t index = 0;    // frame (or field) slot since stream start
    uint32_t sequence = 0; // sequence number returned to the client
    uint32_t field = 0;    // V4L2 field of the buffer
    uint32_t flags = 0;    // V4L2 buffer flags as queued (plus ERROR when injected)
    // Time code as queued (valid when flags hold V4L2_BUF_FLAG_TIMECODE).
    uint32_t tc_type = 0, tc_flags = 0;
    uint8_t tc_frames = 0, tc_seconds = 0, tc_minutes = 0, tc_hours = 0;
    uint32_t hw_time = 0; // 148.5 MHz hardware time of the slot
    uint64_t sys_ns = 0;  // steady-clock time of the slot

    // Picture: 8-bit UYVY, `pic_lines` lines of `pic_width` pixels (a field
    // buffer carries half the lines).
    uint32_t pic_width = 0, pic_lines = 0;
    uint32_t pic_crc = 0;
    std::vector<uint8_t> picture;

    // VBI/VANC lines as 16-bit samples (10 significant bits), UYVY order.
    uint32_t vbi_lines = 0, vbi_samples = 0;
    uint32_t vbi_crc = 0;
    std::vector<uint16_t> vbi;

    // Embedded audio: 32-bit words, the 24-bit sample in bits 0-23.
    uint32_t audio_channels = 0, audio_samples = 0;
    uint32_t audio_crc = 0;
    uint32_t audio_peak[kMaxAudioChannels] = {}; // largest |sample| per channel (24-bit scale)
    std::vector<uint32_t> audio;

    bool has_payload = false;
};

// Sign-extends the 24-bit sample of an embedded-audio word.
inline int32_t audio_word_to_sample(uint32_t w)
{
    int32_t v = static_cast<int32_t>(w & 0xFFFFFFu);
    return (v & 0x800000) ? v - 0x1000000 : v;
}

void compute_summary(CapturedFrame& f); // fills the checksums and peaks from the payloads
uint32_t picture_crc(const uint8_t* p, size_t n); // the checksum compute_summary uses

class CaptureWriter {
public:
    CaptureWriter() = default;
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    bool open(const std::string& file, const CaptureHeader& header);
    bool write(const CapturedFrame& frame); // writes the payload unless summary only
    void flush();
    void close();
    bool is_open() const { return m_pFile != nullptr; }

private:
    FILE* m_pFile = nullptr;
    bool m_bSummary = false;
};

class CaptureReader {
public:
    CaptureReader() = default;
    ~CaptureReader();
    CaptureReader(const CaptureReader&) = delete;
    CaptureReader& operator=(const CaptureReader&) = delete;

    bool open(const std::string& file); // reads and checks the header
    const CaptureHeader& header() const { return m_header; }
    // Next record; false at the end or on a damaged record (error() tells).
    bool next(CapturedFrame& frame);
    const std::string& error() const { return m_strError; }

private:
    FILE* m_pFile = nullptr;
    CaptureHeader m_header;
    std::string m_strError;
};

} // namespace qvboardsim
