#include "qv_sound_fifo.h"

#include "qv_sample_convert.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace QVSDK {

namespace {

int64_t abs_diff(int64_t a, int64_t b)
{
    return a > b ? a - b : b - a;
}

} // namespace

bool QVSoundFifo::init(size_t bytes, const QVSoundFormat& format, unsigned jitter)
{
    if (!format.isValid())
        return false;
    clear();
    m_memory.reset(bytes);
    m_format = format;
    m_nJitter = jitter;
    // Chunks of a tenth of an output frame or more fit without growing.
    m_queue.reserve(64);
    return true;
}

void QVSoundFifo::clear()
{
    m_queue.clear();
    m_memory.reset();
    m_nReadPos = 0;
    m_nWritePos = 0;
}

void QVSoundFifo::release_front()
{
    const QVSoundFifoItem& item = m_queue.front();
    m_memory.put(item.m_pData, item.m_nSize);
    m_queue.pop_front();
    // An empty ring starts again at its beginning, so that it can always take
    // a chunk as large as itself whatever the write side's last position was.
    if (m_queue.empty())
        m_memory.reset();
}

bool QVSoundFifo::put(int64_t pos, const uint8_t* data, size_t n)
{
    if (data == nullptr || n == 0)
        return false;
    unsigned char* p = m_memory.lock(n);
    if (p == nullptr)
        return false;
    std::memcpy(p, data, n);
    return _mark_ready_data(pos, p, n);
}

bool QVSoundFifo::put(const uint8_t* data, size_t n)
{
    return put(m_nWritePos, data, n);
}

bool QVSoundFifo::put(int64_t pos, const QVSound& s)
{
    const QVSoundFormat& f = s.format();
    if (f.m_frequency != m_format.m_frequency)
        return false;
    if (f.m_channel == m_format.m_channel && f.m_bit_per_sample == m_format.m_bit_per_sample)
        return put(pos, s.data(), s.size());
    return _convert(pos, s);
}

bool QVSoundFifo::put(const QVSound& s)
{
    return put(m_nWritePos, s);
}

bool QVSoundFifo::_convert(int64_t pos, const QVSound& s)
{
    const QVSoundFormat& sf = s.format();
    const size_t srcAlign = sf.m_block_align;
    const size_t srcBytes = sf.m_bit_per_sample / 8u;
    const size_t dstBytes = m_format.m_bit_per_sample / 8u;
    const size_t dstAlign = m_format.m_block_align;
    if (srcAlign == 0 || s.data() == nullptr || sf.m_channel == 0 || srcBytes * sf.m_channel > srcAlign ||
        dstBytes * m_format.m_channel > dstAlign)
        return false;
    const size_t frames = s.size() / srcAlign;
    const size_t n = frames * dstAlign;
    if (n == 0)
        return false;
    unsigned char* p = m_memory.lock(n);
    if (p == nullptr)
        return false;
    std::memset(p, 0, n);
    const QVSampleConversion conversion = anySampleConversion(sf.m_bit_per_sample, m_format.m_bit_per_sample);
    if (conversion != QVSampleConversion::Unsupported) {
        // Channel by channel: a mono line feeds both sides of the pair; a
        // channel the input lacks stays silent, surplus input channels are left out.
        for (unsigned c = 0; c < m_format.m_channel; ++c) {
            const unsigned from = c < sf.m_channel ? c : (sf.m_channel == 1 ? 0u : sf.m_channel);
            if (from == sf.m_channel)
                continue;
            const uint8_t* src = s.data() + from * srcBytes;
            uint8_t* dst = p + c * dstBytes;
            if (conversion == QVSampleConversion::Copy) {
                for (size_t k = 0; k < frames; ++k)
                    std::memcpy(dst + k * dstAlign, src + k * srcAlign, dstBytes);
            } else {
                convertSamples(conversion, src, srcAlign, dst, dstAlign, frames, 1);
            }
        }
    }
    return _mark_ready_data(pos, p, n);
}

