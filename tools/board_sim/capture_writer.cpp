// Capture file writer and the per-frame summary (checksums, audio peaks).
#include <zlib.h>

#include <cstring>

#include "capture_format.h"

namespace qvboardsim {

namespace {

struct Out {
    std::vector<uint8_t> b;
    void u8(uint8_t v) { b.push_back(v); }
    void u32(uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void u64(uint64_t v)
    {
        for (int i = 0; i < 8; ++i)
            b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void bytes(const void* p, size_t n)
    {
        const auto* c = static_cast<const uint8_t*>(p);
        b.insert(b.end(), c, c + n);
    }
};

uint32_t crc(const void* p, size_t n)
{
    uLong c = crc32(0L, Z_NULL, 0);
    const auto* b = static_cast<const Bytef*>(p);
    while (n > 0) {
        uInt chunk = n > (1u << 30) ? (1u << 30) : static_cast<uInt>(n);
        c = crc32(c, b, chunk);
        b += chunk;
        n -= chunk;
    }
    return static_cast<uint32_t>(c);
}

} // namespace

uint32_t picture_crc(const uint8_t* p, size_t n) { return crc(p, n); }

void compute_summary(CapturedFrame& f)
{
    f.pic_crc = crc(f.picture.data(), f.picture.size());
    f.vbi_crc = crc(f.vbi.data(), f.vbi.size() * 2);
    f.audio_crc = crc(f.audio.data(), f.audio.size() * 4);
    std::memset(f.audio_peak, 0, sizeof f.audio_peak);
    const uint32_t ch = f.audio_channels;
    if (ch == 0 || ch > kMaxAudioChannels)
        return;
    for (size_t i = 0; i < f.audio.size(); ++i) {
        int32_t s = audio_word_to_sample(f.audio[i]);
        uint32_t a = static_cast<uint32_t>(s < 0 ? -s : s);
        uint32_t& peak = f.audio_peak[i % ch];
        if (a > peak)
            peak = a;
    }
}

CaptureWriter::~CaptureWriter() { close(); }

bool CaptureWriter::open(const std::string& file, const CaptureHeader& h)
{
    close();
    m_pFile = std::fopen(file.c_str(), "wb");
    if (!m_pFile)
        return false;
    m_bSummary = h.summary_only;
    Out o;
    o.bytes(kCaptureMagic, 8);
    o.u32(kCaptureVersion);
    o.u32(h.kind);
    o.u32(h.width);
    o.u32(h.height);
    o.u32(h.interlaced ? 1 : 0);
    o.u32(h.rate_num);
    o.u32(h.rate_den);
    o.u32(h.summary_only ? 1 : 0);
    o.u32(static_cast<uint32_t>(h.path.size()));
    o.bytes(h.path.data(), h.path.size());
    return std::fwrite(o.b.data(), 1, o.b.size(), m_pFile) == o.b.size();
}

bool CaptureWriter::write(const CapturedFrame& f)
{
    if (!m_pFile)
        return false;
    Out o;
    o.u64(f.index);
    o.u32(f.sequence);
    o.u32(f.field);
    o.u32(f.flags);
    o.u32(f.tc_type);
    o.u32(f.tc_flags);
    o.u8(f.tc_frames);
    o.u8(f.tc_seconds);
    o.u8(f.tc_minutes);
    o.u8(f.tc_hours);
    o.u32(f.hw_time);
    o.u64(f.sys_ns);
    o.u32(f.pic_width);
    o.u32(f.pic_lines);
    o.u32(f.pic_crc);
    o.u32(f.vbi_lines);
    o.u32(f.vbi_samples);
    o.u32(f.vbi_crc);
    o.u32(f.audio_channels);
    o.u32(f.audio_samples);
    o.u32(f.audio_crc);
    for (uint32_t p : f.audio_peak)
        o.u32(p);
    const bool payload = !m_bSummary && f.has_payload;
    o.u32(payload ? 1 : 0);
    if (payload) {
        o.u32(static_cast<uint32_t>(f.picture.size()));
        o.bytes(f.picture.data(), f.picture.size());
        o.u32(static_cast<uint32_t>(f.vbi.size()));
        for (uint16_t s : f.vbi) {
            o.u8(static_cast<uint8_t>(s));
            o.u8(static_cast<uint8_t>(s >> 8));
        }
        o.u32(static_cast<uint32_t>(f.audio.size()));
        for (uint32_t w : f.audio)
            o.u32(w);
    }
    Out head;
    head.u32(kRecordMagic);
    head.u32(static_cast<uint32_t>(o.b.size()));
    return std::fwrite(head.b.data(), 1, head.b.size(), m_pFile) == head.b.size() &&
           std::fwrite(o.b.data(), 1, o.b.size(), m_pFile) == o.b.size();
}

void CaptureWriter::flush()
{
    if (m_pFile)
        std::fflush(m_pFile);
}

void CaptureWriter::close()
{
    if (m_pFile)
        std::fclose(m_pFile);
    m_pFile = nullptr;
}

} // namespace qvboardsim
