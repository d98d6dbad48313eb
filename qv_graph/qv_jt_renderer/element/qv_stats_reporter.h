// Statistics and trouble for applications, on the bus.
//
// The reporter runs its own thread while play-out runs. Every interval it
// posts the statistics as an element message ("qvjtrenderer-stats", the same
// structure the "stats" property returns). Independently of the interval it
// watches the counters that mean trouble (device drops, repeated and skipped
// frames, dropped samples, FIFO errors) and posts a warning when one moves,
// and it turns the render loop's reports (play-out restarts after a FIFO
// underflow or overflow or a device failure, the output device lost and back)
// into warnings.
#pragma once

#include "qv_renderer_statistics.h"

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class qv_stats_reporter {
public:
    qv_stats_reporter(GstElement* pElement, qv_renderer_statistics& statistics);
    ~qv_stats_reporter();
    qv_stats_reporter(const qv_stats_reporter&) = delete;
    qv_stats_reporter& operator=(const qv_stats_reporter&) = delete;

    // Milliseconds between two statistics messages; 0: none. Takes effect at once.
    void set_interval(uint32_t nMs);
    uint32_t interval() const;
    // The render loop's "output device lost" flag; it must outlive the reporter.
    void watch_output_down(const std::atomic<bool>* pDown);

    void start();
    void stop();

    // From the render loop; cheap, never blocks on the bus.
    void note_restart(const char* pReason);

    // A new structure with every figure of the record; the caller owns it.
    static GstStructure* snapshot(qv_renderer_statistics& statistics);

private:
    struct counters {
        uint64_t nDropped = 0;
        uint64_t nRepeated = 0;
        uint64_t nSkipped = 0;
        uint64_t nSamplesDropped = 0;
        std::vector<std::string> errors;
    };

    void run();
    counters read_counters();
    void check_counters(counters& last);
    void flush_notes();
    void post_warning(const std::string& strText);

    GstElement* m_pElement;
    qv_renderer_statistics& m_statistics;
    mutable std::mutex m_cs;
    std::condition_variable m_cv;
    std::thread m_thread;
    bool m_bRunning = false;
    bool m_bWasDown = false;
    uint32_t m_nIntervalMs = 0;
    const std::atomic<bool>* m_pDown = nullptr;
    std::vector<std::string> m_restarts;
};
