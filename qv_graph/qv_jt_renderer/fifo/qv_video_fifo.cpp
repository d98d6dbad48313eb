#include "qv_video_fifo.h"

#include <glib.h>

#include <algorithm>

namespace {

// Extended precision throughout, truncated toward zero, as the stamps demand.
uint64_t trunc_to_u64(long double v)
{
    return v <= 0.0L ? 0 : static_cast<uint64_t>(v);
}

} // namespace

qv_video_fifo::qv_video_fifo(qv_video_statistics& statistics, qv_alarms_dispatcher& dispatcher)
    : m_statistics(statistics), m_dispatcher(dispatcher)
{
}

void qv_video_fifo::init(float fps, QVSDK::QVEnumFormats format, const QVSDK::QVSize& size, QVSDK::QVFieldOrder order)
{
    m_fps = fps;
    m_video_format = format;
    m_video_size = size;
    m_order = order;
    m_nRealPTS = ~uint64_t(0);
}

int qv_video_fifo::alloc(size_t n)
{
    clear();
    // Slots are written black now, so that play-out does not pay a page fault
    // per 4 KiB of a first-used slot while the FIFO lock is held against the
    // render thread. Free slots are reused last-freed first, so the slots at
    // the back of the list are the ones in use; within 1 GiB (ten seconds of
    // 1080i50, over a second of 2160p50) those are written, deeper ones are
    // left to be touched during pre-roll if ever.
    const size_t nBytes = static_cast<size_t>(std::max(m_video_size.m_nWidth, 0)) *
                          static_cast<size_t>(std::max(m_video_size.m_nHeight, 0)) * 2;
    const size_t nTouched = nBytes == 0 ? n : std::min(n, (size_t(1) << 30) / nBytes);
    auto make_item = [this](bool bTouch) {
        auto item = std::make_shared<qv_fifo_item>();
        item->own.InitImage(m_video_size, m_order, m_video_format);
        if (bTouch)
            item->own.fillColor(0, 0, 0);
        item->image = item->own;
        return item;
    };
    for (size_t i = 0; i < n; ++i)
        m_free_video_fifo.push_back(make_item(i >= n - nTouched));
    // One more picture is current from the start, so that a repeat is possible
    // before the first real frame arrives.
    m_pItem = make_item(true);
    return 1;
}

void qv_video_fifo::clear()
{
    m_video_fifo.clear();
    m_free_video_fifo.clear();
    m_lent_video_fifo.clear();
    m_pItem.reset();
    m_released.clear();
    m_nLastFrameNumber = -1;
    m_nRealPTS = 0;
    m_nStartTime = m_nStopTime = 0;
    m_nStartIndex = 0;
    m_nStopIndex = 0;
}

void qv_video_fifo::reset()
{
    for (const item_ptr& item : m_video_fifo)
        recycle(*item);
    m_free_video_fifo.splice(m_free_video_fifo.end(), m_video_fifo);
    m_nLastFrameNumber = -1;
    m_nRealPTS = 0;
    m_nStartTime = m_nStopTime = 0;
    m_nStartIndex = 0;
    m_nStopIndex = 0;
}

qv_video_fifo::item_ptr qv_video_fifo::get_free_item()
{
    if (m_free_video_fifo.empty())
        return {};
    item_ptr item = std::move(m_free_video_fifo.back());
    m_free_video_fifo.pop_back();
    return item;
}

uint64_t qv_video_fifo::pts_to_image_number(uint64_t pts) const
{
    return trunc_to_u64(static_cast<long double>(pts) * static_cast<long double>(m_fps) / 1e9L + 0.5L);
}

uint64_t qv_video_fifo::number_to_pts(int64_t n) const
{
    const __int128 ns = static_cast<__int128>(n) * 1000000000;
    return trunc_to_u64(static_cast<long double>(ns) / static_cast<long double>(m_fps));
}

qv_video_fifo::slot_loan qv_video_fifo::lend_slot()
{
    if (m_free_video_fifo.empty())
        return {};
    // The most recently freed slot, moved node and all, so that queueing allocates nothing.
    const auto node = std::prev(m_free_video_fifo.end());
    slot_loan loan{*node};
    m_lent_video_fifo.splice(m_lent_video_fifo.end(), m_free_video_fifo, node);
    return loan;
}

void qv_video_fifo::fill_slot(const QVSDK::QVImage& image, qv_fifo_item& slot)
{
    const QVSDK::QVImage& own = slot.own;
    if (image.hasOwner() && image.width() == own.width() && image.height() == own.height() &&
        image.format() == own.format()) {
        // A copy would only move the same bytes: the slot holds the picture
        // itself, in the slots' field order, until it comes back.
        slot.image = image;
        slot.image.setFieldOrder(own.order());
        return;
    }
    // A picture the engine cannot convert goes out black rather than as the
    // stale content of a recycled slot.
    if (!m_image_transform.transform(image, slot.image))
        slot.image.fillColor(0, 0, 0);
}

void qv_video_fifo::recycle(qv_fifo_item& item)
{
    if (item.image.data() == item.own.data())
        return;
    m_released.push_back(std::move(item.image));
    item.image = item.own;
}

