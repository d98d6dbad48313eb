#include "qv_template_fifo.h"

#include <cmath>
#include <cstring>

namespace {

bool is_unstamped(uint64_t pts)
{
    return pts == 0 || pts == QV_TIME_NONE;
}

} // namespace

void qv_template_fifo::qv_fifo_item::append(const uint8_t* pData, size_t n)
{
    // The buffer only grows, and only to the exact size needed: items are
    // recycled, so after a few frames appending stops allocating.
    if (payload.size() < size + n)
        payload.resize(size + n);
    std::memcpy(payload.data() + size, pData, n);
    size += n;
}

qv_template_fifo::qv_template_fifo(qv_template_statistics& statistics, std::mutex* pStatisticsLock)
    : m_statistics(statistics), m_pStatisticsLock(pStatisticsLock)
{
}

namespace {

// Text fields of the statistics are read by the application under the
// record's lock; numbers are single words and are written without it.
void set_text(std::string& field, const char* text, std::mutex* pLock)
{
    if (pLock == nullptr) {
        field = text;
        return;
    }
    std::lock_guard<std::mutex> lock(*pLock);
    field = text;
}

} // namespace

bool qv_template_fifo::init(float fps)
{
    m_fps = fps;
    return true;
}

void qv_template_fifo::alloc(size_t n)
{
    for (size_t i = 0; i < n; ++i)
        m_free_fifo.push_back(std::make_shared<qv_fifo_item>());
}

void qv_template_fifo::clear()
{
    m_fifo.clear();
    m_free_fifo.clear();
    m_last_render_frame = 0;
    m_last_input_frame = 0;
}

void qv_template_fifo::reset()
{
    m_free_fifo.splice(m_free_fifo.end(), m_fifo);
    m_last_render_frame = 0;
    m_last_input_frame = 0;
}

qv_template_fifo::item_ptr qv_template_fifo::get_free_item()
{
    if (m_free_fifo.empty())
        return {};
    item_ptr item = std::move(m_free_fifo.back());
    m_free_fifo.pop_back();
    item->size = 0;
    item->timecode.bValid = false;
    return item;
}

int64_t qv_template_fifo::pts_to_image_number(uint64_t pts) const
{
    const long double n = static_cast<long double>(pts) * static_cast<long double>(m_fps) / 1e9L + 0.5L;
    return static_cast<int64_t>(static_cast<uint64_t>(n));
}

uint64_t qv_template_fifo::number_to_pts(int64_t n) const
{
    const __int128 ns = static_cast<__int128>(n) * 1000000000;
    return static_cast<uint64_t>(static_cast<long double>(ns) / static_cast<long double>(m_fps));
}

bool qv_template_fifo::add_data(uint64_t ptsStart, uint64_t /*ptsStop*/, const uint8_t* pData, size_t size,
                                const qv_input_timecode* pTimeCode)
{
    if (pData == nullptr || size == 0)
        return true;

    if (is_unstamped(ptsStart)) {
        // Packets without their own stamp belong to the frame before them.
        if (!m_fifo.empty())
            m_fifo.back()->append(pData, size);
        return true;
    }

    m_statistics.nSampleArrivalTime = ptsStart;
    if (m_free_fifo.empty()) {
        set_text(m_statistics.strLastError, "No place in gst fifo.", m_pStatisticsLock);
        return false;
    }
    // The most recently freed item, moved node and all: queueing allocates nothing.
    const auto node = std::prev(m_free_fifo.end());
    qv_fifo_item* item = node->get();
    item->size = 0;
    item->timecode.bValid = false;
    item->append(pData, size);

    // Two frames of tolerance: data packets wobble more than pictures.
    m_last_input_frame += 1;
    const int64_t c = pts_to_image_number(ptsStart);
    const int64_t d = c - static_cast<int64_t>(m_last_input_frame);
    if (d > 2 || d < -2 || (m_bExactFrames && d > 0))
        m_last_input_frame = static_cast<uint64_t>(c);

    if (pTimeCode != nullptr) {
        item->timecode.bValid = true;
        item->timecode.timecode = pTimeCode->timecode;
        set_text(m_statistics.strTimecode, pTimeCode->pText != nullptr ? pTimeCode->pText : "", m_pStatisticsLock);
    } else {
        item->timecode.bValid = false;
    }

    item->index = static_cast<int64_t>(m_last_input_frame);
    m_nStart = ptsStart;
    m_fifo.splice(m_fifo.end(), m_free_fifo, node);
    update_info_fifo();
    return true;
}

bool qv_template_fifo::map_data(uint64_t nIndex, std::vector<uint8_t>& vData, qv_timecode* pTimecode)
{
    m_last_render_frame = nIndex;
    if (m_fifo.empty())
        return true;

    const auto frame = static_cast<int64_t>(nIndex);
    while (!m_fifo.empty()) {
        item_ptr& front = m_fifo.front();
        if (frame < front->index)
            return false;
        if (frame == front->index) {
            vData.assign(front->payload.data(), front->payload.data() + front->size);
            if (pTimecode != nullptr)
                *pTimecode = front->timecode;
            m_statistics.nSampleRenderTime = number_to_pts(front->index);
            m_free_fifo.splice(m_free_fifo.end(), m_fifo, m_fifo.begin());
            update_info_fifo();
            return true;
        }
        // Late: recycled unread.
        m_free_fifo.splice(m_free_fifo.end(), m_fifo, m_fifo.begin());
        update_info_fifo();
    }
    return false;
}

void qv_template_fifo::skip_data(uint64_t frames)
{
    if (frames == 0 || m_fifo.empty())
        return;
    const auto target = static_cast<int64_t>(m_last_render_frame + frames);
    while (m_fifo.size() >= 2 && m_fifo.front()->index <= target) {
        if ((*std::next(m_fifo.begin()))->index > target)
            break; // the front is the newest due item: keep it
        m_free_fifo.splice(m_free_fifo.end(), m_fifo, m_fifo.begin());
    }
}

void qv_template_fifo::update_info_fifo()
{
    if (m_fifo.empty())
        return;
    const int64_t span = m_fifo.back()->index - m_fifo.front()->index;
    m_statistics.nFifoFullness = static_cast<int64_t>(number_to_pts(span < 0 ? -span : span));
}
