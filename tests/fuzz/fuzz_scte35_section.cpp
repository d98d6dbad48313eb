// Any bytes as an SCTE-35 section, once as they are and once with a valid CRC (random
// bytes almost never carry one, and every path behind the CRC check would stay unseen).
// What reads must write, read back, write the same bytes again, and convert to SCTE-104
// without harm.
#include "fuzz_check.h"
#include "mpeg2_crc32.h"
#include "scte_convert.h"

#include <cstring>
#include <vector>

namespace {

void run(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> in(data, data + size);
    in.push_back(0);
    mpegcore::splice_info_section s(nullptr, 1024);
    if (!s.read(in.data(), size))
        return;

    std::vector<uint8_t> first(4096), second(4096);
    if (!s.write(first.data(), first.size()))
        return; // e.g. a rewritten section that would exceed the maximum length
    const size_t n = size_t(s.section_length) + 3;

    mpegcore::splice_info_section back(nullptr, 1024);
    QV_FUZZ_CHECK(back.read(first.data(), n));
    QV_FUZZ_CHECK(back.write(second.data(), second.size()));
    if (size_t(back.section_length) + 3 != n) {
        // The one allowed change: an empty descriptor that ends the loop reads as 2 stray
        // bytes and is dropped.
        const auto& d = s.descriptors.descriptor;
        QV_FUZZ_CHECK(size_t(back.section_length) + 5 == n);
        QV_FUZZ_CHECK(back.descriptors.descriptor.size() + 1 == d.size() && d.back()->descriptor_length == 0);
        return;
    }
    QV_FUZZ_CHECK(std::memcmp(first.data(), second.data(), n) == 0);

    mpegcore::splice_info_section copy(nullptr, 1024);
    back.copyTo(&copy);
    QV_FUZZ_CHECK(copy.write(second.data(), second.size()));
    QV_FUZZ_CHECK(std::memcmp(first.data(), second.data(), n) == 0);

    long now = 0;
    if (size >= 8)
        std::memcpy(&now, data, sizeof now);
    now &= (1L << 33) - 1;
    if (auto m = mpegcore::to_scte104(now, 29.97, s)) {
        std::vector<uint8_t> out(8192);
        if (m->write(out.data(), out.size())) {
            mpegcore::scte104_multiple_operation_message r;
            QV_FUZZ_CHECK(r.read(out.data(), m->messageSize));
            QV_FUZZ_CHECK(r.isEqual(*m));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    run(data, size);
    if (size < 7)
        return 0;
    const size_t total = (size_t((data[1] & 0x0F)) << 8 | data[2]) + 3;
    if (total < 7 || total > size)
        return 0;
    std::vector<uint8_t> fixed(data, data + size);
    const uint32_t crc = mpegcore::mpeg2_crc32(fixed.data(), total - 4);
    for (int i = 0; i < 4; ++i)
        fixed[total - 4 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    run(fixed.data(), size);
    return 0;
}
