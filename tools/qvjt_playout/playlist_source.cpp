#include "playlist_source.h"

// The section types are stable in practice; the library still flags its API.
#define GST_USE_UNSTABLE_API
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/mpegts/mpegts.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

constexpr int kRate = 48000;
constexpr gsize kFrameBytes = 8; // S32LE stereo, the lines' format
constexpr int64_t kJitterSamples = 2;  // stamp jitter a line absorbs without a gap or an overlap
constexpr int64_t kSilenceChunk = 4800; // 100 ms: silence goes out in buffers no longer than this
constexpr int kMaxLines = 8;
constexpr guint16 kCuePid = 500;
constexpr gint64 kPrepareTimeoutUs = 20 * G_USEC_PER_SEC;
// Queued in each source ahead of the element: enough to bridge the start of the next item.
constexpr guint64 kSourceQueueNs = 300 * GST_MSECOND;
constexpr const char* kAudioCaps = "audio/x-raw,format=S32LE,rate=48000,channels=2,layout=interleaved";
// The YUV layouts the element converts itself; anything else is converted on the way.
constexpr const char* kVideoCaps = "video/x-raw,format=(string){UYVY,YUY2,YVYU,I420,YV12,NV12}";

int64_t ns_to_samples(uint64_t t)
{
    return static_cast<int64_t>(gst_util_uint64_scale_int_round(t, kRate, GST_SECOND));
}

uint64_t samples_to_ns(int64_t n)
{
    return gst_util_uint64_scale_int_round(static_cast<guint64>(n), GST_SECOND, kRate);
}

std::string clock_text(uint64_t t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%u:%02u:%02u.%03u", unsigned(t / (3600 * GST_SECOND)),
                  unsigned(t / (60 * GST_SECOND) % 60), unsigned(t / GST_SECOND % 60),
                  unsigned(t / GST_MSECOND % 1000));
    return text;
}

} // namespace

// One audio line of the programme. Pushes from the item's sound and the
// silence the pictures' thread adds take the lock, so a line stays in order.
struct sound_line {
    std::mutex lock;
    GstAppSrc* src = nullptr;
    int64_t pos = 0; // the next programme sample, guarded by lock

    // Puts `pcm` at programme sample `at`, keeping the line contiguous; takes pcm.
    GstFlowReturn push(GstBuffer* pcm, int64_t at)
    {
        std::lock_guard<std::mutex> guard(lock);
        auto n = static_cast<int64_t>(gst_buffer_get_size(pcm) / kFrameBytes);
        if (at > pos + kJitterSamples) {
            const GstFlowReturn r = silence_locked(at);
            if (r != GST_FLOW_OK) {
                gst_buffer_unref(pcm);
                return r;
            }
        } else if (at < pos - kJitterSamples) {
            const int64_t drop = pos - at;
            if (drop >= n) {
                gst_buffer_unref(pcm);
                return GST_FLOW_OK;
            }
            GstBuffer* rest = gst_buffer_copy_region(pcm, GST_BUFFER_COPY_ALL, gsize(drop) * kFrameBytes,
                                                     gsize(n - drop) * kFrameBytes);
            gst_buffer_unref(pcm);
            pcm = rest;
            n -= drop;
        }
        return push_locked(pcm, n);
    }

    GstFlowReturn fill_to(int64_t end)
    {
        std::lock_guard<std::mutex> guard(lock);
        return silence_locked(end);
    }

private:
    GstFlowReturn push_locked(GstBuffer* pcm, int64_t n)
    {
        pcm = gst_buffer_make_writable(pcm);
        GST_BUFFER_PTS(pcm) = samples_to_ns(pos);
        GST_BUFFER_DTS(pcm) = GST_CLOCK_TIME_NONE;
        GST_BUFFER_DURATION(pcm) = samples_to_ns(pos + n) - samples_to_ns(pos);
        GST_BUFFER_FLAG_UNSET(pcm, GST_BUFFER_FLAG_DISCONT);
        pos += n;
        return gst_app_src_push_buffer(src, pcm);
    }

