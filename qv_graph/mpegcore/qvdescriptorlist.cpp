#include "qvdescriptorlist.h"

#include <cstring>

namespace mpegcore {

std::shared_ptr<base_descriptor> base_descriptor::create() const
{
    return std::make_shared<base_descriptor>();
}

void base_descriptor::copy_common(base_descriptor& dst) const
{
    dst.descriptor_tag = descriptor_tag;
    dst.descriptor_length = descriptor_length;
    dst.m_nTailOffset = m_nTailOffset;
    if (descriptor_data.empty()) {
        dst.descriptor_data.dealloc();
    } else {
        QVSDK::QVAlignMemory<unsigned char> copy(descriptor_data.size(), 0);
        std::memcpy(copy.data(), descriptor_data.data(), descriptor_data.size());
        dst.descriptor_data = std::move(copy);
    }
}

void base_descriptor::copyTo(base_descriptor& dst) const
{
    copy_common(dst);
}

bool base_descriptor::read(BSReader& r)
{
    if (!r.getBits<8>(descriptor_tag) || !r.getBits<8>(descriptor_length))
        return false;
    if (!r.byteAligned() || r.bytesLeft() < descriptor_length)
        return false;
    descriptor_data.alloc(descriptor_length, 0);
    if (!r.getBytes(descriptor_data.data(), descriptor_length))
        return false;
    m_nTailOffset = descriptor_length;
    if (m_bRaw)
        return true;
    BSReader p(descriptor_data.data(), descriptor_length);
    if (!read_fields(p))
        return false;
    // Whatever follows the known fields (later revisions of a standard, private
    // extensions) is written back unchanged.
    m_nTailOffset = descriptor_length - (p.byteAligned() ? p.bytesLeft() : 0);
    return true;
}

bool base_descriptor::read_fields(BSReader&)
{
    return true;
}

bool base_descriptor::write_fields(BSWriter& w) const
{
    return w.putBytes(descriptor_data.data(), descriptor_data.size());
}

bool base_descriptor::write(BSWriter& w) const
{
    unsigned char buf[256];
    BSWriter pw(buf, 255);
    bool ok = write_fields(pw);
    if (ok && !m_bRaw && m_nTailOffset < descriptor_data.size())
        ok = pw.putBytes(descriptor_data.data() + m_nTailOffset, descriptor_data.size() - m_nTailOffset);
    ok = ok && pw.flush();
    if (!ok)
        return false;
    return w.putBits<8>(descriptor_tag) && w.putBits<8>(pw.m_writeByte) && w.putBytes(buf, pw.m_writeByte);
}

bool base_descriptor::update_length()
{
    unsigned char buf[260];
    BSWriter w(buf, sizeof buf);
    if (!write(w) || !w.flush())
        return false;
    descriptor_length = buf[1];
    return true;
}

bool QVDescriptorList::read(BSReader& r)
{
    return m_type == e_scte35_desc_type ? readSCTE35(r) : readTS(r);
}

bool QVDescriptorList::readTS(BSReader& r)
{
    return read_with(r, &create_ts_descriptor_at);
}

bool QVDescriptorList::readSCTE35(BSReader& r)
{
    return read_with(r, &create_scte35_descriptor_at);
}

bool QVDescriptorList::read_with(BSReader& r, factory make)
{
    while (r.bytesLeft() >= 3) {
        if (!r.byteAligned())
            return false;
        auto d = make(r.current(), r.bytesLeft());
        if (!d || !d->read(r))
            return false;
        descriptor.push_back(std::move(d));
    }
    return true;
}

bool QVDescriptorList::write(BSWriter& w) const
{
    for (const auto& d : descriptor)
        if (!d || !d->write(w))
            return false;
    return true;
}

std::shared_ptr<base_descriptor> create_ts_descriptor_at(const unsigned char* p, size_t)
{
    return create_ts_descriptor(p[0]);
}

uint16_t QVDescriptorList::getSize() const
{
    uint16_t n = 0;
    for (const auto& d : descriptor)
        if (d)
            n = static_cast<uint16_t>(n + d->descriptor_length + 2);
    return n;
}

std::shared_ptr<base_descriptor> QVDescriptorList::find(unsigned char tag) const
{
    for (const auto& d : descriptor)
        if (d && d->descriptor_tag == tag)
            return d;
    return {};
}

void QVDescriptorList::copyTo(QVDescriptorList& dst) const
{
    dst.descriptor.clear();
    dst.m_type = m_type;
    for (const auto& d : descriptor) {
        if (!d)
            continue;
        auto c = d->create();
        d->copyTo(*c);
        dst.descriptor.push_back(std::move(c));
    }
}

} // namespace mpegcore
