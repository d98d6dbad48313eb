// Reads a capture of the simulated board and prints, per record, what the
// pipeline tests check: the picture's mean luma, the teletext lines libzvbi
// decodes from the SD waveform, every ANC packet, and the embedded audio; then
// the longest silence inside the audio.
//
//   frame index=N seq=N luma=N samples=N ttx=FIELD:LINE:TEXT anc=LINE:DID:SDID:HEX ...
//   audio longest_quiet=N total=N
#include "anc_decode.h"
#include "capture_format.h"

#include <libzvbi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int mean_luma(const qvboardsim::CapturedFrame& f)
{
    // Centre quarter of the picture, luma bytes of UYVY.
    if (f.picture.empty() || f.pic_lines < 4 || f.pic_width < 4)
        return -1;
    uint64_t sum = 0;
    uint64_t n = 0;
    for (uint32_t y = f.pic_lines / 4; y < f.pic_lines * 3 / 4; ++y) {
        const uint8_t* row = f.picture.data() + static_cast<size_t>(y) * f.pic_width * 2;
        for (uint32_t x = f.pic_width / 4; x < f.pic_width * 3 / 4; ++x, ++n)
            sum += row[2 * x + 1];
    }
    return static_cast<int>((sum + n / 2) / n);
}

std::string text_of(const uint8_t* data)
{
    std::string s;
    for (int i = 2; i < 42; ++i) {
        const char c = static_cast<char>(data[i] & 0x7F);
        s += c == ' ' ? '_' : (c >= 0x21 && c < 0x7F && c != ':' ? c : '.');
    }
    return s;
}

