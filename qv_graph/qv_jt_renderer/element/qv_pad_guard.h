// What a sink pad remembers of its input from one buffer to the next, so that
// a bad buffer costs one frame and one bus warning, never the programme:
// - a buffer the element cannot use is dropped; the first of a run of them
//   posts a warning naming the pad and the reason, a good buffer ends the run;
// - a buffer without a time stamp is stamped where the previous one ended
//   (its stamp plus its duration, or a frame period), with one warning a
//   stream (unstamped buffers mixed into a stream would otherwise warn at the
//   frame rate);
// - caps that leave out what has a safe default are reported once;
// - stamps are mapped through the pad's time segment into running time, so
//   that playlists, seeks and segments that do not start at 0 continue the
//   programme instead of restarting it;
// - whether upstream is live, which decides whether the pad paces it.
// Everything here runs under the pad's stream lock (chain and serialized
// events only), so the state needs no lock of its own.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <string>

class qv_pad_guard {
public:
    // The guard of `pad`, made on first use and freed with the pad.
    static qv_pad_guard& of(GstPad* pad);

    // A serialized event: a new stream, segment or flush forgets the previous
    // stamp (the next stream has its own time base); new caps may be reported again.
    void on_event(GstEvent* event);

    // Drops the buffer: posts `why` on the bus for the first bad buffer of a
    // run. Returns what the chain returns: the stream goes on.
    GstFlowReturn drop(GstPad* pad, GstObject* parent, const std::string& why);
    // The buffer was used: a later bad buffer starts a new run.
    void used()
    {
        m_bBadRun = false;
        m_bHadData = true;
    }

    // Gives a buffer without a PTS the end of the previous buffer; false when
    // there is none to go by. `period` is the length of a buffer without a
    // duration. Records where this buffer ends for the next one.
    bool stamp(GstPad* pad, GstObject* parent, GstClockTime& pts, GstClockTime& duration, GstClockTime period);

    // True once per caps: the caller reports what the caps leave out.
    bool first_for_caps();

    // Maps [pts, end) through the pad's time segment into running time (end
    // may be GST_CLOCK_TIME_NONE). False when the buffer lies outside the
    // segment: clipped away (a decoder's frames before a seek target). Without
    // a time segment the stamps stay as they are.
    bool to_running_time(GstClockTime& pts, GstClockTime& end) const;

    // Upstream of the pad is live, as its latency query answers (asked once a
    // stream); a pad whose upstream cannot tell is taken as live.
    bool upstream_live(GstPad* pad);

    // The pad has passed on at least one buffer in this stream.
    // Read from other pads' threads (end of stream), hence atomic.
    bool had_data() const { return m_bHadData.load(std::memory_order_relaxed); }

    // Posts a warning from a pad: "<pad>: <text>".
    static void warn(GstPad* pad, GstObject* parent, const std::string& text);

private:
    bool m_bBadRun = false;                        // the current run of bad buffers was reported
    bool m_bRestampReported = false;               // restamping in this stream was reported
    bool m_bCapsReported = false;                  // the current caps' defaults were reported
    GstClockTime m_nNextPts = GST_CLOCK_TIME_NONE; // where the previous buffer ended
    std::atomic<bool> m_bHadData{false};           // a buffer went on in this stream
    int m_nLive = -1;                              // upstream live: 1, not: 0, not asked yet: -1
    bool m_bTimeSegment = false;                   // m_segment holds the pad's time segment
    GstSegment m_segment{};
};
