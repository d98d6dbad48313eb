// Command line of qvjt-playout: the board, the test programme's raster and,
// when files or URIs are named, the playlist and how to play it.
#pragma once

#include <string>
#include <vector>

struct playout_options {
    std::string v4l2;
    std::string alsa;
    std::string line_map; // the element's "line-map"
    int mode = 0;
    int seconds = -1; // -1: the test programme's 3 s, or a playlist to its end
    int audio_lines = 1;
    int stats_interval = 0; // ms between printed statistics messages; 0: none
    int latency = -1; // -1: 200 ms for the test programme, 1000 ms for a playlist
    int width = 720;
    int height = 576;
    std::string framerate = "25/1";
    // Playlist: the entries (files or URIs) in play order.
    std::vector<std::string> entries;
    bool loop = false;
    bool splice_cues = false;
    bool teletext = false;

    bool playlist() const { return !entries.empty(); }
};

// Parses argv (GStreamer's own options included). Returns 0 on success, else
// the exit code, with the reason already printed.
int parse_options(int& argc, char**& argv, playout_options& o);
