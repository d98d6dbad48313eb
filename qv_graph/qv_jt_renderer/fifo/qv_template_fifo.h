// Queue for packet-like streams (teletext, raw VBI, SCTE-104): one output
// frame's payload per item, numbered by output frame. Used under the FIFO
// engine's lock; it has none of its own.
#pragma once

#include "qv_renderer_statistics.h"
#include "qv_types.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

// A time code that came with a packet, already in the driver's layout.
// The element side fills it from the buffer's time code meta, so that this
// library needs no GStreamer; pText is the capture side's own text form
// (shown in the statistics) and is only read during the call.
struct qv_input_timecode {
    v4l2_timecode timecode{};
    const char* pText = nullptr;
};

class qv_template_fifo {
public:
    struct qv_fifo_item {
        int64_t index = 0;
        std::vector<uint8_t> payload; // capacity kept across recycling; only grows
        size_t size = 0;              // bytes of payload in use
        qv_timecode timecode;

        void append(const uint8_t* pData, size_t n);
    };
    using item_ptr = std::shared_ptr<qv_fifo_item>;

    // pStatisticsLock guards the record's text fields, which the application
    // reads from its own thread; null when nobody else reads them.
    explicit qv_template_fifo(qv_template_statistics& statistics, std::mutex* pStatisticsLock = nullptr);

    bool init(float fps);
    void alloc(size_t n);
    void clear();
    void reset();
    item_ptr get_free_item();

    int64_t pts_to_image_number(uint64_t pts) const;
    uint64_t number_to_pts(int64_t n) const;

    bool add_data(uint64_t ptsStart, uint64_t ptsStop, const uint8_t* pData, size_t size,
                  const qv_input_timecode* pTimeCode);
    bool map_data(uint64_t nIndex, std::vector<uint8_t>& vData, qv_timecode* pTimecode);
    void skip_data(uint64_t frames);
    void update_info_fifo();

    size_t queued() const { return m_fifo.size(); }
    size_t free_items() const { return m_free_fifo.size(); }

    float m_fps = 25.0f;
    std::list<item_ptr> m_fifo;      // oldest first
    std::list<item_ptr> m_free_fifo; // recycled, most recently freed last
    uint64_t m_last_render_frame = 0;
    uint64_t m_last_input_frame = 0;
    uint64_t m_nStart = 0;
    // Packets stamped with exact picture times (SCTE-104 takes the newest
    // picture's) each go out with their own frame, or the next free one when
    // several share a picture; streams of a packet a frame count instead,
    // which absorbs stamp jitter.
    bool m_bExactFrames = false;
    qv_template_statistics& m_statistics;
    std::mutex* m_pStatisticsLock;
};
