// One play-out run in this process, on a simulated board of its own, measured
// from the outside: process CPU and page faults a frame in steady state,
// resident memory, how long NULL->READY and NULL<->PLAYING take, and what the
// board saw (frames sent, fields it had to send without a buffer).
#pragma once

#include <string>

struct raster {
    const char* name;
    int mode; // the element's "mode"
    int width, height;
    int fps; // frames a second
    bool interlaced;
};

const raster* find_raster(const std::string& name);

struct run_config {
    std::string sink = "qv-single"; // fakesink | v4l2sink | qv-single | qv-multi
    const raster* r = nullptr;
    unsigned latency = 2000;  // the element's declared default
    unsigned capacity = 5000; // the element's declared default
    double warmup_s = 10.0;   // not counted: start-up and pre-roll
    double measure_s = 20.0;
    int board = 0;            // which simulated board (node paths differ per board)
    unsigned cycles = 5;      // NULL<->PLAYING cycles timed after the run
};

struct run_result {
    double cpu_ms = 0.0;     // process CPU a frame, user + system
    double faults = 0.0;     // minor page faults a frame
    double rss_mb = 0.0;     // resident at the end of the measurement
    double hwm_mb = 0.0;     // resident high-water mark
    double ready_ms = 0.0;   // NULL->READY of the sink
    double cycle_ms = 0.0;   // one NULL->PLAYING->NULL cycle, mean
    unsigned long long sent = 0, dropped = 0;
    long long repeated = -1, skipped = -1, resets = -1; // -1: not the element
    bool playing = false;    // still putting frames out at the end
};

// Runs `c` and returns what it measured; exits the process on a set-up error.
run_result run_one(const run_config& c);

std::string to_line(const run_result& r);
bool from_line(const std::string& line, run_result& r);
