// Big-endian bit-field reader and writer over byte buffers, working through a 64-bit
// cache so that a field rarely straddles a reload. Neither ever reads or writes outside
// the buffer it was given; running out is reported, never undefined.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace QVSDK {

namespace bitstream_detail {
inline uint64_t low_mask(size_t bits)
{
    return bits >= 64 ? ~uint64_t(0) : ((uint64_t(1) << bits) - 1);
}
} // namespace bitstream_detail

template <class Ptr>
class QVBSReaderT {
    static_assert(std::is_pointer<Ptr>::value && sizeof(*Ptr()) == 1, "byte pointer expected");

public:
    QVBSReaderT(Ptr data, size_t length) : m_data(data), m_length(data ? length : 0)
    {
        // First load reaches the next 4-byte boundary (a full 8 bytes when already
        // aligned) so that every later 8-byte load starts aligned.
        size_t misalign = reinterpret_cast<uintptr_t>(m_data) & 3u;
        size_t first = misalign ? 4 - misalign : 8;
        load(first < m_length ? first : m_length);
    }
    virtual ~QVBSReaderT() = default;

    // Reads N bits into value (truncated to T). False when the cache is empty on entry or
    // the data ended before N bits were gathered (value then holds what was gathered).
    template <size_t N, class T>
    bool getBits(T& value)
    {
        static_assert(N >= 1 && N <= 64, "1 to 64 bits");
        if (m_sizeCache == 0)
            return false; // value untouched
        uint64_t v = 0;
        bool ok = getBits(N, v);
        value = static_cast<T>(v);
        return ok;
    }

    bool getBits(size_t nBits, uint64_t& value)
    {
        value = 0;
        if (m_sizeCache == 0 || nBits == 0 || nBits > 64)
            return m_sizeCache != 0 && nBits == 0;
        size_t wanted = nBits;
        while (wanted) {
            size_t take = wanted < m_sizeCache ? wanted : m_sizeCache;
            uint64_t bits = (m_Cache >> (m_sizeCache - take)) & bitstream_detail::low_mask(take);
            value = take >= 64 ? bits : ((value << take) | bits);
            m_sizeCache -= take;
            wanted -= take;
            if (m_sizeCache == 0) {
                if (m_length == 0) {
                    m_Cache = 0;
                    return wanted == 0;
                }
                reload();
            }
        }
        return true;
    }

    // Bytes not yet consumed; a partly consumed byte counts as unread.
    size_t bytesLeft() const { return m_length + (m_sizeCache + 7) / 8; }
    bool empty() const { return m_sizeCache == 0; }
    bool byteAligned() const { return (m_sizeCache & 7u) == 0; }

    // The next unread byte (the byte holding the next bit when not aligned).
    Ptr current() const { return m_data - (m_sizeCache + 7) / 8; }

    // Skips n bytes from the start of the current byte. False (and no move) when fewer
    // than n remain.
    bool skipBytes(size_t n)
    {
        size_t cached = (m_sizeCache + 7) / 8;
        if (n > m_length + cached)
            return false;
        m_data -= cached;
        m_length += cached;
        m_data += n;
        m_length -= n;
        m_sizeCache = 0;
        m_Cache = 0;
        reload();
        return true;
    }

    // Copies n whole bytes out; the reader must be byte-aligned.
    bool getBytes(unsigned char* dst, size_t n)
    {
        if (!byteAligned() || n > bytesLeft())
            return false;
        if (n == 0)
            return true;
        std::memcpy(dst, current(), n);
        return skipBytes(n);
    }

    size_t m_Cache = 0;     // unconsumed bits, right-aligned
    size_t m_sizeCache = 0; // valid bits in m_Cache
    Ptr m_data;             // next byte to load
    size_t m_length;        // bytes left to load

private:
    void reload()
    {
        load(m_length >= 8 ? 8 : m_length);
    }
    void load(size_t n)
    {
        uint64_t c = 0;
        for (size_t i = 0; i < n; ++i)
            c = (c << 8) | static_cast<unsigned char>(m_data[i]);
        m_Cache = c;
        m_sizeCache = 8 * n;
        m_data += n;
        m_length -= n;
    }
};

template <class Ptr>
class QVBSWriterT {
    static_assert(std::is_pointer<Ptr>::value && sizeof(*Ptr()) == 1, "byte pointer expected");

public:
    QVBSWriterT(Ptr data, size_t length) : m_data(data), m_length(data ? length : 0) {}
    virtual ~QVBSWriterT() = default;

    // Appends the low nBits of value, most significant first. False once the buffer is
    // too small; the writer then stays failed and writes nothing more.
    bool putBits(size_t nBits, uint64_t value)
    {
        if (m_bFailed || nBits > 64)
            return false;
        while (nBits) {
            size_t take = nBits < m_sizeCache ? nBits : m_sizeCache;
            uint64_t bits = (value >> (nBits - take)) & bitstream_detail::low_mask(take);
            m_cache |= take >= 64 ? bits : (bits << (m_sizeCache - take));
            m_sizeCache -= take;
            nBits -= take;
            if (m_sizeCache == 0 && !store(8))
                return false;
        }
        return true;
    }

    template <size_t N, class T>
    bool putBits(T value)
    {
        static_assert(N >= 1 && N <= 64, "1 to 64 bits");
        return putBits(N, static_cast<uint64_t>(value));
    }

    bool putBytes(const unsigned char* src, size_t n)
    {
        for (size_t i = 0; i < n; ++i)
            if (!putBits(8, src[i]))
                return false;
        return true;
    }

    // Writes the filled bytes of the cache (a partly filled byte counts, its unused low
    // bits zero) and empties it.
    bool flush()
    {
        if (m_bFailed)
            return false;
        return store((64 - m_sizeCache + 7) / 8);
    }

    // Bytes written so far, counting those still in the cache.
    size_t bytesWritten() const { return m_writeByte + (64 - m_sizeCache + 7) / 8; }
    bool failed() const { return m_bFailed; }
    // Start of the output (everything flushed lies between it and m_data).
    Ptr begin() const { return m_data - m_writeByte; }

    size_t m_cache = 0;      // gathered bits, from the most significant end
    size_t m_sizeCache = 64; // free bits in m_cache
    Ptr m_data;              // where the next flushed byte goes
    size_t m_length;         // room left at m_data
    size_t m_writeByte = 0;  // bytes written so far

private:
    bool store(size_t n)
    {
        if (n > m_length) {
            m_bFailed = true;
            return false;
        }
        for (size_t i = 0; i < n; ++i)
            m_data[i] = static_cast<unsigned char>(m_cache >> (56 - 8 * i));
        m_data += n;
        m_length -= n;
        m_writeByte += n;
        m_cache = 0;
        m_sizeCache = 64;
        return true;
    }

    bool m_bFailed = false;
};

} // namespace QVSDK