std::vector<QVSDK::QVImage> qv_video_fifo::take_released()
{
    std::vector<QVSDK::QVImage> out;
    out.swap(m_released);
    return out;
}

bool qv_video_fifo::add_image(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, slot_loan loan,
                              unsigned long hw_time)
{
    const auto node = std::find(m_lent_video_fifo.begin(), m_lent_video_fifo.end(), loan.item);
    if (loan.item && node == m_lent_video_fifo.end())
        return true; // reallocated while it was written: the picture belongs to the old stream
    // A picture is taken to follow its predecessor; one frame of jitter is
    // absorbed by counting, only a larger jump re-anchors to the stamp.
    m_nLastFrameNumber += 1;
    const auto c = static_cast<int64_t>(pts_to_image_number(ptsStart));
    const int64_t d = c - m_nLastFrameNumber;
    if (d > 1 || d < -1) {
        g_print("qv_jt_renderer: video: nCurrentFrame = %lu, m_nLastFrameNumber = %lu, ptsStart = %s, ptsOldStart = %s\n",
                static_cast<unsigned long>(c), static_cast<unsigned long>(m_nLastFrameNumber),
                qv_renderer_statistics::format_time(ptsStart).c_str(),
                qv_renderer_statistics::format_time(m_nStartTime).c_str());
        m_nLastFrameNumber = c;
    }
    m_nStartTime = ptsStart;
    m_nRealPTS = ptsReal;
    m_nStopTime = ptsStop;
    m_statistics.nFrameArrivalTime = ptsStart;

    if (!loan.item)
        return false;
    qv_fifo_item& item = *loan.item;
    item.index = m_nLastFrameNumber;
    item.hw_time = hw_time;
    item.tp = std::chrono::steady_clock::now();
    m_video_fifo.splice(m_video_fifo.end(), m_lent_video_fifo, node);
    update_info_fifo();
    return true;
}

bool qv_video_fifo::add_image(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, const QVSDK::QVImage& image,
                              unsigned long hw_time)
{
    slot_loan loan = lend_slot();
    if (loan.item)
        fill_slot(image, *loan.item);
    return add_image(ptsStart, ptsStop, ptsReal, std::move(loan), hw_time);
}

bool qv_video_fifo::map_image(uint64_t nIndex, QVSDK::QVImage& image)
{
    if (m_video_fifo.empty()) {
        // Cleared and not allocated again: there is no picture to repeat.
        if (!m_pItem)
            return false;
        image = m_pItem->image;
        m_statistics.nRepeatedFrame += 1;
        m_dispatcher.repeat_event();
        g_print("qv_jt_renderer: [fifo empty] repeat render image m_pItem->index = %zd to nIndex = %zu\n",
                static_cast<ssize_t>(m_pItem->index), static_cast<size_t>(nIndex));
        return false;
    }

    // The newest due picture is shown; older due pictures behind it are skipped.
    const auto frame = static_cast<int64_t>(nIndex);
    bool bTaken = false;
    while (!m_video_fifo.empty()) {
        if (frame < m_video_fifo.front()->index)
            break;
        if (bTaken) {
            g_print("qv_jt_renderer: skip fifo frame m_pItem->index = %zd to nIndex = %zu\n",
                    static_cast<ssize_t>(m_pItem->index), static_cast<size_t>(nIndex));
            m_statistics.nSkipFrame += 1;
        }
        // The front becomes current; its list node carries the old current
        // picture to the free list (no node is allocated or freed).
        if (m_pItem) {
            recycle(*m_pItem);
            std::swap(m_pItem, m_video_fifo.front());
            m_free_video_fifo.splice(m_free_video_fifo.end(), m_video_fifo, m_video_fifo.begin());
        } else {
            m_pItem = std::move(m_video_fifo.front());
            m_video_fifo.pop_front();
        }
        bTaken = true;
    }
    if (!bTaken) {
        m_statistics.nRepeatedFrame += 1;
        m_dispatcher.repeat_event();
    }
    if (!m_pItem)
        return false;
    m_statistics.nFrameRendererTime = number_to_pts(m_pItem->index);
    image = m_pItem->image;
    update_info_fifo();
    return true;
}

void qv_video_fifo::update_info_fifo()
{
    if (m_video_fifo.empty())
        return;
    m_nStartIndex = m_video_fifo.front()->index;
    m_nStopIndex = m_video_fifo.back()->index;
    m_statistics.nFifoFullness = number_to_pts(m_nStopIndex - m_nStartIndex);
}

std::vector<qv_fifo_item_stat> qv_video_fifo::getHWstat() const
{
    std::vector<qv_fifo_item_stat> rows;
    rows.reserve(m_video_fifo.size());
    for (const item_ptr& item : m_video_fifo) {
        if (item->hw_time == 0)
            continue;
        qv_fifo_item_stat row;
        row.index = item->index;
        row.hw_time = static_cast<uint32_t>(item->hw_time);
        row.tp = item->tp;
        rows.push_back(row);
    }
    return rows;
}
