#include "qv_cc_queue.h"

namespace {

constexpr uint8_t k_marker = 0xF8;
constexpr uint8_t k_valid = 0x04;
// Padding of each slot kind: cc_valid clear, 608 slots with the null pair.
const qv_cc_triplet k_pad_field1{0xF8, 0x80, 0x80};
const qv_cc_triplet k_pad_field2{0xF9, 0x80, 0x80};
const qv_cc_triplet k_pad_dtvcc{0xFA, 0x00, 0x00};

bool null_608(uint8_t b1, uint8_t b2)
{
    return (b1 & 0x7F) == 0 && (b2 & 0x7F) == 0;
}

} // namespace

bool qv_cc_queue::init(float fFps)
{
    m_rate = qv_cdp_rate_for(fFps);
    m_bHighRate = fFps > 31.0f;
    m_bField2Turn = false;
    clear();
    m_counters = qv_cc_counters{};
    return ready();
}

void qv_cc_queue::clear()
{
    m_field1.clear();
    m_field2.clear();
    m_dtvcc.clear();
    m_counters.nTripletsQueued = 0;
}

void qv_cc_queue::push(std::deque<qv_cc_triplet>& q, const qv_cc_triplet& t)
{
    if (q.size() >= kMaxQueued) {
        q.pop_front();
        ++m_counters.nTripletsDropped;
        --m_counters.nTripletsQueued;
    }
    q.push_back(t);
    ++m_counters.nTripletsQueued;
}

void qv_cc_queue::push_608(bool bField1, uint8_t b1, uint8_t b2)
{
    // A null pair says nothing: the slot it would take goes out as padding anyway.
    if (null_608(b1, b2))
        return;
    push(bField1 ? m_field1 : m_field2,
         {static_cast<uint8_t>(k_marker | k_valid | (bField1 ? qv_cc_608_field1 : qv_cc_608_field2)), b1, b2});
}

bool qv_cc_queue::add_triplets(const uint8_t* pData, size_t nCount)
{
    for (size_t i = 0; i < nCount; ++i) {
        const qv_cc_triplet t{static_cast<uint8_t>(pData[3 * i] | k_marker), pData[3 * i + 1], pData[3 * i + 2]};
        if (!t.valid())
            continue;
        switch (t.type()) {
        case qv_cc_608_field1:
        case qv_cc_608_field2:
            push_608(t.type() == qv_cc_608_field1, t.b1, t.b2);
            break;
        default:
            push(m_dtvcc, t);
            break;
        }
    }
    return true;
}

bool qv_cc_queue::add(qv_caption_form eForm, const uint8_t* pData, size_t nSize, std::string& strWhy)
{
    if (!ready())
        return true;
    if (!pData || nSize == 0) {
        strWhy = "empty caption data";
        ++m_counters.nBadInputs;
        return false;
    }
    switch (eForm) {
    case qv_caption_form::cea608_raw:
        if (nSize % 2 != 0) {
            strWhy = "CEA-608 byte pairs of odd length " + std::to_string(nSize);
            break;
        }
        for (size_t i = 0; i < nSize; i += 2)
            push_608(true, pData[i], pData[i + 1]);
        return true;
    case qv_caption_form::cea608_s334_1a:
        if (nSize % 3 != 0) {
            strWhy = "S334-1 Annex A triplets of length " + std::to_string(nSize);
            break;
        }
        for (size_t i = 0; i < nSize; i += 3)
            push_608((pData[i] & 0x80) != 0, pData[i + 1], pData[i + 2]);
        return true;
    case qv_caption_form::cea708_cc_data:
        if (nSize % 3 != 0) {
            strWhy = "cc_data triplets of length " + std::to_string(nSize);
            break;
        }
        return add_triplets(pData, nSize / 3);
    case qv_caption_form::cea708_cdp: {
        const qv_cdp_error e = qv_cdp_read(pData, nSize, m_packet);
        if (e != qv_cdp_error::none) {
            strWhy = std::string("malformed cdp: ") + qv_cdp_error_text(e);
            break;
        }
        for (const qv_cc_triplet& t : m_packet.triplets) {
            const uint8_t b[3] = {t.b0, t.b1, t.b2};
            add_triplets(b, 1);
        }
        return true;
    }
    default:
        strWhy = "unknown caption type " + std::to_string(static_cast<int>(eForm));
        break;
    }
    ++m_counters.nBadInputs;
    return false;
}

void qv_cc_queue::next_frame(std::vector<qv_cc_triplet>& out)
{
    out.clear();
    if (!ready())
        return;
    size_t nSent = 0;
    auto take = [&](std::deque<qv_cc_triplet>& q, const qv_cc_triplet& pad) {
        if (q.empty()) {
            out.push_back(pad);
            return;
        }
        out.push_back(q.front());
        q.pop_front();
        ++nSent;
    };
    if (m_bHighRate) {
        // One 608 slot: the fields take turns, or the one with data has it.
        bool bField2 = m_bField2Turn;
        if (bField2 ? m_field2.empty() : m_field1.empty())
            bField2 = !bField2;
        take(bField2 ? m_field2 : m_field1, bField2 ? k_pad_field2 : k_pad_field1);
        m_bField2Turn = !bField2;
    } else {
        take(m_field1, k_pad_field1);
        take(m_field2, k_pad_field2);
    }
    while (out.size() < m_rate.nCcCount)
        take(m_dtvcc, k_pad_dtvcc);
    m_counters.nTripletsSent += nSent;
    m_counters.nTripletsQueued -= nSent;
    if (nSent > 0)
        ++m_counters.nFramesWithCaptions;
}

size_t qv_cc_queue::next_cdp(uint8_t* pOut, size_t nCapacity)
{
    if (!ready())
        return 0;
    next_frame(m_frame);
    return qv_cdp_write(m_rate.nCode, m_nSequence++, m_frame.data(), m_frame.size(), pOut, nCapacity);
}