    GstFlowReturn silence_locked(int64_t end)
    {
        while (pos < end) {
            const int64_t n = std::min(end - pos, kSilenceChunk);
            GstBuffer* b = gst_buffer_new_allocate(nullptr, gsize(n) * kFrameBytes, nullptr);
            gst_buffer_memset(b, 0, 0, gsize(n) * kFrameBytes);
            if (const GstFlowReturn r = push_locked(b, n); r != GST_FLOW_OK)
                return r;
        }
        return GST_FLOW_OK;
    }
};

struct playlist_outputs {
    GstAppSrc* video = nullptr;
    GstCaps* video_caps = nullptr; // the caps last set on `video`, touched by the pictures' thread only
    // Set once the programme's first picture is out: a section event sent
    // before it would make `video` send its segment before its caps.
    std::atomic<bool> picture_out{false};
    std::vector<std::unique_ptr<sound_line>> lines;
    GstAppSrc* teletext = nullptr;
    // Cues are pushed from the application's thread straight into the
    // element's SCTE-35 pad, so that each is taken before the item it
    // announces starts, whatever the load.
    GstPad* cue = nullptr;
    bool cue_started = false;

    ~playlist_outputs()
    {
        gst_clear_caps(&video_caps);
        if (cue) {
            gst_pad_set_active(cue, FALSE);
            gst_object_unref(cue);
        }
        for (GstAppSrc* s : {video, teletext})
            if (s)
                gst_object_unref(s);
        for (auto& l : lines)
            if (l->src)
                gst_object_unref(l->src);
    }
};

// One entry of the list: its own decoding pipeline, restamped onto the
// programme from `base` on.
class playlist_item {
public:
    enum class state { preparing, ready, failed };

    playlist_item(std::string entry, const playlist_settings& settings, playlist_outputs& out)
        : m_entry(std::move(entry)), m_settings(settings), m_out(out)
    {
    }

    ~playlist_item()
    {
        if (m_pPipeline) {
            gst_element_set_state(m_pPipeline, GST_STATE_NULL);
            gst_object_unref(m_pPipeline);
        }
        for (GstEvent* e : m_pending)
            gst_event_unref(e);
    }

    const std::string& entry() const { return m_entry; }
    state current_state() const { return m_state; }
    const std::string& reason() const { return m_reason; }

