#include "BaseMpegTable.h"

#include <cstring>
#include <new>

namespace mpegcore {

CBaseMpegTable::CBaseMpegTable(unsigned char* buffer, size_t size) : m_lMaxSize(size)
{
    if (buffer) {
        m_pDataTable = buffer;
    } else if (size) {
        m_pDataTable = new (std::nothrow) unsigned char[size]();
        m_bSelfAlloc = m_pDataTable != nullptr;
        if (!m_pDataTable)
            m_lMaxSize = 0;
    }
}

CBaseMpegTable::~CBaseMpegTable()
{
    if (m_bSelfAlloc)
        delete[] m_pDataTable;
}

void CBaseMpegTable::Clear()
{
    if (m_pDataTable)
        std::memset(m_pDataTable, 0, m_lMaxSize);
    m_lSizeTable = 0;
}

bool CBaseMpegTable::read(BSReader& r)
{
    if (!r.getBits<8>(table_id) || !r.getBits<1>(section_syntax_indicator) || !r.getBits<1>(zero) ||
        !r.getBits<2>(reserved))
        return true;
    uint16_t len = 0;
    r.getBits<12>(len);
    section_length = len & 0xFFF;
    return true;
}

bool CBaseMpegTable::write(BSWriter& w)
{
    return w.putBits<8>(table_id) && w.putBits<1>(section_syntax_indicator) && w.putBits<1>(zero) &&
           w.putBits<2>(reserved) && w.putBits<12>(section_length);
}

bool CBaseMpegTable::AddData(const unsigned char* p, size_t n)
{
    if (!m_pDataTable || (n && !p) || m_lSizeTable + n >= m_lMaxSize)
        return false;
    if (n)
        std::memcpy(m_pDataTable + m_lSizeTable, p, n);
    m_lSizeTable += n;
    return true;
}

bool CBaseMpegTable::RenderTable()
{
    if (!m_pDataTable)
        return false;
    std::memset(m_pDataTable, 0, m_lMaxSize);
    BSWriter w(m_pDataTable, m_lMaxSize);
    bool ok = write(w) && w.flush();
    m_lSizeTable = ok ? w.m_writeByte : 0;
    return ok;
}

} // namespace mpegcore
