// qvjt-playout: pushes a test programme (colour bars and a tone on every audio
// line) through a "qvjtrenderer" element for a while, prints what the element
// said and its statistics snapshot, and exits non-zero if the pipeline failed.
// It talks to the element only through its properties, as any application does.
#include "qv_alarm_manager.h"
#include "qv_base_statistics.h"

#include <gst/gst.h>

#include <cstdio>
#include <string>

namespace {

struct options {
    gchar* v4l2 = nullptr;
    gchar* alsa = nullptr;
    gint mode = 0;
    gint seconds = 3;
    gint audio_lines = 1;
    gint latency = 200;
    gint width = 720;
    gint height = 576;
    gchar* framerate = nullptr;
};

std::string pipeline_text(const options& o)
{
    const std::string rate = o.framerate ? o.framerate : "25/1";
    // Properties are set when the parser makes the element, before it links
    // the audio pads, so "number_of_audio_lines" comes first.
    std::string p = "qvjtrenderer name=out number_of_audio_lines=" + std::to_string(o.audio_lines) +
                    " mode=" + std::to_string(o.mode) + " latency=" + std::to_string(o.latency);
    if (o.v4l2)
        p += std::string(" v4l2=\"") + o.v4l2 + "\"";
    if (o.alsa)
        p += std::string(" alsa=\"") + o.alsa + "\"";
    p += " videotestsrc is-live=true pattern=smpte ! video/x-raw,format=UYVY,width=" + std::to_string(o.width) +
         ",height=" + std::to_string(o.height) + ",framerate=" + rate +
         ",pixel-aspect-ratio=1/1,interlace-mode=progressive ! out.sink_video";
    for (int i = 0; i < o.audio_lines; ++i)
        p += " audiotestsrc is-live=true wave=sine freq=" + std::to_string(440 * (i + 1)) +
             " samplesperbuffer=1920 ! audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! "
             "out.src_audio" +
             std::to_string(i);
    return p;
}

void print_message(GstMessage* msg)
{
    if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ELEMENT) {
        const GstStructure* s = gst_message_get_structure(msg);
        if (gst_structure_has_name(s, "qvjtrenderer-alarm"))
            std::printf("alarm %s: %s (%s)\n", gst_structure_get_string(s, "action"),
                        gst_structure_get_string(s, "alarm"), gst_structure_get_string(s, "text"));
    } else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR || GST_MESSAGE_TYPE(msg) == GST_MESSAGE_WARNING) {
        GError* err = nullptr;
        gchar* dbg = nullptr;
        if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR)
            gst_message_parse_error(msg, &err, &dbg);
        else
            gst_message_parse_warning(msg, &err, &dbg);
        std::fprintf(stderr, "%s from %s: %s\n", GST_MESSAGE_TYPE_NAME(msg), GST_OBJECT_NAME(msg->src),
                     err ? err->message : "?");
        g_clear_error(&err);
        g_free(dbg);
    }
}

} // namespace

int main(int argc, char** argv)
{
    options o;
    const GOptionEntry entries[] = {
        {"v4l2", 'd', 0, G_OPTION_ARG_STRING, &o.v4l2, "Board output node (none: play without a board)", "PATH"},
        {"alsa", 'a', 0, G_OPTION_ARG_STRING, &o.alsa, "ALSA device beside a single-plane board", "NAME"},
        {"mode", 'm', 0, G_OPTION_ARG_INT, &o.mode, "SDI mode, as the element's \"mode\" property", "N"},
        {"seconds", 's', 0, G_OPTION_ARG_INT, &o.seconds, "How long to play", "S"},
        {"audio-lines", 'n', 0, G_OPTION_ARG_INT, &o.audio_lines, "Audio lines (0 to 8)", "N"},
        {"latency", 'l', 0, G_OPTION_ARG_INT, &o.latency, "Pre-roll in ms", "MS"},
        {"width", 0, 0, G_OPTION_ARG_INT, &o.width, "Test picture width", "W"},
        {"height", 0, 0, G_OPTION_ARG_INT, &o.height, "Test picture height", "H"},
        {"framerate", 0, 0, G_OPTION_ARG_STRING, &o.framerate, "Test picture rate, e.g. 25/1", "F"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    GError* err = nullptr;
    GOptionContext* ctx = g_option_context_new("- play a test programme through qvjtrenderer");
    g_option_context_add_main_entries(ctx, entries, nullptr);
    g_option_context_add_group(ctx, gst_init_get_option_group());
    if (!g_option_context_parse(ctx, &argc, &argv, &err)) {
        std::fprintf(stderr, "qvjt-playout: %s\n", err->message);
        return 2;
    }
    g_option_context_free(ctx);
    if (o.audio_lines < 0 || o.audio_lines > 8 || o.seconds < 0) {
        std::fprintf(stderr, "qvjt-playout: audio lines must be 0 to 8 and seconds not negative\n");
        return 2;
    }

    const std::string text = pipeline_text(o);
    std::printf("pipeline: %s\n", text.c_str());
    GstElement* pipeline = gst_parse_launch(text.c_str(), &err);
    if (!pipeline || err) {
        std::fprintf(stderr, "qvjt-playout: %s\n", err ? err->message : "cannot build the pipeline");
        return 1;
    }
    GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    GstBus* bus = gst_element_get_bus(pipeline);
    int rc = 0;
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        std::fprintf(stderr, "qvjt-playout: the pipeline refused to play\n");
        rc = 1;
    }
    // The element is a live sink without a clock of its own: play for the time asked.
    const gint64 end = g_get_monotonic_time() + gint64(o.seconds) * G_USEC_PER_SEC;
    while (rc == 0 && g_get_monotonic_time() < end) {
        GstMessage* msg = gst_bus_timed_pop(bus, 50 * GST_MSECOND);
        if (!msg)
            continue;
        print_message(msg);
        if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ERROR)
            rc = 1;
        gst_message_unref(msg);
    }

    gpointer stats = nullptr;
    g_object_get(out, "statistics", &stats, nullptr);
    std::printf("statistics:\n");
    for (const auto& [name, value] : static_cast<qv_base_statistics*>(stats)->get_items())
        std::printf("  %-36s %s\n", name.c_str(), value.c_str());

    gst_element_set_state(pipeline, GST_STATE_NULL);
    while (GstMessage* msg = gst_bus_pop(bus)) {
        print_message(msg);
        gst_message_unref(msg);
    }
    gst_object_unref(bus);
    gst_object_unref(out);
    gst_object_unref(pipeline);
    return rc;
}
