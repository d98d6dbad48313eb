// qvboardsim-inspect: prints a board simulator capture frame by frame
// (sequence, time code, flags, ANC packets of the VBI/VANC lines with parity
// and checksum checked, captions and AFD decoded, embedded audio peaks,
// checksums) and writes a chosen frame to PNG.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <linux/videodev2.h>

#include "anc_decode.h"
#include "capture_format.h"
#include "cdp_decode.h"
#include "png_writer.h"
#include "vanc_text_decode.h"

using namespace qvboardsim;

namespace {

void usage()
{
    std::fprintf(stderr,
                 "usage: qvboardsim-inspect [--anc] [--range A-B] [--png SEQ FILE] CAPTURE\n"
                 "  --anc          list every ANC packet found in the VBI/VANC lines, with\n"
                 "                 captions (CEA-708 cdp), AFD/bar data, SCTE-104 and OP-47\n"
                 "                 teletext decoded\n"
                 "  --range A-B    print only records whose frame index is in A..B\n"
                 "  --png SEQ FILE write the frame with sequence number SEQ to a PNG file\n"
                 "                 (the two field buffers of an interlaced frame are woven)\n");
}

const char* field_name(uint32_t f)
{
    switch (f) {
    case V4L2_FIELD_NONE:
        return "progressive";
    case V4L2_FIELD_TOP:
        return "top";
    case V4L2_FIELD_BOTTOM:
        return "bottom";
    case V4L2_FIELD_INTERLACED:
        return "interlaced";
    default:
        return "other";
    }
}

std::string peak_db(uint32_t peak)
{
    if (peak == 0)
        return "-inf";
    char buf[16];
    std::snprintf(buf, sizeof buf, "%.1f", 20.0 * std::log10(double(peak) / 8388608.0));
    return buf;
}

struct PngJob {
    bool wanted = false;
    uint32_t sequence = 0;
    std::string file;
    std::vector<uint8_t> frame; // woven picture
    uint32_t width = 0, lines = 0;
    bool have_top = false, have_bottom = false, done = false;
};

void collect_png(const CaptureHeader& h, const CapturedFrame& f, PngJob& job)
{
    if (!job.wanted || job.done || f.sequence != job.sequence || f.picture.empty())
        return;
    const size_t stride = size_t(f.pic_width) * 2;
    if (f.field != V4L2_FIELD_TOP && f.field != V4L2_FIELD_BOTTOM) {
        job.frame = f.picture;
        job.width = f.pic_width;
        job.lines = f.pic_lines;
        job.done = true;
        return;
    }
    if (job.frame.empty()) {
        job.width = f.pic_width;
        job.lines = h.height;
        job.frame.assign(stride * h.height, 0);
    }
    const bool bottom = f.field == V4L2_FIELD_BOTTOM;
    for (uint32_t y = 0; y < f.pic_lines; ++y) {
        uint32_t dst = 2 * y + (bottom ? 1 : 0);
        if (dst < job.lines)
            std::memcpy(job.frame.data() + dst * stride, f.picture.data() + y * stride, stride);
    }
    (bottom ? job.have_bottom : job.have_top) = true;
    job.done = job.have_top && job.have_bottom;
}

// What a caption, AFD, SCTE-104 or OP-47 packet says, on the line after the packet's own.
void print_decoded(const AncPacket& p)
{
    if (p.did == 0x61 && p.sdid == 0x01) {
        const CdpInfo c = decode_cdp(p.udw);
        if (!c.ok) {
            std::printf("      cdp BAD (%s)\n", c.error.c_str());
            return;
        }
        unsigned data = 0;
        for (const auto& t : c.cc)
            data += (t[0] & 0x04) ? 1 : 0;
        std::printf("      cdp seq=%u rate=%u cc_count=%u valid=%u", c.sequence, c.rate_code, c.cc_count, data);
        const std::string f1 = cea608_text(c.cc, 0), f2 = cea608_text(c.cc, 1);
        if (!f1.empty())
            std::printf(" cc1=\"%s\"", f1.c_str());
        if (!f2.empty())
            std::printf(" field2=\"%s\"", f2.c_str());
        std::printf("\n");
    } else if ((p.did == 0x41 && p.sdid == 0x07) || (p.did == 0x43 && p.sdid == 0x02)) {
        for (const std::string& line : p.did == 0x41 ? describe_scte104(p.udw) : describe_op47(p.udw))
            std::printf("      %s\n", line.c_str());
    } else if (p.did == 0x41 && p.sdid == 0x05) {
        const AfdInfo a = decode_afd(p.udw);
        if (!a.ok) {
            std::printf("      afd BAD (%zu words)\n", p.udw.size());
            return;
        }
        std::printf("      afd=%u %s", a.afd, a.wide ? "16:9" : "4:3");
        if (a.bar_flags == 0xC)
            std::printf(" bars top..%u bottom %u..", a.bar1, a.bar2);
        else if (a.bar_flags == 0x3)
            std::printf(" bars left..%u right %u..", a.bar1, a.bar2);
        else if (a.bar_flags)
            std::printf(" bar flags 0x%x", a.bar_flags);
        std::printf("\n");
    }
}

} // namespace

