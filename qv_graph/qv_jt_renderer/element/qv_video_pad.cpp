// "sink_video": wraps each mapped buffer as an image without copying and
// queues it through the renderer. A buffer that may stay with us as long as
// the FIFO is deep goes with its image, so that the FIFO can hold it instead
// of copying it.
#include "qv_pad_common.h"
#include "qv_pads.h"
#include "qv_renderer.h"

#include "qv_frame_ancillary.h"
#include "qv_vbi_convert.h"
#include "qvimage.h"
#include "qvrational.h"
#include "qvsize.h"

#include <gst/video/video.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

using caps_ptr = std::unique_ptr<GstCaps, void (*)(GstCaps*)>;

// Only four-character names are told apart; everything else, the RGB formats
// of the template included, is taken as UYVY.
QVSDK::QVEnumFormats format_from_caps(const char* p)
{
    if (std::strlen(p) == 4) {
        if (!std::strcmp(p, "I420"))
            return QVSDK::FORMAT_IYUV;
        if (!std::strcmp(p, "YV12"))
            return QVSDK::FORMAT_YV12;
        if (!std::strcmp(p, "NV12"))
            return QVSDK::FORMAT_NV12;
        if (!std::strcmp(p, "YUY2"))
            return QVSDK::FORMAT_YUY2;
        if (!std::strcmp(p, "YVYU"))
            return QVSDK::FORMAT_YVYU;
    }
    return QVSDK::FORMAT_UYVY;
}

// A caps item the picture cannot do without: the console line spells the
// failing read as it always has, the bus gets the reason in words.
qv_verdict missing(const char* pConsole, const char* pWhy)
{
    g_print("qv_jt_renderer: %s\n", pConsole);
    return qv_verdict::unusable(pWhy);
}

struct video_caps {
    QVSDK::QVEnumFormats format = QVSDK::FORMAT_UYVY;
    int width = 0;
    int height = 0;
    int par_n = 1;
    int par_d = 1;
    GstClockTime period = GST_CLOCK_TIME_NONE; // one frame at the caps' rate
};

// Reads the picture's caps. Without "pixel-aspect-ratio" or "interlace-mode"
// (many sources leave them out) the picture is still taken: square pixels,
// and the scan of the output mode, which is all the board can send anyway.
// Each is reported once per caps, on the console as before and on the bus.
qv_verdict read_caps(GstPad* pad, GstObject* parent, video_caps& vc)
{
    caps_ptr pCaps(::gst_pad_get_current_caps(pad), ::gst_caps_unref);
    if (!pCaps)
        return missing("std::unique_ptr<GstCaps, void(*)(GstCaps*)> pCaps(::gst_pad_get_current_caps(pad), "
                       "::gst_caps_unref);",
                       "the pad has no caps");
    GstStructure* pStruct = gst_caps_get_size(pCaps.get()) ? gst_caps_get_structure(pCaps.get(), 0) : nullptr;
    if (!pStruct)
        return missing("GstStructure *pStruct = gst_caps_get_structure(pCaps.get(), 0);", "its caps are empty");
    const gchar* pStrFormat = gst_structure_get_string(pStruct, "format");
    if (!pStrFormat)
        return missing("const gchar *pStrFormat = gst_structure_get_string(pStruct, 'format');",
                       "its caps give no pixel format");
    if (FALSE == gst_structure_get_int(pStruct, "width", &vc.width))
        return missing("if (FALSE == gst_structure_get_int(pStruct, 'width', &width))", "its caps give no width");
    if (FALSE == gst_structure_get_int(pStruct, "height", &vc.height))
        return missing("if (FALSE == gst_structure_get_int(pStruct, 'height', &height))", "its caps give no height");
    qv_pad_guard& guard = qv_pad_guard::of(pad);
    const bool bReport = guard.first_for_caps();
    if (FALSE == gst_structure_get_fraction(pStruct, "pixel-aspect-ratio", &vc.par_n, &vc.par_d)) {
        vc.par_n = vc.par_d = 1;
        if (bReport) {
            g_print("qv_jt_renderer: if (FALSE == gst_structure_get_fraction(pStruct, 'pixel-aspect-ratio', "
                    "&aspect_ratio_n, &aspect_ratio_d))\n");
            qv_pad_guard::warn(pad, parent, "caps without pixel-aspect-ratio: pixels taken as square (1/1)");
        }
    }
    int fr_n = 0, fr_d = 0;
    if (FALSE == gst_structure_get_fraction(pStruct, "framerate", &fr_n, &fr_d))
        return missing("if (FALSE == gst_structure_get_fraction(pStruct, 'framerate', &frame_rate_n, "
                       "&frame_rate_d))",
                       "its caps give no frame rate");
    if (fr_n > 0 && fr_d > 0)
        vc.period = gst_util_uint64_scale_int(GST_SECOND, fr_d, fr_n);
    if (!gst_structure_get_string(pStruct, "interlace-mode") && bReport) {
        g_print("qv_jt_renderer: const gchar *pStrInterlace = gst_structure_get_string(pStruct, "
                "'interlace-mode');\n");
        qv_pad_guard::warn(pad, parent, "caps without interlace-mode: pictures taken in the output mode's scan");
    }
    vc.format = format_from_caps(pStrFormat);
    return qv_verdict::ok();
}

