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
            return GST_FLOW_ERROR;
        // Empty caps end the chain with the caps test's own (non-error) value.
        if (gst_caps_is_empty(pCaps.get()))
            return static_cast<GstFlowReturn>(1);
        const GstStructure* s = gst_caps_get_structure(pCaps.get(), 0);
        pFormat = gst_structure_get_string(s, "format");
        if (!pFormat)
            return GST_FLOW_ERROR;
        if (!gst_structure_get_int(s, "rate", &rate) || !gst_structure_get_int(s, "channels", &channels))
            return GST_FLOW_ERROR;
        return GST_FLOW_OK;
    };
    return qv_chain(parent, buffer, nullptr, check, [&](qv_renderer& renderer, const qv_buffer_map& map) {
        const QVSDK::QVSoundFormat format(0, static_cast<uint32_t>(rate), sample_bits(pFormat),
                                          static_cast<uint16_t>(channels));
        QVSDK::QVSound sound;
        sound.init(map.data(), map.size(), format);

        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        const GstClockTime duration = GST_BUFFER_DURATION(buffer);
        const GstClockTime ptsEnd = duration == GST_CLOCK_TIME_NONE ? pts : pts + duration;
        renderer.add_audio_frame(pad, pts, ptsEnd, GST_BUFFER_DTS(buffer), sound);
        return GST_FLOW_OK;
    });
}