int main(int argc, char** argv)
{
    bool list_anc = false;
    uint64_t first = 0, last = UINT64_MAX;
    PngJob png;
    std::string file;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--anc") {
            list_anc = true;
        } else if (a == "--range" && i + 1 < argc) {
            unsigned long long x = 0, y = UINT64_MAX;
            if (std::sscanf(argv[++i], "%llu-%llu", &x, &y) < 1) {
                usage();
                return 2;
            }
            first = x;
            last = y;
        } else if (a == "--png" && i + 2 < argc) {
            png.wanted = true;
            png.sequence = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
            png.file = argv[++i];
        } else if (a == "-h" || a == "--help") {
            usage();
            return 0;
        } else if (file.empty() && a[0] != '-') {
            file = a;
        } else {
            usage();
            return 2;
        }
    }
    if (file.empty()) {
        usage();
        return 2;
    }
    CaptureReader reader;
    if (!reader.open(file)) {
        std::fprintf(stderr, "qvboardsim-inspect: %s\n", reader.error().c_str());
        return 1;
    }
    const CaptureHeader& h = reader.header();
    std::printf("capture of %s: %s, %ux%u%s, %u/%u frames/s%s\n", h.path.c_str(),
                h.kind ? "multi-plane" : "single-plane", h.width, h.height,
                h.interlaced ? "i" : "p", h.rate_num, h.rate_den,
                h.summary_only ? ", summary only" : "");
    const bool hd = h.width >= 1280;
    CapturedFrame f;
    uint64_t records = 0, bad_packets = 0;
    while (reader.next(f)) {
        ++records;
        collect_png(h, f, png);
        if (f.index < first || f.index > last)
            continue;
        std::printf("#%llu seq=%u field=%s flags=0x%05x", static_cast<unsigned long long>(f.index),
                    f.sequence, field_name(f.field), f.flags);
        if (f.flags & V4L2_BUF_FLAG_TIMECODE)
            std::printf(" tc=%02u:%02u:%02u%c%02u", f.tc_hours, f.tc_minutes, f.tc_seconds,
                        (f.tc_flags & V4L2_TC_FLAG_DROPFRAME) ? ';' : ':', f.tc_frames);
        else
            std::printf(" tc=none");
        if (f.flags & V4L2_BUF_FLAG_ERROR)
            std::printf(" ERROR");
        std::printf(" pic=%08x", f.pic_crc);
        std::vector<AncPacket> packets;
        if (!f.vbi.empty() && f.vbi_samples) {
            for (uint32_t l = 0; l < f.vbi_lines; ++l) {
                auto p = find_anc(f.vbi.data() + size_t(l) * f.vbi_samples, f.vbi_samples, l, hd);
                packets.insert(packets.end(), p.begin(), p.end());
            }
        }
        size_t bad = 0;
        for (const AncPacket& p : packets)
            bad += (!p.parity_ok || !p.checksum_ok || p.truncated) ? 1 : 0;
        bad_packets += bad;
        std::printf(" vbi=%08x", f.vbi_crc);
        if (f.has_payload)
            std::printf(" anc=%zu", packets.size());
        if (bad)
            std::printf(" anc_bad=%zu", bad);
        if (f.audio_channels) {
            std::printf(" audio=%ux%u peaks=", f.audio_channels, f.audio_samples);
            for (uint32_t c = 0; c < f.audio_channels && c < kMaxAudioChannels; ++c)
                std::printf("%s%s", c ? "," : "", peak_db(f.audio_peak[c]).c_str());
        }
        std::printf("\n");
        if (list_anc) {
            for (const AncPacket& p : packets) {
                std::printf("    line %u %s DID=0x%02x SDID=0x%02x DC=%u parity=%s checksum=%s%s\n",
                            p.line, p.stream == 1 ? "Y" : (p.stream == 2 ? "C" : "YC"), p.did,
                            p.sdid, p.dc, p.parity_ok ? "ok" : "BAD", p.checksum_ok ? "ok" : "BAD",
                            p.truncated ? " TRUNCATED" : "");
                if (p.checksum_ok && !p.truncated)
                    print_decoded(p);
            }
        }
    }
    if (!reader.error().empty()) {
        std::fprintf(stderr, "qvboardsim-inspect: record %llu: %s\n",
                     static_cast<unsigned long long>(records), reader.error().c_str());
        return 1;
    }
    std::printf("%llu records, %llu bad ANC packets\n", static_cast<unsigned long long>(records),
                static_cast<unsigned long long>(bad_packets));
    if (png.wanted) {
        if (png.frame.empty()) {
            std::fprintf(stderr, "qvboardsim-inspect: no picture for sequence %u\n", png.sequence);
            return 1;
        }
        if (!write_png_uyvy(png.file, png.frame.data(), png.width, png.lines,
                            size_t(png.width) * 2, hd)) {
            std::fprintf(stderr, "qvboardsim-inspect: cannot write %s\n", png.file.c_str());
            return 1;
        }
    }
    return bad_packets ? 3 : 0;
}
