// Capture of what the board sends: for each sent buffer the picture, the
// VBI/VANC lines (unpacked to 16-bit samples), the embedded audio, the time
// code and the flags, kept in memory for tests and/or written to a file.
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

bool wanted(const CaptureConfig& c, uint64_t frame)
{
    if (frame < c.first || frame > c.last)
        return false;
    unsigned every = c.every ? c.every : 1;
    return (frame - c.first) % every == 0;
}

// Packed 10-bit UYVY: four samples in five bytes, little endian.
void unpack10(const uint8_t* src, size_t groups, uint16_t* dst)
{
    for (size_t g = 0; g < groups; ++g, src += 5, dst += 4) {
        uint32_t w = uint32_t(src[0]) | uint32_t(src[1]) << 8 | uint32_t(src[2]) << 16 |
                     uint32_t(src[3]) << 24;
        dst[0] = static_cast<uint16_t>(w & 0x3FF);
        dst[1] = static_cast<uint16_t>((w >> 10) & 0x3FF);
        dst[2] = static_cast<uint16_t>((w >> 20) & 0x3FF);
        dst[3] = static_cast<uint16_t>((w >> 30) | (uint32_t(src[4]) << 2));
    }
}

void open_writer(Board& b)
{
    b.writer_tried = true;
    CaptureHeader h;
    h.kind = b.cfg.kind == NodeKind::multi_plane ? 1 : 0;
    h.width = b.timing.bt.width;
    h.height = b.timing.bt.height;
    h.interlaced = b.interlaced();
    uint64_t num = 0, den = 1;
    frame_rate(b.timing.bt, num, den);
    reduce_fraction(num, den);
    h.rate_num = static_cast<uint32_t>(num);
    h.rate_den = static_cast<uint32_t>(den);
    h.summary_only = b.cfg.capture.summary;
    h.path = b.cfg.video_path;
    b.writer.open(b.cfg.capture.file, h);
}

} // namespace

void capture_frame(Board& b, Node& video, SimBuffer& vb, Node* vbi, SimBuffer* vbib, uint64_t k,
                   int64_t slot_ns, uint32_t hw)
{
    const CaptureConfig& c = b.cfg.capture;
    if (!c.memory && c.file.empty())
        return;
    const bool fields = video.kind == Node::mplane && b.interlaced();
    if (!wanted(c, fields ? k / 2 : k))
        return;
    const v4l2_bt_timings& bt = b.timing.bt;
    CapturedFrame f;
    f.index = k;
    f.sequence = vb.info.sequence;
    f.field = vb.info.field;
    f.flags = vb.info.flags & ~(V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_MAPPED);
    if (f.flags & V4L2_BUF_FLAG_TIMECODE) {
        f.tc_type = vb.info.timecode.type;
        f.tc_flags = vb.info.timecode.flags;
        f.tc_frames = vb.info.timecode.frames;
        f.tc_seconds = vb.info.timecode.seconds;
        f.tc_minutes = vb.info.timecode.minutes;
        f.tc_hours = vb.info.timecode.hours;
    }
    f.hw_time = hw;
    f.sys_ns = static_cast<uint64_t>(slot_ns);
    f.pic_width = bt.width;
    const uint8_t* mem = video.q.mem;
    const size_t line = size_t(bt.width) * 2;
    const uint8_t* pic_src = nullptr;
    size_t pic_len = 0;
    if (video.kind == Node::mplane) {
        const int fi = vb.info.field == V4L2_FIELD_BOTTOM ? 1 : 0;
        const size_t vbi_bytes = mplane_vbi_bytes(b, fi);
        const uint8_t* p0 = mem + vb.offset[0];
        f.pic_lines = mplane_picture_lines(b, fi);
        size_t pic = line * f.pic_lines;
        if (vbi_bytes + pic <= vb.length[0]) {
            pic_src = p0 + vbi_bytes;
            pic_len = pic;
        }
        f.vbi_lines = vbi_lines(bt, fi);
        f.vbi_samples = bt.width * 2;
        size_t groups = size_t(f.vbi_lines) * f.vbi_samples / 4;
        if (groups * 5 <= vb.length[0]) {
            f.vbi.resize(groups * 4);
            unpack10(p0, groups, f.vbi.data());
        }
        f.audio_channels = b.audio_channels();
        size_t used = vb.planes[1].bytesused;
        if (used > vb.length[1])
            used = vb.length[1];
        f.audio_samples = static_cast<uint32_t>(used / (4 * f.audio_channels));
        f.audio.resize(size_t(f.audio_samples) * f.audio_channels);
        if (!f.audio.empty())
            std::memcpy(f.audio.data(), mem + vb.offset[1], f.audio.size() * 4);
    } else {
        f.pic_lines = bt.height;
        size_t pic = line * bt.height;
        if (pic <= vb.length[0]) {
            pic_src = mem + vb.offset[0];
            pic_len = pic;
        }
        if (vbi && vbib) {
            f.vbi_samples = bt.width * 2;
            f.vbi_lines = vbi_lines(bt, 0) + vbi_lines(bt, 1);
            size_t n = size_t(f.vbi_lines) * f.vbi_samples;
            if (n * 2 <= vbib->length[0]) {
                f.vbi.resize(n);
                std::memcpy(f.vbi.data(), vbi->q.mem + vbib->offset[0], n * 2);
            }
        }
    }
    // The picture is by far the largest part: a summary-only capture checks
    // it in place instead of copying it (a 2160p60 picture is 1 GB/s).
    if (!c.summary && pic_src)
        f.picture.assign(pic_src, pic_src + pic_len);
    f.has_payload = true;
    compute_summary(f);
    if (c.summary)
        f.pic_crc = picture_crc(pic_src, pic_len);
    if (!c.file.empty()) {
        if (!b.writer_tried)
            open_writer(b);
        b.writer.write(f);
    }
    if (c.memory) {
        if (c.summary) {
            f.picture.clear();
            f.vbi.clear();
            f.audio.clear();
            f.has_payload = false;
        }
        b.memory.push_back(std::move(f));
        while (b.memory.size() > c.memory_limit)
            b.memory.pop_front();
    }
}

} // namespace qvboardsim