// SD capture: a single-plane frame holds field 1's VBI lines then field 2's,
// a multi-plane record one field's, each from line 1 of its field.
void decode_teletext(const qvboardsim::CapturedFrame& f, vbi_raw_decoder& rd, std::string& out)
{
    const uint32_t nWidth = f.vbi_samples / 2;
    std::string luma(static_cast<size_t>(nWidth) * f.vbi_lines, '\0');
    for (uint32_t l = 0; l < f.vbi_lines; ++l) {
        for (uint32_t x = 0; x < nWidth; ++x)
            luma[static_cast<size_t>(l) * nWidth + x] =
                static_cast<char>(f.vbi[static_cast<size_t>(l) * f.vbi_samples + 2 * x + 1] >> 2);
    }
    vbi_sliced sliced[64];
    const int n = vbi_raw_decode(&rd, reinterpret_cast<uint8_t*>(luma.data()), sliced);
    for (int i = 0; i < n; ++i) {
        if (!(sliced[i].id & VBI_SLICED_TELETEXT_B))
            continue;
        const bool bFirst = sliced[i].line < 313;
        const unsigned line = bFirst ? sliced[i].line : sliced[i].line - 313;
        out += " ttx=" + std::to_string(bFirst ? 1 : 2) + ":" + std::to_string(line) + ":" + text_of(sliced[i].data);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: qvcap-check CAPTURE\n");
        return 2;
    }
    qvboardsim::CaptureReader reader;
    if (!reader.open(argv[1])) {
        std::fprintf(stderr, "qvcap-check: %s: %s\n", argv[1], reader.error().c_str());
        return 1;
    }
    const qvboardsim::CaptureHeader& h = reader.header();
    const bool bHD = h.height > 576;
    const bool bSingle = h.kind == 0;

    vbi_raw_decoder rd;
    vbi_raw_decoder_init(&rd);
    rd.scanning = 625;
    rd.sampling_format = VBI_PIXFMT_YUV420; // one luma byte a sample
    rd.sampling_rate = 13500000;
    rd.offset = 128;
    rd.interlaced = FALSE;
    rd.synchronous = TRUE;
    const bool bTeletext = !bHD && h.height == 576;
    uint64_t nTotal = 0;
    uint64_t nRun = 0;
    uint64_t nLongest = 0;
    bool bSound = false;
    qvboardsim::CapturedFrame f;
    while (reader.next(f)) {
        std::string line = "frame index=" + std::to_string(f.index) + " seq=" + std::to_string(f.sequence) +
                           " luma=" + std::to_string(mean_luma(f)) + " samples=" + std::to_string(f.audio_samples);
        if (bTeletext && !bSingle && !f.vbi.empty()) {
            // A multi-plane record is one field: laid out as a frame with the
            // other field's lines blank, field 1 from line 1, field 2 from its
            // half line (313).
            constexpr uint32_t kFieldLines = 24;
            if (rd.bytes_per_line == 0) {
                rd.bytes_per_line = static_cast<int>(f.vbi_samples / 2);
                rd.start[0] = 1;
                rd.count[0] = kFieldLines;
                rd.start[1] = 313;
                rd.count[1] = kFieldLines;
                vbi_raw_decoder_add_services(&rd, VBI_SLICED_TELETEXT_B, 0);
            }
            qvboardsim::CapturedFrame frame = f;
            frame.vbi_lines = 2 * kFieldLines;
            frame.vbi.assign(static_cast<size_t>(frame.vbi_lines) * f.vbi_samples, 0);
            const size_t at = f.field == 3 ? kFieldLines : 0; // V4L2_FIELD_BOTTOM: the second field
            std::copy(f.vbi.begin(), f.vbi.begin() + static_cast<std::ptrdiff_t>(std::min(f.vbi_lines, kFieldLines) * f.vbi_samples),
                      frame.vbi.begin() + static_cast<std::ptrdiff_t>(at * f.vbi_samples));
            decode_teletext(frame, rd, line);
        } else if (bTeletext && !f.vbi.empty()) {
            if (rd.bytes_per_line == 0) {
                rd.bytes_per_line = static_cast<int>(f.vbi_samples / 2);
                rd.start[0] = 1;
                rd.count[0] = static_cast<int>((f.vbi_lines + 1) / 2); // field 1 has the odd line
                rd.start[1] = 314;
                rd.count[1] = static_cast<int>(f.vbi_lines / 2);
                vbi_raw_decoder_add_services(&rd, VBI_SLICED_TELETEXT_B, 0);
            }
            decode_teletext(f, rd, line);
        }
        for (uint32_t l = 0; l < f.vbi_lines && !f.vbi.empty(); ++l) {
            for (const auto& p : qvboardsim::find_anc(f.vbi.data() + static_cast<size_t>(l) * f.vbi_samples,
                                                      f.vbi_samples, l, bHD)) {
                char head[32];
                std::snprintf(head, sizeof head, " anc=%u:%02x:%02x:", p.line, p.did, p.sdid);
                line += head;
                for (uint8_t b : p.udw) {
                    char hex[3];
                    std::snprintf(hex, sizeof hex, "%02x", b);
                    line += hex;
                }
            }
        }
        // Longest run of near-silent samples on channel 0 once the sound began;
        // the first sample at more than half of full scale (a click) in the record.
        bool bClick = false;
        for (uint32_t s = 0; s < f.audio_samples && !f.audio.empty(); ++s) {
            const int32_t v = qvboardsim::audio_word_to_sample(f.audio[static_cast<size_t>(s) * f.audio_channels]);
            if (!bClick && std::abs(v) >= (1 << 22)) {
                bClick = true;
                line += " click=" + std::to_string(s);
            }
            ++nTotal;
            if (std::abs(v) < 1024) {
                if (bSound)
                    ++nRun;
            } else {
                // Only a silence the sound comes back from is a gap; one that
                // lasts to the end is the programme's end.
                nLongest = std::max(nLongest, nRun);
                bSound = true;
                nRun = 0;
            }
        }
        std::printf("%s\n", line.c_str());
    }
    std::printf("audio longest_quiet=%llu total=%llu\n", static_cast<unsigned long long>(nLongest),
                static_cast<unsigned long long>(nTotal));
    vbi_raw_decoder_destroy(&rd);
    return reader.error().empty() ? 0 : 1;
}