    // Opens the entry and pre-rolls it (asynchronously; poll_prepare tells how it went).
    void prepare()
    {
        std::string uri;
        if (gst_uri_is_valid(m_entry.c_str())) {
            uri = m_entry;
        } else {
            struct stat st {};
            if (stat(m_entry.c_str(), &st) != 0)
                return fail("no such file");
            if (!S_ISREG(st.st_mode))
                return fail("not a file");
            gchar* u = gst_filename_to_uri(m_entry.c_str(), nullptr);
            if (!u)
                return fail("cannot be named as a URI");
            uri = u;
            g_free(u);
        }
        m_pPipeline = gst_pipeline_new(nullptr);
        GstElement* dec = gst_element_factory_make("uridecodebin", nullptr);
        if (!dec)
            return fail("uridecodebin is not installed");
        // Teletext is taken as it comes from the demuxer, not decoded.
        GstCaps* caps = gst_caps_from_string("video/x-raw; audio/x-raw; text/x-raw; application/x-teletext");
        g_object_set(dec, "uri", uri.c_str(), "caps", caps, nullptr);
        gst_caps_unref(caps);
        g_signal_connect(dec, "pad-added", G_CALLBACK(on_pad_added), this);
        g_signal_connect(m_pPipeline, "deep-element-added", G_CALLBACK(on_element_added), this);
        gst_bin_add(GST_BIN(m_pPipeline), dec);
        m_nPrepareStart = g_get_monotonic_time();
        if (gst_element_set_state(m_pPipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE)
            m_bRefused = true; // the bus says why
    }

    // Reads the item's bus while it pre-rolls.
    state poll_prepare()
    {
        if (m_state != state::preparing)
            return m_state;
        std::string error;
        bool done = false;
        GstBus* bus = gst_element_get_bus(m_pPipeline);
        while (GstMessage* msg = gst_bus_pop(bus)) {
            if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR && error.empty())
                error = error_text(msg);
            else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ASYNC_DONE && GST_MESSAGE_SRC(msg) == GST_OBJECT(m_pPipeline))
                done = true;
            gst_message_unref(msg);
        }
        gst_object_unref(bus);
        if (!error.empty())
            fail(error);
        else if (m_bRefused)
            fail("the decoder refused to start");
        else if (done && !m_bHasVideo)
            fail("no video stream");
        else if (done)
            m_state = state::ready;
        else if (g_get_monotonic_time() - m_nPrepareStart > kPrepareTimeoutUs)
            fail("did not start within 20 s");
        return m_state;
    }

    // Plays the item from programme time `base` on.
    void start(uint64_t base)
    {
        std::vector<GstEvent*> pending;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_nBase = base;
            m_bStarted = true;
            if (m_out.picture_out.load())
                pending.swap(m_pending);
        }
        for (GstEvent* e : pending)
            forward_section(e);
        gst_element_set_state(m_pPipeline, GST_STATE_PLAYING);
    }

    // An error while playing ends the item where it got to; the text says why.
    bool failed_playing(std::string& why)
    {
        GstBus* bus = gst_element_get_bus(m_pPipeline);
        while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
            if (why.empty())
                why = error_text(msg);
            gst_message_unref(msg);
        }
        gst_object_unref(bus);
        return !why.empty();
    }

    bool ended() const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return std::all_of(m_streams.begin(), m_streams.end(), [](const auto& s) { return s->eos.load(); });
    }

    // Programme time at which the item's pictures end.
    uint64_t end() const { return m_nBase + m_nVideoEnd.load(); }

