// qvjt-playout: plays a playlist of files or URIs back to back, or else a
// test programme (colour bars and a tone on every audio line) for a while,
// through a "qvjtrenderer" element; prints what the element said and its
// statistics, and exits non-zero if the pipeline failed or nothing played.
// It talks to the element only through its properties and pads, as any
// application does.
#include "playlist_source.h"
#include "playout_options.h"
#include "playout_report.h"
#include "test_programme.h"

#include <gst/gst.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string element_text(const playout_options& o)
{
    // Properties are set when the parser makes the element, before it links
    // the audio pads, so "number_of_audio_lines" comes first.
    std::string p = "qvjtrenderer name=out number_of_audio_lines=" + std::to_string(o.audio_lines) +
                    " mode=" + std::to_string(o.mode) + " latency=" + std::to_string(o.latency);
    if (!o.v4l2.empty())
        p += " v4l2=\"" + o.v4l2 + "\"";
    if (!o.alsa.empty())
        p += " alsa=\"" + o.alsa + "\"";
    if (!o.line_map.empty())
        p += " line-map=\"" + o.line_map + "\"";
    if (o.stats_interval > 0)
        p += " stats-interval=" + std::to_string(o.stats_interval);
    return p;
}

} // namespace

int main(int argc, char** argv)
{
    playout_options o;
    if (const int rc = parse_options(argc, argv, o))
        return rc;

    std::unique_ptr<playlist_source> playlist;
    std::string text = element_text(o);
    if (o.playlist()) {
        playlist = std::make_unique<playlist_source>(
            playlist_settings{o.entries, o.audio_lines, o.loop, o.splice_cues, o.teletext});
        text += playlist->pipeline_text();
    } else {
        text += test_programme_text(o);
    }
    std::printf("pipeline: %s\n", text.c_str());
    GError* err = nullptr;
    GstElement* pipeline = gst_parse_launch(text.c_str(), &err);
    if (!pipeline || err) {
        std::fprintf(stderr, "qvjt-playout: %s\n", err ? err->message : "cannot build the pipeline");
        g_clear_error(&err);
        if (pipeline)
            gst_object_unref(pipeline);
        return 1;
    }
    GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    GstBus* bus = gst_element_get_bus(pipeline);
    int rc = 0;
    if (playlist && !playlist->attach(pipeline)) {
        std::fprintf(stderr, "qvjt-playout: the playlist's sources are missing from the pipeline\n");
        rc = 1;
    }
    if (rc == 0 && gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "qvjt-playout: the pipeline refused to play\n");
        rc = 1;
    }
    // A playlist plays to its end (or for --seconds); the test programme,
    // being live, for --seconds.
    const gint64 end = o.seconds > 0 ? g_get_monotonic_time() + gint64(o.seconds) * G_USEC_PER_SEC : G_MAXINT64;
    bool eos = false;
    while (rc == 0 && !eos && g_get_monotonic_time() < end) {
        if (playlist)
            playlist->poll();
        GstMessage* msg = gst_bus_timed_pop(bus, 20 * GST_MSECOND);
        if (!msg)
            continue;
        print_message(msg);
        if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR)
            rc = 1;
        eos = GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
        gst_message_unref(msg);
    }
    if (eos)
        std::printf("qvjt-playout: end of the playlist\n");
    if (playlist && playlist->played() == 0)
        rc = 1;

    print_statistics(out);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    playlist.reset();
    while (GstMessage* msg = gst_bus_pop(bus)) {
        print_message(msg);
        gst_message_unref(msg);
    }
    gst_object_unref(bus);
    gst_object_unref(out);
    gst_object_unref(pipeline);
    return rc;
}
