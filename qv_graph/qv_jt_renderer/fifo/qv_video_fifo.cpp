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
    m_nIdleFrames = std::max<int64_t>(1, static_cast<int64_t>(fps * 10.0f + 0.5f));
}

qv_video_fifo::item_ptr qv_video_fifo::make_item() const
{
    auto item = std::make_shared<qv_fifo_item>();
    item->own.InitImage(m_video_size, m_order, m_video_format);
    item->image = item->own;
    return item;
}

bool qv_video_fifo::same_layout(const qv_fifo_item& item) const
{
    const QVSDK::QVImage& own = item.own;
    return own.width() == m_video_size.m_nWidth && own.height() == m_video_size.m_nHeight &&
           own.format() == m_video_format && own.order() == m_order;
}

int qv_video_fifo::alloc(size_t n)
{
    // Slots of the same layout keep their memory, warm ones first in line
    // for reuse; lent slots belong to the old stream and go. New slots are
    // reserved, not written: they cost memory only once a picture is put
    // into them.
    for (const item_ptr& item : m_video_fifo)
        recycle(*item);
    std::list<item_ptr> warm;
    std::list<item_ptr> spare;
    warm.splice(warm.end(), m_free_video_fifo);
    warm.splice(warm.end(), m_video_fifo);
    spare.splice(spare.end(), m_spare_video_fifo);
    item_ptr current = std::move(m_pItem);
    if (current)
        recycle(*current);
    clear();
    auto keep = [this](std::list<item_ptr>& from, std::list<item_ptr>& to) {
        for (auto it = from.begin(); it != from.end();) {
            const auto next = std::next(it);
            if (same_layout(**it))
                to.splice(to.end(), from, it);
            it = next;
        }
    };
    keep(warm, m_free_video_fifo);
    keep(spare, m_spare_video_fifo);
    m_nOutputFrames = 0;
    for (item_ptr& item : m_free_video_fifo)
        item->freed_at = 0;
    // Surplus goes coldest first.
    while (m_free_video_fifo.size() + m_spare_video_fifo.size() > n) {
        if (!m_spare_video_fifo.empty())
            m_spare_video_fifo.pop_front();
        else
            m_free_video_fifo.pop_front();
    }
    while (m_free_video_fifo.size() + m_spare_video_fifo.size() < n)
        m_spare_video_fifo.push_front(make_item());
    // One more picture is current from the start, so that a repeat is
    // possible before the first real frame arrives: the one picture written now.
    m_pItem = current && same_layout(*current) ? std::move(current) : make_item();
    m_pItem->index = 0;
    m_pItem->own.fillColor(0, 0, 0);
    m_pItem->committed = true;
    return 1;
}

void qv_video_fifo::clear()
{
    m_video_fifo.clear();
    m_free_video_fifo.clear();
    m_spare_video_fifo.clear();
    m_lent_video_fifo.clear();
    m_pItem.reset();
    m_released.clear();
    forget_positions();
}

void qv_video_fifo::reset()
{
    for (const item_ptr& item : m_video_fifo) {
        recycle(*item);
        item->freed_at = m_nOutputFrames;
    }
    m_free_video_fifo.splice(m_free_video_fifo.end(), m_video_fifo);
    forget_positions();
}

void qv_video_fifo::forget_positions()
{
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
    slot_loan loan;
    // The most recently freed slot, moved node and all, so that queueing
    // allocates nothing; a spare one only when no warm slot is free.
    std::list<item_ptr>& from = m_free_video_fifo.empty() ? m_spare_video_fifo : m_free_video_fifo;
    if (from.empty())
        return loan;
    const auto node = std::prev(from.end());
    loan.item = *node;
    m_lent_video_fifo.splice(m_lent_video_fifo.end(), from, node);
    // The coldest warm slot, when it has not been used for long, gives its
    // memory back: one per picture, so that a drained FIFO shrinks without a
    // burst of work.
    if (m_free_video_fifo.empty() || m_nOutputFrames - m_free_video_fifo.front()->freed_at < m_nIdleFrames)
        return loan;
    if (!m_free_video_fifo.front()->committed) {
        m_spare_video_fifo.splice(m_spare_video_fifo.end(), m_free_video_fifo, m_free_video_fifo.begin());
        return loan;
    }
    loan.idle = m_free_video_fifo.front();
    m_lent_video_fifo.splice(m_lent_video_fifo.end(), m_free_video_fifo, m_free_video_fifo.begin());
    return loan;
}

void qv_video_fifo::give_back(slot_loan& loan)
{
    if (loan.idle)
        loan.idle->own.releaseMemory();
}

size_t qv_video_fifo::committed_items() const
{
    size_t n = m_pItem && m_pItem->committed ? 1 : 0;
    for (const auto* list : {&m_video_fifo, &m_free_video_fifo, &m_spare_video_fifo, &m_lent_video_fifo})
        for (const item_ptr& item : *list)
            n += item->committed ? 1 : 0;
    return n;
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
    slot.committed = true;
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
    if (loan.idle) {
        // Its pages went back: it waits with the spare slots, unless the
        // slots were reallocated meanwhile.
        const auto idle = std::find(m_lent_video_fifo.begin(), m_lent_video_fifo.end(), loan.idle);
        if (idle != m_lent_video_fifo.end()) {
            loan.idle->committed = false;
            m_spare_video_fifo.splice(m_spare_video_fifo.end(), m_lent_video_fifo, idle);
        }
    }
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
    give_back(loan);
    return add_image(ptsStart, ptsStop, ptsReal, std::move(loan), hw_time);
}

bool qv_video_fifo::map_image(uint64_t nIndex, QVSDK::QVImage& image)
{
    m_nOutputFrames += 1;
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
            m_pItem->freed_at = m_nOutputFrames;
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