private:
    enum class kind { video, audio, teletext };
    struct stream {
        playlist_item* item;
        kind what;
        int line;
        std::atomic<bool> eos{false};
    };

    void fail(std::string why)
    {
        m_state = state::failed;
        m_reason = std::move(why);
    }

    static std::string error_text(GstMessage* msg)
    {
        GError* err = nullptr;
        gst_message_parse_error(msg, &err, nullptr);
        std::string text = err ? err->message : "error";
        g_clear_error(&err);
        return text;
    }

    static void on_element_added(GstBin*, GstBin*, GstElement* element, gpointer)
    {
        // Splice cues of a transport stream come as section events beside the pictures.
        GstElementFactory* f = gst_element_get_factory(element);
        if (f && std::strcmp(gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(f)), "tsdemux") == 0)
            g_object_set(element, "send-scte35-events", TRUE, nullptr);
    }

    // From a streaming thread of the item: links the stream to what carries
    // it onto the programme, or to a sink that drops it.
    static void on_pad_added(GstElement*, GstPad* pad, gpointer data)
    {
        auto* self = static_cast<playlist_item*>(data);
        GstCaps* caps = gst_pad_get_current_caps(pad);
        if (!caps)
            caps = gst_pad_query_caps(pad, nullptr);
        const std::string name = gst_caps_is_empty(caps) ? "" : gst_structure_get_name(gst_caps_get_structure(caps, 0));
        gst_caps_unref(caps);

        std::unique_ptr<stream> s;
        std::string desc = "fakesink sync=false async=false";
        {
            std::lock_guard<std::mutex> guard(self->m_lock);
            if (name == "video/x-raw" && !self->m_bHasVideo) {
                self->m_bHasVideo = true;
                s.reset(new stream{self, kind::video, 0});
                desc = std::string("videoconvert ! ") + kVideoCaps + " ! appsink name=sink";
            } else if (name == "audio/x-raw" && self->m_nAudio < self->m_settings.audio_lines) {
                s.reset(new stream{self, kind::audio, self->m_nAudio});
                self->m_bLineHasSound[self->m_nAudio++] = true;
                desc = std::string("audioconvert ! audioresample ! ") + kAudioCaps + " ! appsink name=sink";
            } else if (name == "application/x-teletext" && self->m_settings.teletext && !self->m_bHasTeletext) {
                self->m_bHasTeletext = true;
                s.reset(new stream{self, kind::teletext, 0});
                desc = "appsink name=sink";
            }
        }
        GError* err = nullptr;
        GstElement* bin = gst_parse_bin_from_description(desc.c_str(), TRUE, &err);
        if (!bin) {
            std::fprintf(stderr, "qvjt-playout: %s: %s\n", self->m_entry.c_str(), err ? err->message : "?");
            g_clear_error(&err);
            return;
        }
        if (GstElement* sink = gst_bin_get_by_name(GST_BIN(bin), "sink")) {
            g_object_set(sink, "sync", FALSE, "enable-last-sample", FALSE, nullptr);
            GstAppSinkCallbacks callbacks{};
            callbacks.eos = on_eos;
            callbacks.new_sample = on_sample;
            gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, s.get(), nullptr);
            if (s->what == kind::video) {
                GstPad* sinkpad = gst_element_get_static_pad(sink, "sink");
                gst_pad_add_probe(sinkpad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, on_event, self, nullptr);
                gst_object_unref(sinkpad);
            }
            gst_object_unref(sink);
            std::lock_guard<std::mutex> guard(self->m_lock);
            self->m_streams.push_back(std::move(s));
        }
        gst_bin_add(GST_BIN(self->m_pPipeline), bin);
        GstPad* sinkpad = gst_element_get_static_pad(bin, "sink");
        gst_pad_link(pad, sinkpad);
        gst_object_unref(sinkpad);
        gst_element_sync_state_with_parent(bin);
    }

    static void on_eos(GstAppSink*, gpointer data)
    {
        static_cast<stream*>(data)->eos = true;
    }

    static GstFlowReturn on_sample(GstAppSink* sink, gpointer data)
    {
        auto* s = static_cast<stream*>(data);
        GstSample* sample = gst_app_sink_pull_sample(sink);
        if (!sample)
            return GST_FLOW_EOS;
        const GstFlowReturn r = s->item->take(*s, sample);
        gst_sample_unref(sample);
        return r;
    }

    GstFlowReturn take(const stream& s, GstSample* sample)
    {
        GstBuffer* buf = gst_sample_get_buffer(sample);
        const GstSegment* seg = gst_sample_get_segment(sample);
        if (!buf || !seg || !GST_BUFFER_PTS_IS_VALID(buf))
            return GST_FLOW_OK;
        const guint64 rt = gst_segment_to_running_time(seg, GST_FORMAT_TIME, GST_BUFFER_PTS(buf));
        if (rt == GST_CLOCK_TIME_NONE)
            return GST_FLOW_OK; // outside its segment: not part of the item
        const uint64_t at = m_nBase + rt;
        switch (s.what) {
        case kind::audio:
            return m_out.lines[size_t(s.line)]->push(gst_buffer_ref(buf), ns_to_samples(at));
        case kind::teletext: {
            GstBuffer* out = gst_buffer_copy(buf);
            GST_BUFFER_PTS(out) = at;
            GST_BUFFER_DTS(out) = GST_CLOCK_TIME_NONE;
            return gst_app_src_push_buffer(m_out.teletext, out);
        }
        case kind::video:
            break;
        }
        GstCaps* caps = gst_sample_get_caps(sample);
        guint64 duration = GST_BUFFER_DURATION(buf);
        if (duration == GST_CLOCK_TIME_NONE) {
            GstVideoRate rate{caps};
            duration = rate.frame();
        }
        if (caps && (!m_out.video_caps || !gst_caps_is_equal(caps, m_out.video_caps))) {
            gst_caps_replace(&m_out.video_caps, caps);
            gst_app_src_set_caps(m_out.video, caps);
        }
        m_nVideoEnd = std::max(m_nVideoEnd.load(), rt + duration);
        GstBuffer* out = gst_buffer_copy(buf);
        GST_BUFFER_PTS(out) = at;
        GST_BUFFER_DTS(out) = GST_CLOCK_TIME_NONE;
        GST_BUFFER_DURATION(out) = duration;
        GstFlowReturn r = gst_app_src_push_buffer(m_out.video, out);
        if (!m_out.picture_out.load())
            send_held_sections();
        // Lines this item has no sound for, or no more, are kept as long as the pictures.
        for (size_t k = 0; k < m_out.lines.size() && r == GST_FLOW_OK; ++k)
            if (!m_bLineHasSound[k] || line_ended(int(k)))
                r = m_out.lines[k]->fill_to(ns_to_samples(at + duration));
        return r;
    }

    bool line_ended(int line) const
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& s : m_streams)
            if (s->what == kind::audio && s->line == line)
                return s->eos;
        return true;
    }

    // Section events (tsdemux's splice cues) ride with the pictures; their
    // splice time, given in the item's running time, moves onto the programme's.
    static GstPadProbeReturn on_event(GstPad*, GstPadProbeInfo* info, gpointer data)
    {
        auto* self = static_cast<playlist_item*>(data);
        GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
        if (GST_EVENT_TYPE(event) != GST_EVENT_CUSTOM_DOWNSTREAM)
            return GST_PAD_PROBE_OK;
        GstMpegtsSection* section = gst_event_parse_mpegts_section(event);
        if (!section)
            return GST_PAD_PROBE_OK;
        const bool splice = GST_MPEGTS_SECTION_TYPE(section) == GST_MPEGTS_SECTION_SCTE_SIT;
        gst_mpegts_section_unref(section);
        if (!splice)
            return GST_PAD_PROBE_OK;
        {
            std::lock_guard<std::mutex> guard(self->m_lock);
            if (!self->m_bStarted || !self->m_out.picture_out.load()) {
                self->m_pending.push_back(gst_event_ref(event));
                return GST_PAD_PROBE_OK;
            }
        }
        self->forward_section(gst_event_ref(event));
        return GST_PAD_PROBE_OK;
    }

    void forward_section(GstEvent* event)
    {
        GstStructure* s = gst_structure_copy(gst_event_get_structure(event));
        gst_event_unref(event);
        if (const GValue* v = gst_structure_get_value(s, "running-time-map"); v && GST_VALUE_HOLDS_STRUCTURE(v)) {
            GstStructure* map = gst_structure_copy(gst_value_get_structure(v));
            const uint64_t base = m_nBase;
            gst_structure_filter_and_map_in_place(
                map,
                [](GQuark, GValue* value, gpointer b) -> gboolean {
                    if (G_VALUE_HOLDS_UINT64(value) && g_value_get_uint64(value) != GST_CLOCK_TIME_NONE)
                        g_value_set_uint64(value, g_value_get_uint64(value) + *static_cast<const uint64_t*>(b));
                    return TRUE;
                },
                const_cast<uint64_t*>(&base));
            gst_structure_set(s, "running-time-map", GST_TYPE_STRUCTURE, map, nullptr);
            gst_structure_free(map);
        }
        gst_element_send_event(GST_ELEMENT(m_out.video), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, s));
    }

    // After the programme's first picture: the sections held for it.
    void send_held_sections()
    {
        std::vector<GstEvent*> held;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_out.picture_out = true;
            held.swap(m_pending);
        }
        for (GstEvent* e : held)
            forward_section(e);
    }

    // The frame duration of caps, for pictures that come without one.
    struct GstVideoRate {
        GstCaps* caps;
        guint64 frame() const
        {
            gint n = 0, d = 1;
            if (caps && !gst_caps_is_empty(caps) &&
                gst_structure_get_fraction(gst_caps_get_structure(caps, 0), "framerate", &n, &d) && n > 0)
                return gst_util_uint64_scale_int(GST_SECOND, d, n);
            return 40 * GST_MSECOND;
        }
    };

    const std::string m_entry;
    const playlist_settings& m_settings;
    playlist_outputs& m_out;
    GstElement* m_pPipeline = nullptr;
    state m_state = state::preparing;
    std::string m_reason;
    gint64 m_nPrepareStart = 0;
    bool m_bRefused = false;

    mutable std::mutex m_lock; // guards everything below that is not atomic
    std::vector<std::unique_ptr<stream>> m_streams;
    // Section events that came before the item started, or before the
    // programme's first picture.
    std::vector<GstEvent*> m_pending;
    bool m_bHasVideo = false;
    bool m_bHasTeletext = false;
    int m_nAudio = 0;
    // Written while pre-rolling, read once playing: the pad-added calls are over by then.
    bool m_bLineHasSound[kMaxLines] = {};
    bool m_bStarted = false;
    std::atomic<uint64_t> m_nBase{0};
    std::atomic<uint64_t> m_nVideoEnd{0}; // item running time at which its pictures end
};

