// Common base of PSI-style sections: the section header and a byte buffer for the
// section, either the caller's or one the table allocates and frees itself.
#pragma once

#include "QVBitStream.h"

#include <cstddef>
#include <cstdint>

namespace mpegcore {

using BSReader = QVSDK::QVBSReaderT<unsigned char*>;
using BSWriter = QVSDK::QVBSWriterT<unsigned char*>;

class CBaseMpegTable {
public:
    // With a buffer: uses it. With a null buffer: allocates size bytes and owns them.
    CBaseMpegTable(unsigned char* buffer, size_t size);
    virtual ~CBaseMpegTable();
    CBaseMpegTable(const CBaseMpegTable&) = delete;
    CBaseMpegTable& operator=(const CBaseMpegTable&) = delete;

    // Zeroes the whole buffer and forgets its content.
    virtual void Clear();
    // Section header. Never reports failure: a short header is the derived section's
    // business, which checks its own lengths.
    virtual bool read(BSReader& r);
    virtual bool write(BSWriter& w);
    virtual uint16_t calc_section_length() const { return section_length; }

    // Appends n bytes. Fails, copying nothing, without a buffer or when the data would
    // reach the buffer's last byte (that byte is never filled, deliberately).
    bool AddData(const unsigned char* p, size_t n);

    // Serialises the section into the table's own buffer; m_lSizeTable becomes its size.
    virtual bool RenderTable();

    uint8_t table_id = 0;
    uint8_t section_syntax_indicator = 0;
    uint8_t zero = 0;
    uint8_t reserved = 3;
    uint16_t section_length = 0;

    unsigned char* m_pDataTable = nullptr;
    size_t m_lSizeTable = 0;
    size_t m_lMaxSize = 0;
    bool m_bSelfAlloc = false;
};

} // namespace mpegcore
