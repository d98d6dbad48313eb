#include "playout_report.h"

#include "qv_base_statistics.h"

#include <cstdio>

void print_message(GstMessage* msg)
{
    if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ELEMENT) {
        const GstStructure* s = gst_message_get_structure(msg);
        if (s && gst_structure_has_name(s, "qvjtrenderer-alarm"))
            std::printf("alarm %s: %s (%s)\n", gst_structure_get_string(s, "action"),
                        gst_structure_get_string(s, "alarm"), gst_structure_get_string(s, "text"));
        if (s && gst_structure_has_name(s, "qvjtrenderer-stats")) {
            // One line a message, for whoever watches the play-out over time.
            gchar* text = gst_structure_to_string(s);
            std::printf("stats %s\n", text);
            g_free(text);
            std::fflush(stdout);
        }
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

void print_statistics(GstElement* out)
{
    gpointer stats = nullptr;
    g_object_get(out, "statistics", &stats, nullptr);
    if (!stats)
        return;
    std::printf("statistics:\n");
    for (const auto& [name, value] : static_cast<qv_base_statistics*>(stats)->get_items())
        std::printf("  %-36s %s\n", name.c_str(), value.c_str());
    std::fflush(stdout);
}
