// Closed captions between the pictures they arrive with and the frames they
// go out in. Each caption form the video metadata can carry becomes cc_data
// triplets in one of three queues (CEA-608 field 1, field 2, DTVCC); every
// output frame takes the cc_count its frame rate allows: the 608 slots first,
// then DTVCC, then padding. What does not fit waits for the next frames;
// only a queue that grows beyond a few seconds loses its oldest entries.
// Used by the render thread alone.
#pragma once

#include "qv_cdp.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// The forms of the video caption metadata, numbered as GStreamer numbers them.
enum class qv_caption_form : int {
    cea608_raw = 1,     // byte pairs, field 1
    cea608_s334_1a = 2, // triplets: field bit (0x80 = field 1) and line offset, then a byte pair
    cea708_cc_data = 3, // cc_data triplets
    cea708_cdp = 4,     // caption distribution packets
};

struct qv_cc_counters {
    uint64_t nFramesWithCaptions = 0; // frames that carried at least one caption triplet
    uint64_t nTripletsSent = 0;       // caption triplets sent (padding not counted)
    uint64_t nTripletsQueued = 0;     // waiting now
    uint64_t nTripletsDropped = 0;    // lost to a full queue
    uint64_t nBadInputs = 0;          // caption blocks refused as malformed
};

class qv_cc_queue {
public:
    static constexpr size_t kMaxQueued = 4096; // per queue: seconds of captions at any rate

    // The output frame rate; false when it has no cdp frame rate code (the
    // queue then takes nothing and gives no packet).
    bool init(float fFps);
    bool ready() const { return m_rate.nCode != 0; }

    // Queues one block of caption data. False, with the reason, when the
    // block is malformed: nothing of it is queued.
    bool add(qv_caption_form eForm, const uint8_t* pData, size_t nSize, std::string& strWhy);

    // The cc_data of the next frame: exactly cc_count triplets.
    void next_frame(std::vector<qv_cc_triplet>& out);

    // The next frame's cdp (sequence counter running on); its size, 0 when not ready.
    size_t next_cdp(uint8_t* pOut, size_t nCapacity);

    // Forgets what waits (a new stream); the sequence counter runs on.
    void clear();

    const qv_cc_counters& counters() const { return m_counters; }
    const qv_cdp_rate& rate() const { return m_rate; }

private:
    void push(std::deque<qv_cc_triplet>& q, const qv_cc_triplet& t);
    void push_608(bool bField1, uint8_t b1, uint8_t b2);
    bool add_triplets(const uint8_t* pData, size_t nCount);

    qv_cdp_rate m_rate;
    bool m_bHighRate = false; // over 30 frames/s: one 608 slot a frame, fields taking turns
    bool m_bField2Turn = false;
    uint16_t m_nSequence = 0;
    std::deque<qv_cc_triplet> m_field1, m_field2, m_dtvcc;
    qv_cc_counters m_counters;
    std::vector<qv_cc_triplet> m_frame; // scratch of next_cdp
    qv_cdp_packet m_packet;             // scratch of add
};