// Lays the image over the mapped bytes with the plane layout of its format.
void build_image(QVSDK::QVImage& image, guint8* data, const QVSDK::QVSize& size, QVSDK::QVEnumFormats format)
{
    const int w = size.width();
    const int h = size.height();
    switch (format) {
    case QVSDK::FORMAT_IYUV:
    case QVSDK::FORMAT_YV12: {
        unsigned char* planes[3] = {data, data + w * h, data + w * h + w * h / 4};
        const int strides[3] = {w, w / 2, w / 2};
        image.InitImage(planes, strides, size, QVSDK::QVFieldOrder(0), format);
        break;
    }
    case QVSDK::FORMAT_NV12: {
        unsigned char* planes[3] = {data, data + w * h, nullptr};
        const int strides[3] = {w, w, 0};
        image.InitImage(planes, strides, size, QVSDK::QVFieldOrder(0), format);
        break;
    }
    default:
        image.InitImage(data, size, 2 * w, QVSDK::QVFieldOrder(0), format);
        break;
    }
}

// Bytes the plane layout of build_image reaches into, so that a buffer
// shorter than its caps is never read past its end.
size_t bytes_needed(const video_caps& vc)
{
    const auto w = static_cast<size_t>(vc.width > 0 ? vc.width : 0);
    const auto h = static_cast<size_t>(vc.height > 0 ? vc.height : 0);
    switch (vc.format) {
    case QVSDK::FORMAT_IYUV:
    case QVSDK::FORMAT_YV12:
        return w * h + w * h / 4 + (w / 2) * (h / 2);
    case QVSDK::FORMAT_NV12:
        return w * h + w * (h / 2);
    default:
        return 2 * w * h;
    }
}

// Keeping a buffer past the chain call keeps it from upstream for as long as
// the FIFO is deep. That is safe only where it cannot starve upstream: a
// buffer of no pool, or of a pool that grows on demand. A pool with a ceiling
// (a hardware decoder's, typically) gets its buffers back at once and the
// FIFO copies. Only plain system memory in one block is held: other memory
// may be costly to keep mapped.
bool can_hold(GstBuffer* buffer)
{
    if (gst_buffer_n_memory(buffer) != 1)
        return false;
    GstMemory* pMemory = gst_buffer_peek_memory(buffer, 0);
    if (!pMemory || !gst_memory_is_type(pMemory, GST_ALLOCATOR_SYSMEM))
        return false;
    GstBufferPool* pPool = buffer->pool;
    if (!pPool)
        return true;
    GstStructure* pConfig = gst_buffer_pool_get_config(pPool);
    if (!pConfig)
        return false;
    guint nMax = 1;
    const gboolean bRead = gst_buffer_pool_config_get_params(pConfig, nullptr, nullptr, nullptr, &nMax);
    gst_structure_free(pConfig);
    return bRead && nMax == 0;
}

