#include "playout_options.h"

#include <gst/gst.h>

#include <cstdio>
#include <fstream>

namespace {

// A playlist file: one entry a line; blank lines and lines starting with '#' are left out.
bool read_playlist(const char* path, std::vector<std::string>& entries)
{
    std::ifstream in(path);
    if (!in)
        return false;
    for (std::string line; std::getline(in, line);) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.pop_back();
        const size_t start = line.find_first_not_of(" \t");
        if (start != std::string::npos && line[start] != '#')
            entries.push_back(line.substr(start));
    }
    return true;
}

} // namespace

int parse_options(int& argc, char**& argv, playout_options& o)
{
    gchar* v4l2 = nullptr;
    gchar* alsa = nullptr;
    gchar* line_map = nullptr;
    gchar* framerate = nullptr;
    gchar* list = nullptr;
    gchar** rest = nullptr;
    gboolean loop = FALSE, cues = FALSE, teletext = FALSE;
    const GOptionEntry entries[] = {
        {"v4l2", 'd', 0, G_OPTION_ARG_STRING, &v4l2, "Board output node (none: play without a board)", "PATH"},
        {"alsa", 'a', 0, G_OPTION_ARG_STRING, &alsa, "ALSA device beside a single-plane board", "NAME"},
        {"line-map", 0, 0, G_OPTION_ARG_STRING, &line_map,
         "VBI/VANC lines of teletext and SCTE-104, as the element's \"line-map\", e.g. teletext=12-15;scte104=16",
         "MAP"},
        {"mode", 'm', 0, G_OPTION_ARG_INT, &o.mode, "SDI mode, as the element's \"mode\" property", "N"},
        {"seconds", 's', 0, G_OPTION_ARG_INT, &o.seconds,
         "How long to play (test programme: 3; playlist: to its end)", "S"},
        {"audio-lines", 'n', 0, G_OPTION_ARG_INT, &o.audio_lines, "Audio lines (0 to 8)", "N"},
        {"stats-interval", 0, 0, G_OPTION_ARG_INT, &o.stats_interval,
         "Print the element's statistics message every MS while playing (0: only at the end)", "MS"},
        {"latency", 'l', 0, G_OPTION_ARG_INT, &o.latency,
         "Pre-roll in ms (test programme: 200; playlist: 1000)", "MS"},
        {"width", 0, 0, G_OPTION_ARG_INT, &o.width, "Test picture width", "W"},
        {"height", 0, 0, G_OPTION_ARG_INT, &o.height, "Test picture height", "H"},
        {"framerate", 0, 0, G_OPTION_ARG_STRING, &framerate, "Test picture rate, e.g. 25/1", "F"},
        {"playlist", 'p', 0, G_OPTION_ARG_FILENAME, &list, "Play the files or URIs listed in FILE, one a line",
         "FILE"},
        {"loop", 0, 0, G_OPTION_ARG_NONE, &loop, "Start the playlist over after its last item", nullptr},
        {"splice-cues", 0, 0, G_OPTION_ARG_NONE, &cues,
         "Send an SCTE-35 splice_insert at every boundary between two items", nullptr},
        {"teletext", 0, 0, G_OPTION_ARG_NONE, &teletext, "Pass the items' teletext to the teletext lines", nullptr},
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &rest, nullptr, "[FILE|URI...]"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    GError* err = nullptr;
    GOptionContext* ctx =
        g_option_context_new("[FILE|URI...] - play a playlist, or a test programme, through qvjtrenderer");
    g_option_context_add_main_entries(ctx, entries, nullptr);
    g_option_context_add_group(ctx, gst_init_get_option_group());
    const bool parsed = g_option_context_parse(ctx, &argc, &argv, &err);
    g_option_context_free(ctx);
    int rc = 0;
    if (!parsed) {
        std::fprintf(stderr, "qvjt-playout: %s\n", err->message);
        g_clear_error(&err);
        rc = 2;
    }
    o.v4l2 = v4l2 ? v4l2 : "";
    o.alsa = alsa ? alsa : "";
    o.line_map = line_map ? line_map : "";
    if (framerate)
        o.framerate = framerate;
    o.loop = loop;
    o.splice_cues = cues;
    o.teletext = teletext;
    if (rc == 0 && list && !read_playlist(list, o.entries)) {
        std::fprintf(stderr, "qvjt-playout: cannot read the playlist %s\n", list);
        rc = 2;
    }
    for (gchar** p = rest; p && *p; ++p)
        o.entries.emplace_back(*p);
    if (rc == 0 && list && o.entries.empty()) {
        std::fprintf(stderr, "qvjt-playout: the playlist %s names no file\n", list);
        rc = 2;
    }
    if (rc == 0 && (o.audio_lines < 0 || o.audio_lines > 8 || o.seconds < -1 || o.latency < -1)) {
        std::fprintf(stderr, "qvjt-playout: audio lines must be 0 to 8, seconds and latency not negative\n");
        rc = 2;
    }
    if (o.latency < 0)
        o.latency = o.playlist() ? 1000 : 200;
    if (o.seconds < 0)
        o.seconds = o.playlist() ? 0 : 3;
    g_free(v4l2);
    g_free(alsa);
    g_free(line_map);
    g_free(framerate);
    g_free(list);
    g_strfreev(rest);
    return rc;
}
