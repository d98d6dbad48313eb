#include "qv_thread_priority.h"

#include <glib.h>

#include <atomic>
#include <cstring>
#include <pthread.h>
#include <sched.h>

namespace {

// High enough to preempt every normal thread and the pads' streaming threads,
// low enough to leave interrupt threads and watchdogs (usually 50 and 99) alone.
constexpr int k_render_priority = 20;

std::atomic<bool> g_bNoticePrinted{false};

} // namespace

bool qv_make_thread_realtime()
{
    sched_param param{};
    param.sched_priority = k_render_priority;
    // Round robin rather than FIFO: several render threads (one per element)
    // at the same priority still take turns.
    const int err = pthread_setschedparam(pthread_self(), SCHED_RR, &param);
    if (err == 0)
        return true;
    if (!g_bNoticePrinted.exchange(true))
        g_print("qv_jt_renderer: real-time scheduling not permitted (%s), render thread runs at normal priority\n",
                std::strerror(err));
    return false;
}
