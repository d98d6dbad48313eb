#include "footprint_run.h"

#include "qv_base_statistics.h"
#include "qvboardsim.h"

#include <gst/gst.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <thread>

namespace {

using steady = std::chrono::steady_clock;

const raster kRasters[] = {
    {"1080i50", 2, 1920, 1080, 25, true},
    {"2160p50", 17, 3840, 2160, 50, false},
    {"720p50", 6, 1280, 720, 50, false},
};

struct usage {
    double cpu_s;
    long faults;
};

usage now_usage()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return {double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6,
            ru.ru_minflt};
}

double status_mb(const char* key)
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0)
            return std::atof(line.c_str() + std::strlen(key)) / 1024.0;
    return 0.0;
}

double ms_since(steady::time_point t0)
{
    return std::chrono::duration<double, std::milli>(steady::now() - t0).count();
}

std::string video_path(const run_config& c)
{
    return "/dev/qvsim-fp-video" + std::to_string(c.board);
}

// The same sources for every sink: a black picture and, for the board that
// carries them, two silent stereo lines (elsewhere into a clocked fakesink,
// so that the source's cost is the same in every run).
std::string pipeline_text(const run_config& c)
{
    const raster& r = *c.r;
    char video[256];
    std::snprintf(video, sizeof video,
                  "videotestsrc pattern=black is-live=true ! video/x-raw,format=UYVY,width=%d,height=%d,"
                  "framerate=%d/1,pixel-aspect-ratio=1/1,interlace-mode=%s ! ",
                  r.width, r.height, r.fps, r.interlaced ? "interleaved" : "progressive");
    std::string t = video;
    const std::string element = "qvjtrenderer name=sink v4l2=" + video_path(c) + " mode=" + std::to_string(r.mode) +
                                " latency=" + std::to_string(c.latency) +
                                " buffer_capacity=" + std::to_string(c.capacity);
    if (c.sink == "fakesink")
        t += "fakesink sync=true";
    else if (c.sink == "v4l2sink")
        t += "v4l2sink device=" + video_path(c);
    else if (c.sink == "qv-single")
        t += element;
    else
        t += element + " number_of_audio_lines=2";
    const std::string audio = "audiotestsrc is-live=true wave=silence ! "
                              "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! ";
    for (int a = 0; a < 2; ++a)
        t += " " + audio + (c.sink == "qv-multi" ? "sink.src_audio" + std::to_string(a) : "fakesink sync=true");
    return t;
}

long long stat_value(GstElement* e, const char* name)
{
    gpointer p = nullptr;
    g_object_get(e, "statistics", &p, nullptr);
    if (!p)
        return -1;
    for (const auto& [n, v] : static_cast<qv_base_statistics*>(p)->get_items())
        if (n == name)
            return std::atoll(v.c_str());
    return -1;
}

GstElement* make_pipeline(const run_config& c)
{
    GError* err = nullptr;
    GstElement* p = gst_parse_launch(pipeline_text(c).c_str(), &err);
    if (!p || err) {
        std::fprintf(stderr, "pipeline: %s\n", err ? err->message : "?");
        std::exit(2);
    }
    return p;
}

bool set_and_wait(GstElement* p, GstState s)
{
    if (gst_element_set_state(p, s) == GST_STATE_CHANGE_FAILURE)
        return false;
    return gst_element_get_state(p, nullptr, nullptr, 10 * GST_SECOND) != GST_STATE_CHANGE_FAILURE;
}

void sleep_s(double s)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

} // namespace

const raster* find_raster(const std::string& name)
{
    for (const raster& r : kRasters)
        if (name == r.name)
            return &r;
    return nullptr;
}

run_result run_one(const run_config& c)
{
    qvboardsim::BoardConfig b;
    b.kind = c.sink == "qv-multi" ? qvboardsim::NodeKind::multi_plane : qvboardsim::NodeKind::single_plane;
    b.video_path = video_path(c);
    b.mode = c.r->mode;
    b.pacing = qvboardsim::Pacing::realtime;
    qvboardsim::Simulator& sim = qvboardsim::Simulator::instance();
    sim.configure({b});

    run_result res;
    GstElement* p = make_pipeline(c);
    if (const char* clock = std::getenv("FOOTPRINT_CLOCK"); clock && std::strcmp(clock, "system") == 0) {
        // The pipeline on the system clock instead of the one it would choose.
        GstClock* sys = gst_system_clock_obtain();
        gst_pipeline_use_clock(GST_PIPELINE(p), sys);
        gst_object_unref(sys);
    }
    auto t0 = steady::now();
    if (!set_and_wait(p, GST_STATE_READY)) {
        std::fprintf(stderr, "%s does not open\n", c.sink.c_str());
        std::exit(2);
    }
    res.ready_ms = ms_since(t0);
    if (!set_and_wait(p, GST_STATE_PLAYING)) {
        std::fprintf(stderr, "%s does not play\n", c.sink.c_str());
        std::exit(2);
    }
    sleep_s(c.warmup_s);
    const usage u0 = now_usage();
    sleep_s(c.measure_s);
    const usage u1 = now_usage();
    const double frames = c.measure_s * c.r->fps;
    res.cpu_ms = (u1.cpu_s - u0.cpu_s) * 1e3 / frames;
    res.faults = double(u1.faults - u0.faults) / frames;
    res.rss_mb = status_mb("VmRSS:");
    res.hwm_mb = status_mb("VmHWM:");
    const bool bBoard = c.sink != "fakesink";
    const uint64_t sent0 = bBoard ? sim.frames_sent(b.video_path) : 0;
    sleep_s(0.5);
    if (bBoard) {
        res.sent = sim.frames_sent(b.video_path);
        res.dropped = sim.underruns(b.video_path);
        res.playing = res.sent > sent0;
    } else {
        res.playing = true;
    }
    if (GstElement* e = gst_bin_get_by_name(GST_BIN(p), "sink")) {
        res.repeated = stat_value(e, "Video repeated frames");
        res.skipped = stat_value(e, "Video skipped frame");
        res.resets = stat_value(e, "Number of fifo restarts");
        gst_object_unref(e);
    }
    set_and_wait(p, GST_STATE_NULL);

    double total = 0.0;
    for (unsigned k = 0; k < c.cycles; ++k) {
        t0 = steady::now();
        set_and_wait(p, GST_STATE_PLAYING);
        set_and_wait(p, GST_STATE_NULL);
        total += ms_since(t0);
    }
    res.cycle_ms = c.cycles ? total / c.cycles : 0.0;
    gst_object_unref(p);
    return res;
}

std::string to_line(const run_result& r)
{
    char s[512];
    std::snprintf(s, sizeof s,
                  "RESULT %.4f %.3f %.1f %.1f %.2f %.2f %llu %llu %lld %lld %lld %d", r.cpu_ms, r.faults, r.rss_mb,
                  r.hwm_mb, r.ready_ms, r.cycle_ms, r.sent, r.dropped, r.repeated, r.skipped, r.resets,
                  r.playing ? 1 : 0);
    return s;
}

bool from_line(const std::string& line, run_result& r)
{
    int playing = 0;
    const int n = std::sscanf(line.c_str(), "RESULT %lf %lf %lf %lf %lf %lf %llu %llu %lld %lld %lld %d", &r.cpu_ms,
                              &r.faults, &r.rss_mb, &r.hwm_mb, &r.ready_ms, &r.cycle_ms, &r.sent, &r.dropped,
                              &r.repeated, &r.skipped, &r.resets, &playing);
    r.playing = playing != 0;
    return n == 12;
}
