// Any bytes as caption metadata of any form (the first byte picks it): what
// is taken must come out as well-formed cdps with the rate's cc_count, and a
// cdp the reader accepts must say what its bytes say.
#include "fuzz_check.h"
#include "qv_cc_queue.h"
#include "qv_cdp.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const auto form = static_cast<qv_caption_form>(data[0] % 5);
    const uint8_t* body = data + 1;
    const size_t n = size - 1;

    qv_cdp_packet packet;
    if (qv_cdp_read(body, n, packet) == qv_cdp_error::none) {
        QV_FUZZ_CHECK(n == body[2]);
        QV_FUZZ_CHECK(packet.triplets.size() <= 31);
    }

    for (float fps : {25.0f, 59.94f}) {
        qv_cc_queue q;
        QV_FUZZ_CHECK(q.init(fps));
        std::string why;
        const bool ok = q.add(form, body, n, why);
        QV_FUZZ_CHECK(ok || !why.empty());
        for (int f = 0; f < 3; ++f) {
            uint8_t cdp[QV_CDP_MAX_SIZE];
            const size_t len = q.next_cdp(cdp, sizeof cdp);
            qv_cdp_packet back;
            QV_FUZZ_CHECK(qv_cdp_read(cdp, len, back) == qv_cdp_error::none);
            QV_FUZZ_CHECK(back.triplets.size() == q.rate().nCcCount);
        }
    }
    return 0;
}
