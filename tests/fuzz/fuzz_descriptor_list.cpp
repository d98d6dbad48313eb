// Any bytes as a descriptor loop, in both tag spaces. After one rewrite (which drops
// stray bytes and normalises counts) the encoding must be stable, except that an empty
// descriptor that ends the loop is itself read as 2 stray bytes and dropped.
#include "fuzz_check.h"
#include "qvdescriptorlist.h"

#include <cstring>
#include <vector>

namespace {

bool encode(const mpegcore::QVDescriptorList& l, std::vector<uint8_t>& out)
{
    out.assign(70000, 0);
    mpegcore::BSWriter w(out.data(), out.size());
    if (!l.write(w) || !w.flush())
        return false;
    out.resize(w.m_writeByte);
    return true;
}

void run(const uint8_t* data, size_t size, mpegcore::QVDescriptorType type)
{
    std::vector<uint8_t> in(data, data + size);
    in.push_back(0);
    mpegcore::QVDescriptorList l(type);
    mpegcore::BSReader r(in.data(), size);
    if (!l.read(r))
        return;
    (void)l.find(data[0]);
    std::vector<uint8_t> a, b, c;
    if (!encode(l, a))
        return;
    a.push_back(0);
    mpegcore::QVDescriptorList again(type);
    mpegcore::BSReader r2(a.data(), a.size() - 1);
    QV_FUZZ_CHECK(again.read(r2));
    QV_FUZZ_CHECK(encode(again, b));
    mpegcore::QVDescriptorList copy;
    again.copyTo(copy);
    QV_FUZZ_CHECK(encode(copy, c));
    QV_FUZZ_CHECK(b == c);
    const size_t first = a.size() - 1;
    QV_FUZZ_CHECK(b.size() == first || b.size() + 2 == first);
    QV_FUZZ_CHECK(std::memcmp(a.data(), b.data(), b.size()) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    run(data, size, mpegcore::e_ts_desc_type);
    run(data, size, mpegcore::e_scte35_desc_type);
    return 0;
}
