// Descriptor loops: a list of descriptors read in order, each parsed by its tag into its
// own class, or kept as raw bytes when the tag is not known. Whether the tags are read
// as transport-stream/DVB tags or as SCTE-35 splice descriptor tags is fixed at
// construction, because the two tag spaces overlap.
#pragma once

#include "BaseMpegTable.h"
#include "qv_align_memory.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace mpegcore {

class base_descriptor {
public:
    explicit base_descriptor(uint8_t tag = 0) : descriptor_tag(tag) {}
    virtual ~base_descriptor() = default;

    // A new, empty descriptor of the same class.
    virtual std::shared_ptr<base_descriptor> create() const;
    // Deep copy into dst, which must be of the same class (a different class gets the
    // common part only).
    virtual void copyTo(base_descriptor& dst) const;
    // Tag, length, payload. The length is recomputed from the fields.
    virtual bool write(BSWriter& w) const;
    // Tag, length, then the payload, which is kept raw and parsed into the fields.
    virtual bool read(BSReader& r);

    // Sets descriptor_length from the fields (after building a descriptor by hand).
    bool update_length();
    const unsigned char* payload() const { return descriptor_data.data(); }

    uint8_t descriptor_tag = 0;
    uint8_t descriptor_length = 0;
    QVSDK::QVAlignMemory<unsigned char> descriptor_data;

protected:
    // The class's fields from / to the payload. The raw class has none: its payload is
    // descriptor_data itself.
    virtual bool read_fields(BSReader& p);
    virtual bool write_fields(BSWriter& w) const;
    bool m_bRaw = true;        // no fields: the payload is written from descriptor_data
    size_t m_nTailOffset = 0;  // payload bytes after the parsed fields start here

    void copy_common(base_descriptor& dst) const;
};

// Gives a descriptor class its create/copyTo. Derived classes hold their fields by value.
template <class D>
class descriptor_impl : public base_descriptor {
public:
    explicit descriptor_impl(uint8_t tag) : base_descriptor(tag) { m_bRaw = false; }
    std::shared_ptr<base_descriptor> create() const override { return std::make_shared<D>(); }
    void copyTo(base_descriptor& dst) const override
    {
        if (auto* d = dynamic_cast<D*>(&dst)) {
            *d = static_cast<const D&>(*this);
            copy_common(dst); // the payload memory is shared by assignment: deepen it
        } else {
            base_descriptor::copyTo(dst);
        }
    }
};

enum QVDescriptorType {
    e_ts_desc_type = 0,
    e_scte35_desc_type = 1,
};

class QVDescriptorList {
public:
    explicit QVDescriptorList(QVDescriptorType type = e_ts_desc_type) : m_type(type) {}
    virtual ~QVDescriptorList() = default;

    // Reads descriptors until fewer than 3 bytes remain (stray bytes at the end of a
    // loop are ignored). One descriptor that fails to read fails the list.
    bool read(BSReader& r);
    bool readTS(BSReader& r);
    bool readSCTE35(BSReader& r);
    bool write(BSWriter& w) const;

    // Sum of descriptor_length + 2 over the list.
    uint16_t getSize() const;
    // First descriptor with that tag, or empty.
    std::shared_ptr<base_descriptor> find(unsigned char tag) const;
    void copyTo(QVDescriptorList& dst) const;
    void clear() { descriptor.clear(); }
    void add(std::shared_ptr<base_descriptor> d) { descriptor.push_back(std::move(d)); }

    std::vector<std::shared_ptr<base_descriptor>> descriptor;
    QVDescriptorType m_type;

private:
    // Picks the class from the descriptor's first bytes (tag, length, payload).
    using factory = std::shared_ptr<base_descriptor> (*)(const unsigned char* p, size_t available);
    bool read_with(BSReader& r, factory make);
};

// Factories by tag; unknown tags give a raw base_descriptor.
std::shared_ptr<base_descriptor> create_ts_descriptor(uint8_t tag);
std::shared_ptr<base_descriptor> create_scte35_descriptor(uint8_t tag);
// As above, from the descriptor's bytes. A splice descriptor whose identifier is not
// "CUEI" is private: its tag means nothing to us and it is kept raw.
std::shared_ptr<base_descriptor> create_ts_descriptor_at(const unsigned char* p, size_t available);
std::shared_ptr<base_descriptor> create_scte35_descriptor_at(const unsigned char* p, size_t available);

} // namespace mpegcore