playlist_source::playlist_source(playlist_settings settings)
    : m_settings(std::move(settings)), m_pOut(std::make_unique<playlist_outputs>())
{
    gst_mpegts_initialize();
}

playlist_source::~playlist_source()
{
    // Items push into the outputs: they stop first.
    m_pNext.reset();
    m_pCurrent.reset();
}

std::string playlist_source::pipeline_text() const
{
    std::string p = " appsrc name=pl_video format=time ! out.sink_video";
    for (int k = 0; k < m_settings.audio_lines; ++k)
        p += " appsrc name=pl_audio" + std::to_string(k) + " format=time caps=\"" + kAudioCaps + "\" ! out.src_audio" +
             std::to_string(k);
    if (m_settings.teletext)
        p += " appsrc name=pl_teletext format=time caps=application/x-teletext ! out.sink_teletext";
    return p;
}

bool playlist_source::attach(GstElement* pipeline)
{
    auto take = [pipeline](const std::string& name) {
        GstElement* e = gst_bin_get_by_name(GST_BIN(pipeline), name.c_str());
        if (e)
            // Not live: the element paces them. Bounded by time, so that a
            // source holds the same span of every stream.
            g_object_set(e, "block", TRUE, "max-bytes", guint64(0), "max-time", kSourceQueueNs, nullptr);
        return e ? GST_APP_SRC(e) : nullptr;
    };
    m_pOut->video = take("pl_video");
    bool ok = m_pOut->video != nullptr;
    for (int k = 0; k < m_settings.audio_lines; ++k) {
        m_pOut->lines.push_back(std::make_unique<sound_line>());
        m_pOut->lines.back()->src = take("pl_audio" + std::to_string(k));
        ok = ok && m_pOut->lines.back()->src;
    }
    if (m_settings.teletext)
        ok = ok && (m_pOut->teletext = take("pl_teletext"));
    if (m_settings.splice_cues && ok) {
        GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
        GstPad* sink = out ? gst_element_get_static_pad(out, "sink_scte35") : nullptr;
        m_pOut->cue = gst_pad_new("pl_cue", GST_PAD_SRC);
        gst_pad_set_active(m_pOut->cue, TRUE);
        ok = sink && gst_pad_link(m_pOut->cue, sink) == GST_PAD_LINK_OK;
        if (sink)
            gst_object_unref(sink);
        if (out)
            gst_object_unref(out);
    }
    return ok;
}