bool QVSoundFifo::_mark_ready_data(int64_t pos, unsigned char* p, size_t n)
{
    int64_t start = m_nWritePos;
    // Stamps that wobble within the tolerance continue the running position,
    // so the data stays gap-free; a larger jump starts at its own (whole-block) place.
    if (abs_diff(pos, m_nWritePos) > static_cast<int64_t>(m_nJitter))
        start = pos - pos % static_cast<int64_t>(m_format.m_block_align);
    QVSoundFifoItem item;
    item.m_nStartPos = start;
    item.m_nStopPos = start + static_cast<int64_t>(n);
    item.m_pCurData = p;
    item.m_pData = p;
    item.m_nSize = n;
    m_queue.push_back(item);
    m_nWritePos = item.m_nStopPos;
    m_memory.commit(n);
    return true;
}

bool QVSoundFifo::get(int64_t pos, QVSound& out)
{
    const size_t n = out.size();
    unsigned char* dst = out.data();
    if (n == 0 || dst == nullptr)
        return false;

    const int64_t block = m_format.m_block_align != 0 ? m_format.m_block_align : 1;
    int64_t rp = m_nReadPos;
    if (abs_diff(pos, m_nReadPos) > static_cast<int64_t>(m_nJitter))
        rp = block * (pos / block);
    const int64_t first = rp;
    const int64_t end = rp + static_cast<int64_t>(n);
    m_nReadPos = end;

    if (m_queue.empty())
        return true;

    while (!m_queue.empty() && rp < end) {
        QVSoundFifoItem& item = m_queue.front();
        if (item.m_nStopPos <= rp) {
            release_front();
            continue;
        }
        if (item.m_nStartPos >= end)
            break;
        if (item.m_nStartPos < rp) {
            const int64_t drop = std::min(item.m_nStopPos - item.m_nStartPos, rp - item.m_nStartPos);
            item.m_pCurData += drop;
            item.m_nStartPos += drop;
        } else if (item.m_nStartPos > rp) {
            std::memset(dst + (rp - first), 0, static_cast<size_t>(item.m_nStartPos - rp));
            rp = item.m_nStartPos;
        }
        const int64_t take = std::min(item.m_nStopPos - item.m_nStartPos, end - rp);
        std::memcpy(dst + (rp - first), item.m_pCurData, static_cast<size_t>(take));
        rp += take;
        item.m_pCurData += take;
        item.m_nStartPos += take;
        if (item.m_nStartPos >= item.m_nStopPos)
            release_front();
    }
    if (rp < end)
        std::memset(dst + (rp - first), 0, static_cast<size_t>(end - rp));
    return true;
}

bool QVSoundFifo::skipToPos(int64_t pos)
{
    if (m_nReadPos >= pos)
        return true;
    m_nReadPos = pos;
    while (!m_queue.empty() && m_queue.front().m_nStopPos <= pos)
        release_front();
    if (!m_queue.empty()) {
        QVSoundFifoItem& item = m_queue.front();
        if (item.m_nStartPos < pos) {
            const int64_t drop = pos - item.m_nStartPos;
            item.m_pCurData += drop;
            item.m_nStartPos += drop;
            if (item.m_nStartPos >= item.m_nStopPos)
                release_front();
        }
    }
    return true;
}

void QVSoundFifo::PrintDebugInfo(const char* tag) const
{
    std::printf("%s QVSoundFifo[%ld]: read=%ld  write=%ld  cnt=%ld:\n", tag, reinterpret_cast<long>(this),
            static_cast<long>(m_nReadPos), static_cast<long>(m_nWritePos), static_cast<long>(m_queue.size()));
    int64_t expected = m_nReadPos;
    for (size_t nChunk = 0; nChunk < m_queue.size(); ++nChunk) {
        const QVSoundFifoItem& item = m_queue.at(nChunk);
        if (item.m_nStartPos != expected)
            std::printf("  jump[%d] %ld -> %ld", static_cast<int>(nChunk), static_cast<long>(expected),
                        static_cast<long>(item.m_nStartPos));
        expected = item.m_nStopPos;
    }
    if (!m_queue.empty() && m_nWritePos != m_queue.back().m_nStopPos)
        std::printf("  jump[END] %ld -> %ld", static_cast<long>(m_queue.back().m_nStopPos), static_cast<long>(m_nWritePos));
    std::printf("  END.\n");
    std::fflush(stdout);
}

} // namespace QVSDK
