// What a picture's metadata asks to go out with it (captions, AFD and bar
// data, time code), on its way from the video pad to the render thread. The
// video FIFO numbers pictures by output frame; the records here carry the same
// number, so that the render thread takes them with the picture it shows.
#pragma once

#include "qv_afd_bar.h"
#include "qv_cc_queue.h"
#include "qv_types.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

struct qv_caption_block {
    qv_caption_form eForm = qv_caption_form::cea708_cc_data;
    std::vector<uint8_t> data;
};

struct qv_frame_ancillary {
    std::vector<qv_caption_block> captions;
    bool bAfd = false;
    qv_afd_bar afd;
    qv_timecode timecode;     // bValid false when the picture has none
    std::string strTimecode;  // its text, for the statistics

    bool empty() const { return captions.empty() && !bAfd && !timecode.bValid; }
};

class qv_frame_ancillary_queue {
public:
    // Pad thread: the record of the picture the FIFO numbered nIndex.
    void push(int64_t nIndex, qv_frame_ancillary&& record);

    // Render thread, with the number of the picture it shows: the captions of
    // every record up to it go into the caption queue in order (those of
    // pictures skipped as late too); AFD and time code are those of the newest
    // such record. When no record is due (a repeated picture) current is left
    // as it was. Counts the caption blocks met and the malformed ones among
    // them (strWhy says why the last was refused).
    struct taken {
        size_t nBlocks = 0;
        size_t nBad = 0;
    };
    taken take(int64_t nShown, qv_cc_queue& captions, qv_frame_ancillary& current, std::string& strWhy);

    // A new stream numbers its pictures afresh.
    void clear();

private:
    struct entry {
        int64_t nIndex;
        qv_frame_ancillary record;
    };
    static constexpr size_t kMaxEntries = 1024; // beyond any FIFO depth

    std::mutex m_cs;
    std::deque<entry> m_entries; // guarded by m_cs, oldest first
};
