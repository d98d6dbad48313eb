// "src_audio<n>": one pad per audio line; each buffer is wrapped as a sound
// without copying and queued in its line's FIFO.
#include "qv_pad_common.h"
#include "qv_pads.h"
#include "qv_renderer.h"

#include "qv_sound.h"

#include <cstring>

namespace {

// Byte order is not recorded: big-endian input is queued as little-endian.
uint16_t sample_bits(const char* p)
{
    if (!std::strcmp(p, "S8"))
        return 8;
    if (!std::strcmp(p, "S24LE") || !std::strcmp(p, "S24BE"))
        return 24;
    if (!std::strcmp(p, "S32LE") || !std::strcmp(p, "S32BE"))
        return 32;
    return 16;
}

} // namespace

gboolean gst_pad_audio_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    return gst_pad_data_sink_event(pad, parent, event);
}

gboolean gst_pad_audio_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    if (!parent)
        return FALSE;
    return gst_pad_query_default(pad, parent, query);
}

GstFlowReturn gst_pad_audio_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    const gchar* pFormat = nullptr;
    int rate = 0, channels = 0;
    std::unique_ptr<GstCaps, void (*)(GstCaps*)> pCaps(nullptr, gst_caps_unref);
    const auto check = [&] {
        pCaps.reset(gst_pad_get_current_caps(pad));
        if (!pCaps)
            return qv_verdict::unusable("the pad has no caps");
        // Empty caps end the chain with the caps test's own (non-error) value.
        if (gst_caps_is_empty(pCaps.get()))
            return qv_verdict::flow(static_cast<GstFlowReturn>(1));
        const GstStructure* s = gst_caps_get_structure(pCaps.get(), 0);
        pFormat = gst_structure_get_string(s, "format");
        if (!pFormat)
            return qv_verdict::unusable("its caps give no sample format");
        if (!gst_structure_get_int(s, "rate", &rate) || !gst_structure_get_int(s, "channels", &channels) ||
            rate <= 0 || channels <= 0)
            return qv_verdict::unusable("its caps give no sample rate or channel count");
        return qv_verdict::ok();
    };
    return qv_chain(pad, parent, buffer, nullptr, check, [&](qv_renderer& renderer, const qv_buffer_map& map) {
        const QVSDK::QVSoundFormat format(0, static_cast<uint32_t>(rate), sample_bits(pFormat),
                                          static_cast<uint16_t>(channels));
        QVSDK::QVSound sound;
        sound.init(map.data(), map.size(), format);

        // How long the buffer plays, from its samples: where an unstamped
        // buffer after this one starts.
        const auto frameBytes = static_cast<guint64>(channels) * (sample_bits(pFormat) / 8);
        const GstClockTime length = gst_util_uint64_scale_int(map.size() / frameBytes, GST_SECOND, rate);
        GstClockTime pts = GST_BUFFER_PTS(buffer);
        GstClockTime span = GST_BUFFER_DURATION(buffer);
        if (!qv_pad_guard::of(pad).stamp(pad, parent, pts, span, length))
            return qv_verdict::unusable("it has no time stamp and no buffer before it had one");
        const GstClockTime duration = GST_BUFFER_DURATION(buffer);
        GstClockTime ptsEnd = duration == GST_CLOCK_TIME_NONE ? pts : pts + duration;
        if (!qv_place(pad, renderer, pts, ptsEnd))
            return qv_verdict::ok();
        renderer.add_audio_frame(pad, pts, ptsEnd, GST_BUFFER_DTS(buffer), sound);
        return qv_verdict::ok();
    });
}
