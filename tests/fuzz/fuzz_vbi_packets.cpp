// Any bytes as an 8-bit VBI line for both packet conversions, and as an SCTE-104 message
// for the encoder; the sanitizers watch every access.
#include "fuzz_check.h"
#include "qv_vanc_scte104_encoder.h"
#include "qv_vbi_convert.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const size_t pixels = size / 2;
    std::vector<uint16_t> out(pixels * 2 + 1, 0xFFFF);
    ConvertSDIPacketsInUYVY8to10(out.data(), data, pixels);
    ConvertSDIPacketsInYOnly8to10(out.data(), data, pixels);
    QV_FUZZ_CHECK(out.back() == 0xFFFF);

    std::vector<uint8_t> packed(pixels * 5 / 2 + 8);
    PackVBI_UYVY16toUYVY10(out.data(), pixels * 4, packed.data(), packed.size());

    if (size < 3)
        return 0;
    // First bytes choose the format: SD or HD, lines, width.
    const bool sd = data[0] & 1;
    const size_t lines = data[1] % 5;
    const size_t width = 4 + data[2] * 8;
    qv_vanc_scte104_encoder e;
    e.init(sd, lines, width);
    auto packets = e.encoder(data + 3, size - 3, width * 2);
    size_t placed = 0;
    std::vector<uint16_t> row(width * 2 + 1, 0xFFFF);
    for (const auto& p : packets) {
        QV_FUZZ_CHECK(p.second >= 9 && p.second <= qv_vanc_scte104_encoder::kMaxPacketWords);
        placed += p.second - 8;
        QV_FUZZ_CHECK(e.convert(p, row.data(), width * 2));
        QV_FUZZ_CHECK(row.back() == 0xFFFF);
        // Every packet the encoder lays must convert with a valid checksum word.
        const size_t cs = sd ? p.second - 1 : 2 * (p.second - 1) + 1;
        QV_FUZZ_CHECK(((row[cs] >> 9) & 1) != ((row[cs] >> 8) & 1));
    }
    QV_FUZZ_CHECK(placed <= size - 3);
    return 0;
}
