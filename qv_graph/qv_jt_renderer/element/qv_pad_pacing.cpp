#include "qv_pad_common.h"
#include "qv_renderer.h"

bool qv_place(GstPad* pad, qv_renderer& renderer, GstClockTime& pts, GstClockTime& end)
{
    qv_pad_guard& guard = qv_pad_guard::of(pad);
    if (!guard.to_running_time(pts, end))
        return false;
    if (guard.upstream_live(pad))
        return true;
    renderer.pace_input(pad, pts);
    // A flush woke the wait: this buffer belongs to the position left behind.
    return !GST_PAD_IS_FLUSHING(pad);
}