void playlist_source::poll()
{
    if (m_bFinished)
        return;
    const bool more = !m_bGaveUp && (m_nNextEntry < m_settings.entries.size() || (m_settings.loop && !m_settings.entries.empty()));
    if (!m_pNext && more)
        prepare_next();
    if (m_pNext && m_pNext->poll_prepare() == playlist_item::state::failed) {
        std::printf("qvjt-playout: skipping %s: %s\n", m_pNext->entry().c_str(), m_pNext->reason().c_str());
        std::fflush(stdout);
        m_pNext.reset();
        if (++m_nFailedInARow >= m_settings.entries.size() && m_settings.loop) {
            std::printf("qvjt-playout: no entry of the playlist can be played\n");
            m_bGaveUp = true;
        }
    }
    if (m_pCurrent) {
        std::string why;
        if (m_pCurrent->failed_playing(why))
            std::printf("qvjt-playout: %s stops at %s: %s\n", m_pCurrent->entry().c_str(),
                        clock_text(m_pCurrent->end()).c_str(), why.c_str());
        if (!why.empty() || m_pCurrent->ended()) {
            m_nEnd = m_pCurrent->end();
            m_pCurrent.reset();
            for (auto& l : m_pOut->lines)
                l->fill_to(ns_to_samples(m_nEnd));
        }
    }
    if (m_pCurrent)
        return;
    if (m_pNext && m_pNext->current_state() == playlist_item::state::ready)
        start_next(m_nEnd);
    else if (!m_pNext && (m_bGaveUp || !(m_nNextEntry < m_settings.entries.size() || m_settings.loop)))
        finish();
}

