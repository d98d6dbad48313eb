#include "qv_frame_ancillary.h"

void qv_frame_ancillary_queue::push(int64_t nIndex, qv_frame_ancillary&& record)
{
    std::lock_guard<std::mutex> lock(m_cs);
    // Records nobody takes (no device running) must not pile up.
    if (m_entries.size() >= kMaxEntries)
        m_entries.pop_front();
    m_entries.push_back({nIndex, std::move(record)});
}

qv_frame_ancillary_queue::taken qv_frame_ancillary_queue::take(int64_t nShown, qv_cc_queue& captions,
                                                               qv_frame_ancillary& current, std::string& strWhy)
{
    taken result;
    std::deque<entry> due;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        while (!m_entries.empty() && m_entries.front().nIndex <= nShown) {
            due.push_back(std::move(m_entries.front()));
            m_entries.pop_front();
        }
    }
    for (entry& e : due) {
        for (const qv_caption_block& b : e.record.captions) {
            ++result.nBlocks;
            if (!captions.add(b.eForm, b.data.data(), b.data.size(), strWhy))
                ++result.nBad;
        }
    }
    if (!due.empty()) {
        current = std::move(due.back().record);
        current.captions.clear();
    }
    return result;
}

void qv_frame_ancillary_queue::clear()
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_entries.clear();
}