// A reference to a buffer and a read mapping of it, both released together.
struct held_buffer {
    explicit held_buffer(GstBuffer* b) : pBuffer(gst_buffer_ref(b))
    {
        bMapped = gst_buffer_map(pBuffer, &info, GST_MAP_READ) != FALSE;
    }
    ~held_buffer()
    {
        if (bMapped)
            gst_buffer_unmap(pBuffer, &info);
        gst_buffer_unref(pBuffer);
    }
    held_buffer(const held_buffer&) = delete;
    held_buffer& operator=(const held_buffer&) = delete;

    GstBuffer* pBuffer;
    GstMapInfo info{};
    bool bMapped = false;
};

static_assert(static_cast<int>(GST_VIDEO_CAPTION_TYPE_CEA608_RAW) == static_cast<int>(qv_caption_form::cea608_raw) &&
                  static_cast<int>(GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A) ==
                      static_cast<int>(qv_caption_form::cea608_s334_1a) &&
                  static_cast<int>(GST_VIDEO_CAPTION_TYPE_CEA708_RAW) ==
                      static_cast<int>(qv_caption_form::cea708_cc_data) &&
                  static_cast<int>(GST_VIDEO_CAPTION_TYPE_CEA708_CDP) == static_cast<int>(qv_caption_form::cea708_cdp),
              "the caption forms are numbered as GStreamer numbers them");

// What the picture's metadata asks to go out with it: captions (every block,
// in the order they are attached), AFD and bar data, time code. The AFD
// packet's aspect flag is the picture's own shape.
qv_frame_ancillary read_metadata(GstBuffer* buffer, const video_caps& vc)
{
    qv_frame_ancillary out;
    gpointer state = nullptr;
    while (GstMeta* pMeta = gst_buffer_iterate_meta_filtered(buffer, &state, GST_VIDEO_CAPTION_META_API_TYPE)) {
        const auto* pCaption = reinterpret_cast<const GstVideoCaptionMeta*>(pMeta);
        qv_caption_block block;
        block.eForm = static_cast<qv_caption_form>(pCaption->caption_type);
        if (pCaption->data && pCaption->size > 0)
            block.data.assign(pCaption->data, pCaption->data + pCaption->size);
        out.captions.push_back(std::move(block));
    }
    if (const GstVideoAFDMeta* pAfd = gst_buffer_get_video_afd_meta(buffer)) {
        out.bAfd = true;
        out.afd.nAfd = static_cast<uint8_t>(pAfd->afd) & 0x0F;
        out.afd.bWide = static_cast<int64_t>(vc.width) * vc.par_n * 3 > static_cast<int64_t>(vc.height) * vc.par_d * 4;
        if (const GstVideoBarMeta* pBar = gst_buffer_get_video_bar_meta(buffer)) {
            out.afd.bBars = true;
            out.afd.bLetterbox = pBar->is_letterbox != FALSE;
            out.afd.nBar1 = static_cast<uint16_t>(pBar->bar_data1);
            out.afd.nBar2 = static_cast<uint16_t>(pBar->bar_data2);
        }
    }
    if (const GstVideoTimeCodeMeta* pTc = gst_buffer_get_video_time_code_meta(buffer)) {
        if (gst_video_time_code_is_valid(&pTc->tc)) {
            out.timecode.bValid = true;
            out.timecode.timecode = convert_gst_timecode_to_v4l2_timecode(pTc->tc);
            gchar* pText = gst_video_time_code_to_string(&pTc->tc);
            out.strTimecode = pText ? pText : "";
            g_free(pText);
        }
    }
    return out;
}

} // namespace

