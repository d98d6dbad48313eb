// Queue of pictures between the video pad and the render thread. Slots are
// reserved once in the output format; adding converts into a free slot,
// mapping hands a slot over by output frame number. A picture that already is
// in the slots' format and size and comes with an owner of its memory is held
// in its slot instead of copied. Used under the FIFO engine's lock; it has
// none of its own.
//
// Memory follows the work: a slot's picture costs memory only once something
// has been written into it, and free slots are reused most recently freed
// first, so a FIFO that runs at the latency keeps the same few slots warm
// whatever its capacity. A slot left unused for `m_nIdleFrames` output frames
// gives its pages back (one slot per picture added, outside the lock) and
// joins the spare slots, which are used only when no warm slot is free.
#pragma once

#include "qv_alarms_dispatcher.h"
#include "qv_renderer_statistics.h"
#include "qv_types.h"

#include "qv_memory_manager.h"
#include "qv_transform_image.h"
#include "qvimage.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

class qv_video_fifo {
public:
    struct qv_fifo_item {
        int64_t index = 0;
        QVSDK::QVImage image; // what goes out: the slot's own picture or a held one
        QVSDK::QVImage own;   // the slot's own picture, allocated once
        uint64_t hw_time = 0;
        std::chrono::steady_clock::time_point tp{};
        bool committed = false; // own has been written since it was reserved or given back
        int64_t freed_at = 0;   // output frame at which the slot last went back to the free list
    };
    using item_ptr = std::shared_ptr<qv_fifo_item>;

    qv_video_fifo(qv_video_statistics& statistics, qv_alarms_dispatcher& dispatcher);

    void init(float fps, QVSDK::QVEnumFormats format, const QVSDK::QVSize& size, QVSDK::QVFieldOrder order);
    int alloc(size_t n);
    void clear();
    void reset();
    item_ptr get_free_item();

    uint64_t pts_to_image_number(uint64_t pts) const;
    uint64_t number_to_pts(int64_t n) const;

    // A free slot lent out to be written without the engine's lock, so that
    // the render thread never waits while a picture is converted. The FIFO
    // keeps the slot on a list of its own meanwhile: a reallocation drops it,
    // a reset leaves it to come back.
    struct slot_loan {
        item_ptr item; // empty when no slot was free
        item_ptr idle; // a long unused slot whose pages go back meanwhile, or empty
    };
    slot_loan lend_slot();
    // Without the lock: gives the lent idle slot's pages back to the system.
    static void give_back(slot_loan& loan);
    // Without the lock: holds image in the lent slot when it can (see the top),
    // otherwise converts it into the slot (black if it cannot).
    void fill_slot(const QVSDK::QVImage& image, qv_fifo_item& slot);
    // Queues a lent slot, numbering it; false when no slot was free.
    bool add_image(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, slot_loan loan, unsigned long hw_time);
    // All three steps at once, for callers that hold the lock anyway.
    bool add_image(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, const QVSDK::QVImage& image,
                   unsigned long hw_time);
    bool map_image(uint64_t nIndex, QVSDK::QVImage& image);
    void update_info_fifo();
    std::vector<qv_fifo_item_stat> getHWstat() const;

    // Held pictures whose slots came back, for the caller to let go of after
    // the lock: their owners may free memory or return it to a pool.
    std::vector<QVSDK::QVImage> take_released();

    size_t queued() const { return m_video_fifo.size(); }
    size_t free_items() const { return m_free_video_fifo.size() + m_spare_video_fifo.size(); }
    // Slots whose own picture memory has been written and not given back.
    size_t committed_items() const;

    // Set up before streaming starts; read by the render thread without the
    // lock. The transform is the video pad thread's alone.
    float m_fps = 25.0f;
    QVSDK::QVEnumFormats m_video_format{};
    QVSDK::QVSize m_video_size;
    QVSDK::QVFieldOrder m_order{};
    QVSDK::QVMemoryManager m_video_memory_manager;
    QVSDK::QVTransformImage m_image_transform;
    // Everything below guarded by the engine's m_csFifo, except the two
    // indexes, which the render thread also reads without it during pre-roll.
    std::list<item_ptr> m_video_fifo;      // oldest first
    std::list<item_ptr> m_free_video_fifo; // most recently freed last
    std::list<item_ptr> m_spare_video_fifo; // free and holding no memory of their own
    std::list<item_ptr> m_lent_video_fifo; // being written by the pad thread
    item_ptr m_pItem;                      // picture last handed out
    std::vector<QVSDK::QVImage> m_released; // see take_released
    uint64_t m_nStartTime = 0;
    uint64_t m_nStopTime = 0;
    std::atomic<int64_t> m_nStartIndex{0};
    std::atomic<int64_t> m_nStopIndex{0};
    uint64_t m_nRealPTS = 0;
    int64_t m_nLastFrameNumber = -1;
    int64_t m_nOutputFrames = 0; // output frames asked for since the slots were reserved
    int64_t m_nIdleFrames = 250; // unused this long, a slot gives its memory back (init: 10 s)
    qv_video_statistics& m_statistics;
    qv_alarms_dispatcher& m_dispatcher;

private:
    // A slot going back to the free list lets go of a held picture.
    void recycle(qv_fifo_item& item);
    // Both clear() and reset() start numbering and stamping afresh.
    void forget_positions();
    item_ptr make_item() const;
    bool same_layout(const qv_fifo_item& item) const;
};
