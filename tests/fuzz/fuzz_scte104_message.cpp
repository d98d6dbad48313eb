// Any bytes as SCTE-104 messages: what reads must write and read back equal.
#include "fuzz_check.h"
#include "scte104.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> in(data, data + size);
    in.push_back(0);

    mpegcore::scte104_multiple_operation_message m;
    if (m.read(in.data(), size)) {
        std::vector<uint8_t> out(70000);
        if (m.write(out.data(), out.size())) {
            mpegcore::scte104_multiple_operation_message back;
            QV_FUZZ_CHECK(back.read(out.data(), m.messageSize));
            QV_FUZZ_CHECK(back.isEqual(m));
            QV_FUZZ_CHECK(back.calc_section_length() == m.messageSize);
        }
    }

    mpegcore::scte104_single_operation_message single;
    if (single.read(in.data(), size)) {
        std::vector<uint8_t> out(70000);
        QV_FUZZ_CHECK(single.write(out.data(), out.size()));
        mpegcore::scte104_single_operation_message back;
        QV_FUZZ_CHECK(back.read(out.data(), single.messageSize));
    }
    return 0;
}
