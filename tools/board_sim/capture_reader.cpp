// Capture file reader: the counterpart of capture_writer.cpp, with every
// length checked against the record so a damaged file cannot overrun.
#include <cstring>

#include "capture_format.h"

namespace qvboardsim {

namespace {

constexpr uint32_t kMaxRecord = 256u << 20; // a 2160p frame with VANC and audio is ~17 MB

struct In {
    const uint8_t* p;
    size_t n;
    size_t pos = 0;
    bool ok = true;
    bool need(size_t k)
    {
        if (!ok || n - pos < k)
            ok = false;
        return ok;
    }
    uint8_t u8()
    {
        if (!need(1))
            return 0;
        return p[pos++];
    }
    uint32_t u32()
    {
        if (!need(4))
            return 0;
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= uint32_t(p[pos + i]) << (8 * i);
        pos += 4;
        return v;
    }
    uint64_t u64()
    {
        uint64_t lo = u32();
        uint64_t hi = u32();
        return lo | (hi << 32);
    }
};

bool read_exact(FILE* f, void* p, size_t n) { return std::fread(p, 1, n, f) == n; }

uint32_t le32(const uint8_t* b)
{
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

} // namespace

CaptureReader::~CaptureReader()
{
    if (m_pFile)
        std::fclose(m_pFile);
}

bool CaptureReader::open(const std::string& file)
{
    if (m_pFile)
        std::fclose(m_pFile);
    m_pFile = std::fopen(file.c_str(), "rb");
    if (!m_pFile) {
        m_strError = "cannot open " + file;
        return false;
    }
    uint8_t h[44];
    if (!read_exact(m_pFile, h, 44) || std::memcmp(h, kCaptureMagic, 8) != 0) {
        m_strError = "not a capture file";
        return false;
    }
    if (le32(h + 8) != kCaptureVersion) {
        m_strError = "unsupported capture version";
        return false;
    }
    m_header.kind = le32(h + 12);
    m_header.width = le32(h + 16);
    m_header.height = le32(h + 20);
    m_header.interlaced = le32(h + 24) != 0;
    m_header.rate_num = le32(h + 28);
    m_header.rate_den = le32(h + 32);
    m_header.summary_only = le32(h + 36) != 0;
    uint32_t plen = le32(h + 40);
    std::string path(plen, '\0');
    if (plen > 4096 || !read_exact(m_pFile, path.data(), plen)) {
        m_strError = "damaged header";
        return false;
    }
    m_header.path = path;
    return true;
}

bool CaptureReader::next(CapturedFrame& f)
{
    m_strError.clear();
    if (!m_pFile)
        return false;
    uint8_t head[8];
    size_t got = std::fread(head, 1, 8, m_pFile);
    if (got == 0)
        return false; // clean end
    if (got != 8 || le32(head) != kRecordMagic) {
        m_strError = "damaged record header";
        return false;
    }
    uint32_t size = le32(head + 4);
    if (size > kMaxRecord) {
        m_strError = "record too large";
        return false;
    }
    std::vector<uint8_t> body(size);
    if (!read_exact(m_pFile, body.data(), size)) {
        m_strError = "truncated record";
        return false;
    }
    In in{body.data(), body.size()};
    f = CapturedFrame{};
    f.index = in.u64();
    f.sequence = in.u32();
    f.field = in.u32();
    f.flags = in.u32();
    f.tc_type = in.u32();
    f.tc_flags = in.u32();
    f.tc_frames = in.u8();
    f.tc_seconds = in.u8();
    f.tc_minutes = in.u8();
    f.tc_hours = in.u8();
    f.hw_time = in.u32();
    f.sys_ns = in.u64();
    f.pic_width = in.u32();
    f.pic_lines = in.u32();
    f.pic_crc = in.u32();
    f.vbi_lines = in.u32();
    f.vbi_samples = in.u32();
    f.vbi_crc = in.u32();
    f.audio_channels = in.u32();
    f.audio_samples = in.u32();
    f.audio_crc = in.u32();
    for (uint32_t& p : f.audio_peak)
        p = in.u32();
    f.has_payload = in.u32() != 0;
    if (f.has_payload) {
        uint32_t n = in.u32();
        if (in.need(n)) {
            f.picture.assign(body.data() + in.pos, body.data() + in.pos + n);
            in.pos += n;
        }
        n = in.u32();
        if (in.need(size_t(n) * 2)) {
            f.vbi.resize(n);
            for (uint32_t i = 0; i < n; ++i)
                f.vbi[i] = static_cast<uint16_t>(body[in.pos + 2 * i] | body[in.pos + 2 * i + 1] << 8);
            in.pos += size_t(n) * 2;
        }
        n = in.u32();
        if (in.need(size_t(n) * 4)) {
            f.audio.resize(n);
            for (uint32_t i = 0; i < n; ++i)
                f.audio[i] = le32(body.data() + in.pos + 4 * i);
            in.pos += size_t(n) * 4;
        }
    }
    if (!in.ok) {
        m_strError = "damaged record body";
        return false;
    }
    return true;
}

} // namespace qvboardsim