gboolean gst_pad_video_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    qv_renderer* pRenderer = qv_renderer_of(parent);
    if (!pRenderer) {
        gst_event_unref(event);
        return FALSE;
    }
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        GstCaps* pCaps = nullptr;
        gst_event_parse_caps(event, &pCaps);
        pRenderer->set_video_cap(pCaps);
    }
    if (qv_take_scte35_event(pRenderer, event))
        return TRUE;
    // Only under the stream lock, as the chain: a flush start comes from
    // another thread and must not race the pad's first buffer for its guard.
    if (GST_EVENT_IS_SERIALIZED(event))
        qv_pad_guard::of(pad).on_event(event);
    pRenderer->pad_event(pad, event);
    return gst_pad_event_default(pad, parent, event);
}

GstFlowReturn gst_pad_video_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    video_caps vc;
    return qv_chain(
        pad, parent, buffer, "qv_jt_renderer: if (FALSE == gst_buffer_map(pBuf.get(), &map_mam, GST_MAP_READ))\n",
        [&] { return read_caps(pad, parent, vc); },
        [&](qv_renderer& renderer, const qv_buffer_map& map) {
            const size_t need = bytes_needed(vc);
            if (map.size() < need) {
                // The conversion would read past the buffer. Pictures already
                // queued still play out, and the last one is repeated for it.
                g_print("qv_jt_renderer: video buffer of %zu bytes is smaller than the %zu bytes of a %dx%d "
                        "picture in its caps: refused\n",
                        static_cast<size_t>(map.size()), need, vc.width, vc.height);
                return qv_verdict::unusable("it holds " + std::to_string(map.size()) + " bytes, less than the " +
                                            std::to_string(need) + " of a " + std::to_string(vc.width) + "x" +
                                            std::to_string(vc.height) + " picture in its caps");
            }
            GstClockTime pts = GST_BUFFER_PTS(buffer);
            GstClockTime span = GST_BUFFER_DURATION(buffer);
            if (!qv_pad_guard::of(pad).stamp(pad, parent, pts, span, vc.period))
                return qv_verdict::unusable("it has no time stamp and no picture before it had one");

            QVSDK::QVAspectRatio par(1, 1);
            if (vc.par_n != 0 && vc.par_d != 0)
                QVSDK::QVRational::reduce(&par.num, &par.den, vc.par_n, vc.par_d, QVSDK::QV_RATIONAL_MAX);
            const QVSDK::QVSize size(vc.width, vc.height, par);
            QVSDK::QVImage image;
            std::shared_ptr<held_buffer> pHeld = can_hold(buffer) ? std::make_shared<held_buffer>(buffer) : nullptr;
            if (pHeld && pHeld->bMapped && pHeld->info.size >= need) {
                build_image(image, pHeld->info.data, size, vc.format);
                image.setOwner(std::move(pHeld));
            } else {
                build_image(image, map.data(), size, vc.format);
            }

            const GstClockTime duration = GST_BUFFER_DURATION(buffer);
            GstClockTime ptsEnd = duration == GST_CLOCK_TIME_NONE ? pts : pts + duration;
            if (!qv_place(pad, renderer, pts, ptsEnd))
                return qv_verdict::ok();
            const GstClockTime dts = GST_BUFFER_DTS(buffer);
            // The hardware-time flag shares its bit with the video library's
            // top-field-first flag, which decoders set on interlaced pictures:
            // only a live capture can stamp a board's time, never a file.
            const bool bHwTime = GST_BUFFER_FLAG_IS_SET(buffer, QV_BUFFER_FLAG_HWTIME) &&
                                 qv_pad_guard::of(pad).upstream_live(pad);
            const uint64_t hwTime = bHwTime ? dts : 0;
            qv_frame_ancillary metadata = read_metadata(buffer, vc);
            renderer.add_video_frame(pts, ptsEnd, dts, image, hwTime, pts, &metadata);
            return qv_verdict::ok();
        });
}

GstPadLinkReturn gst_pad_video_link(GstPad*, GstObject*, GstPad*)
{
    return GST_PAD_LINK_OK;
}

void gst_pad_video_unlink(GstPad*, GstObject*) {}