void playlist_source::prepare_next()
{
    const std::string& entry = m_settings.entries[m_nNextEntry % m_settings.entries.size()];
    ++m_nNextEntry;
    m_pNext = std::make_unique<playlist_item>(entry, m_settings, *m_pOut);
    m_pNext->prepare();
}

void playlist_source::start_next(uint64_t nBoundary)
{
    if (m_nPlayed > 0 && m_settings.splice_cues)
        send_splice_cue(nBoundary);
    std::printf("qvjt-playout: %s plays from %s\n", m_pNext->entry().c_str(), clock_text(nBoundary).c_str());
    std::fflush(stdout);
    m_pCurrent = std::move(m_pNext);
    m_pCurrent->start(nBoundary);
    m_nFailedInARow = 0;
    ++m_nPlayed;
}

void playlist_source::finish()
{
    if (m_nPlayed == 0)
        std::printf("qvjt-playout: nothing in the playlist could be played\n");
    gst_app_src_end_of_stream(m_pOut->video);
    for (auto& l : m_pOut->lines)
        gst_app_src_end_of_stream(l->src);
    if (m_pOut->teletext)
        gst_app_src_end_of_stream(m_pOut->teletext);
    if (m_pOut->cue_started)
        gst_pad_push_event(m_pOut->cue, gst_event_new_eos());
    m_bFinished = true;
}

// A splice_insert whose splice time is the boundary, in 90 kHz units of the
// programme's running time: the element counts its pre-roll from the newest
// picture it holds, which is still of the item before, so the cue announces
// the boundary ahead of it.
void playlist_source::send_splice_cue(uint64_t nBoundary)
{
    const guint64 pts = gst_util_uint64_scale(nBoundary, 9, 100000) & ((guint64(1) << 33) - 1);
    GstMpegtsSection* section = gst_mpegts_section_from_scte_sit(gst_mpegts_scte_splice_out_new(++m_nCueId, pts, 0), kCuePid);
    gsize n = 0;
    const guint8* data = section ? gst_mpegts_section_packetize(section, &n) : nullptr;
    if (data && n > 0) {
        // Sections come with their pointer field, as in a transport packet.
        GstBuffer* b = gst_buffer_new_allocate(nullptr, n + 1, nullptr);
        const guint8 pointer = 0;
        gst_buffer_fill(b, 0, &pointer, 1);
        gst_buffer_fill(b, 1, data, n);
        GST_BUFFER_PTS(b) = nBoundary;
        if (!m_pOut->cue_started) {
            // The pad has no element of its own to derive a stream id from.
            gst_pad_push_event(m_pOut->cue, gst_event_new_stream_start("qvjt-playout/splice-cues"));
            GstCaps* caps = gst_caps_new_empty_simple("application/x-scte35");
            gst_pad_push_event(m_pOut->cue, gst_event_new_caps(caps));
            gst_caps_unref(caps);
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            gst_pad_push_event(m_pOut->cue, gst_event_new_segment(&segment));
            m_pOut->cue_started = true;
        }
        gst_pad_push(m_pOut->cue, b);
        std::printf("qvjt-playout: splice cue %u at %s\n", m_nCueId, clock_text(nBoundary).c_str());
    }
    if (section)
        gst_mpegts_section_unref(section);
}
