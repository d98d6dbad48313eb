// Channel capacity: N elements play at once into N simulated multi-plane boards
// in realtime pacing, each fed pre-made pictures and two pre-made stereo lines
// by a thread that only stamps and pushes them at the frame rate. The pictures
// are a ring of distinct ones, larger than the FIFO, so that every picture the
// element reads is cold in the caches as a decoder's output would be; they
// come either as buffers of no pool (which the element may hold instead of
// copying) or, with --bounded-pool, from a pool with a ceiling (which it must
// give back at once, so it copies). For every
// configuration the same sources first run into `fakesink sync=true` (the
// upstream-only baseline), then into the element; the difference in process
// CPU per frame is the element's share. Beside it: one frame's memcpy, timed
// while the channels play (so that it meets the same contention for memory as
// the element's own copies) and on an idle process, since the element's floor
// is two copies of each picture (into the FIFO, then into the device buffer).
//
// Per channel it prints fields dropped (slots the board had to send without a
// buffer, from the first field on), pictures repeated and skipped, FIFO
// restarts, and the render thread's margin: how long before its slot each
// buffer was queued, as min / p99 (99 % of the buffers were queued at least
// this early) / median, in milliseconds.
//
// Usage: channels_bench [--seconds S] [--channels 1,2,4,8] [--uhd] [--latency MS]
//                       [--hw-buffers N] [--load N] [--bounded-pool]
//   --channels   1080i50 runs with these channel counts (0: none)
//   --uhd        also run one 2160p50 channel
//   --load N     N busy processes beside the element (stands in for a compile)
//   --bounded-pool  pictures from a pool with a ceiling (the element copies them)
#include "gstqvjtrenderer.h"
#include "qv_base_statistics.h"
#include "qvboardsim.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;

struct options {
    double seconds = 30.0;
    std::vector<int> channels{1, 2, 4, 8};
    bool uhd = false;
    unsigned latency = 500;
    unsigned hw_buffers = 3;
    int load = 0;
    bool bounded_pool = false;
};

struct raster {
    const char* name;
    int mode; // the element's "mode"
    int width, height;
    int fps;
    bool interlaced;
};

constexpr raster k1080i50{"1080i50", 2, 1920, 1080, 25, true};
constexpr raster k2160p50{"2160p50", 17, 3840, 2160, 50, false};

double cpu_seconds(int who = RUSAGE_SELF)
{
    rusage ru{};
    getrusage(who, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double thread_cpu_seconds()
{
    return cpu_seconds(RUSAGE_THREAD);
}

void paint(GstBuffer* b)
{
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    for (gsize i = 0; i + 3 < map.size; i += 4) {
        map.data[i] = 0x80;
        map.data[i + 1] = 0x70;
        map.data[i + 2] = 0x80;
        map.data[i + 3] = 0x70;
    }
    gst_buffer_unmap(b, &map);
}

// Distinct pre-made pictures, handed out in turn. More than the FIFO holds at
// the default latency (and than the pool lends at once), so that a picture is
// not read again while it could still be in a cache.
class picture_source {
public:
    static constexpr guint kRing = 32;

    picture_source(const raster& r, bool bounded)
    {
        const gsize size = static_cast<gsize>(r.width) * r.height * 2;
        if (bounded) {
            m_pool = gst_buffer_pool_new();
            GstStructure* config = gst_buffer_pool_get_config(m_pool);
            gst_buffer_pool_config_set_params(config, nullptr, static_cast<guint>(size), kRing, kRing);
            gst_buffer_pool_set_config(m_pool, config);
            gst_buffer_pool_set_active(m_pool, TRUE);
            // Painted once: a pool hands its buffers back with their contents.
            std::vector<GstBuffer*> all(kRing);
            for (GstBuffer*& b : all) {
                gst_buffer_pool_acquire_buffer(m_pool, &b, nullptr);
                paint(b);
            }
            for (GstBuffer* b : all)
                gst_buffer_unref(b);
            return;
        }
        for (guint i = 0; i < kRing; ++i) {
            m_ring.push_back(gst_buffer_new_allocate(nullptr, size, nullptr));
            paint(m_ring.back());
        }
    }
    ~picture_source()
    {
        for (GstBuffer* b : m_ring)
            gst_buffer_unref(b);
        if (m_pool) {
            gst_buffer_pool_set_active(m_pool, FALSE);
            gst_object_unref(m_pool);
        }
    }
    picture_source(const picture_source&) = delete;
    picture_source& operator=(const picture_source&) = delete;

    // A writable buffer for one push; i numbers the pushes of one channel.
    GstBuffer* get(uint64_t i)
    {
        if (m_pool) {
            GstBuffer* b = nullptr;
            // Blocks while every buffer is out: the element gives each back after its chain call.
            return gst_buffer_pool_acquire_buffer(m_pool, &b, nullptr) == GST_FLOW_OK ? b : nullptr;
        }
        // A new buffer over the pre-made memory: no copy.
        return gst_buffer_copy(m_ring[i % m_ring.size()]);
    }

private:
    std::vector<GstBuffer*> m_ring;
    GstBufferPool* m_pool = nullptr;
};

// One frame of 48 kHz stereo S16 with a quiet square wave, so the line is not silence.
GstBuffer* premade_sound(const raster& r)
{
    const int samples = 48000 / r.fps;
    GstBuffer* b = gst_buffer_new_allocate(nullptr, static_cast<gsize>(samples) * 4, nullptr);
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    auto* s = reinterpret_cast<int16_t*>(map.data);
    for (int k = 0; k < samples; ++k)
        s[2 * k] = s[2 * k + 1] = static_cast<int16_t>((k / 24) % 2 ? 1000 : -1000);
    gst_buffer_unmap(b, &map);
    return b;
}

struct channel {
    std::string path;
    GstElement* pipeline = nullptr;
    GstElement* sink = nullptr; // the element; null in the baseline
    GstElement* src[3] = {};    // video, audio 0, audio 1
    std::thread feeder;
    uint64_t pushed = 0;
};

std::string pipeline_text(const raster& r, const std::string& path, const options& o, bool baseline)
{
    char video_caps[256];
    std::snprintf(video_caps, sizeof video_caps,
                  "video/x-raw,format=UYVY,width=%d,height=%d,framerate=%d/1,pixel-aspect-ratio=1/1,"
                  "interlace-mode=%s",
                  r.width, r.height, r.fps, r.interlaced ? "interleaved" : "progressive");
    const std::string audio_caps = "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved";
    const std::string src = "appsrc is-live=true format=time block=false max-bytes=200000000 ";
    std::string t = src + "name=v caps=\"" + video_caps + "\" ! ";
    if (baseline) {
        t += "fakesink sync=true ";
        for (int a = 0; a < 2; ++a)
            t += src + "name=a" + std::to_string(a) + " caps=\"" + audio_caps + "\" ! fakesink sync=true ";
        return t;
    }
    t += "qvjtrenderer name=r v4l2=" + path + " mode=" + std::to_string(r.mode) +
         " latency=" + std::to_string(o.latency) + " hw-buffers=" + std::to_string(o.hw_buffers) +
         " buffer_capacity=2000 number_of_audio_lines=2 use_hwtime=false ";
    for (int a = 0; a < 2; ++a)
        t += src + "name=a" + std::to_string(a) + " caps=\"" + audio_caps + "\" ! r.src_audio" +
             std::to_string(a) + " ";
    return t;
}

// Pushes the pre-made buffers with exact frame stamps at the frame rate until
// `stop`; the buffers share the pre-made memory, so a push costs no copy.
void feed(channel& c, const raster& r, picture_source& pictures, GstBuffer* sound, const std::atomic<bool>& stop)
{
    const GstClockTime period = GST_SECOND / static_cast<GstClockTime>(r.fps);
    GstClock* clock = gst_pipeline_get_clock(GST_PIPELINE(c.pipeline));
    const GstClockTime first = gst_clock_get_time(clock) - gst_element_get_base_time(c.pipeline);
    gst_object_unref(clock);
    const steady::time_point t0 = steady::now();
    for (uint64_t i = 0; !stop.load(); ++i) {
        std::this_thread::sleep_until(t0 + std::chrono::nanoseconds(i * period));
        GstBuffer* bufs[3] = {pictures.get(i), gst_buffer_copy(sound), gst_buffer_copy(sound)};
        for (int k = 0; k < 3; ++k) {
            if (!bufs[k])
                continue;
            GST_BUFFER_PTS(bufs[k]) = first + i * period;
            GST_BUFFER_DTS(bufs[k]) = GST_CLOCK_TIME_NONE;
            GST_BUFFER_DURATION(bufs[k]) = period;
            gst_app_src_push_buffer(GST_APP_SRC(c.src[k]), bufs[k]);
        }
        c.pushed = i + 1;
    }
}

std::string stat(GstElement* e, const char* name)
{
    gpointer p = nullptr;
    g_object_get(e, "statistics", &p, nullptr);
    for (const auto& [n, v] : static_cast<qv_base_statistics*>(p)->get_items())
        if (n == name)
            return v;
    return "?";
}

// Median microseconds of copying one frame. The element's copies run between
// buffers that are not in the cache (a ring of FIFO slots, a ring of device
// buffers), so the copies here rotate over more memory than any cache holds;
// the hot figure (one pair of buffers, copied over and over) is printed beside.
struct copy_cost {
    double cold_us = 0.0;
    double hot_us = 0.0;
};

// Times copies in rounds spread over a run, so that one busy moment of the
// machine does not decide the reference; the medians over all rounds count.
class copy_probe {
public:
    explicit copy_probe(size_t bytes) : m_bytes(bytes), m_src(16, std::vector<uint8_t>(bytes, 1)), m_dst(8, std::vector<uint8_t>(bytes, 2)) {}

    void round(size_t n)
    {
        for (size_t k = 0; k < n; ++k, ++m_i) {
            const auto t0 = steady::now();
            std::memcpy(m_dst[m_i % m_dst.size()].data(), m_src[m_i % m_src.size()].data(), m_bytes);
            const auto t1 = steady::now();
            std::memcpy(m_dst[0].data(), m_src[0].data(), m_bytes);
            const auto t2 = steady::now();
            m_cold.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
            m_hot.push_back(std::chrono::duration<double, std::micro>(t2 - t1).count());
            m_src[m_i % m_src.size()][m_i % m_bytes] = m_dst[(m_i + 1) % m_dst.size()][m_bytes - 1 - m_i % m_bytes];
        }
    }
    copy_cost result()
    {
        return {median(m_cold), median(m_hot)};
    }

private:
    static double median(std::vector<double>& v)
    {
        if (v.empty())
            return 0.0;
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
        return v[v.size() / 2];
    }
    size_t m_bytes;
    size_t m_i = 0;
    std::vector<std::vector<uint8_t>> m_src, m_dst;
    std::vector<double> m_cold, m_hot;
};

copy_cost memcpy_us(size_t bytes)
{
    copy_probe p(bytes);
    p.round(48);
    return p.result();
}

struct run_result {
    double cpu_per_frame_ms = 0.0; // process CPU / frames pushed over all channels
    copy_cost copy_during;         // one frame's copy, timed while the channels play
    std::vector<channel> channels;
    std::vector<std::unique_ptr<picture_source>> pictures; // outlive the pipelines
};

// Runs n channels for `seconds`; CPU is taken after the first second, so that
// start-up (pre-roll, the first touch of every buffer) does not count.
run_result run(const raster& r, int n, const options& o, bool baseline, double seconds)
{
    run_result res;
    if (!baseline) {
        std::vector<qvboardsim::BoardConfig> boards;
        for (int i = 0; i < n; ++i) {
            qvboardsim::BoardConfig b;
            b.kind = qvboardsim::NodeKind::multi_plane;
            b.video_path = "/dev/qvsim-bench-video" + std::to_string(i);
            b.mode = r.mode;
            b.pacing = qvboardsim::Pacing::realtime;
            boards.push_back(b);
        }
        qvboardsim::Simulator::instance().configure(boards);
    }
    res.channels.resize(static_cast<size_t>(n));
    const size_t frame_bytes = static_cast<size_t>(r.width) * static_cast<size_t>(r.height) * 2;
    // One source per channel: a bounded pool is a channel's own upstream.
    std::vector<std::unique_ptr<picture_source>> pictures;
    for (int i = 0; i < n; ++i)
        pictures.push_back(std::make_unique<picture_source>(r, o.bounded_pool));
    GstBuffer* sound = premade_sound(r);
    for (int i = 0; i < n; ++i) {
        channel& c = res.channels[static_cast<size_t>(i)];
        c.path = "/dev/qvsim-bench-video" + std::to_string(i);
        GError* err = nullptr;
        c.pipeline = gst_parse_launch(pipeline_text(r, c.path, o, baseline).c_str(), &err);
        if (!c.pipeline || err) {
            std::fprintf(stderr, "pipeline: %s\n", err ? err->message : "?");
            std::exit(2);
        }
        c.sink = baseline ? nullptr : gst_bin_get_by_name(GST_BIN(c.pipeline), "r");
        const char* names[3] = {"v", "a0", "a1"};
        for (int k = 0; k < 3; ++k)
            c.src[k] = gst_bin_get_by_name(GST_BIN(c.pipeline), names[k]);
        if (gst_element_set_state(c.pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            std::fprintf(stderr, "channel %d does not play\n", i);
            std::exit(2);
        }
    }
    std::atomic<bool> stop{false};
    for (size_t i = 0; i < res.channels.size(); ++i)
        res.channels[i].feeder =
            std::thread(feed, std::ref(res.channels[i]), std::cref(r), std::ref(*pictures[i]), sound, std::cref(stop));

    std::this_thread::sleep_for(std::chrono::seconds(1));
    uint64_t pushed0 = 0;
    for (auto& c : res.channels)
        pushed0 += c.pushed;
    // The reference copy is timed while the channels play, in rounds every few
    // seconds: the element's copies compete for the same memory bandwidth and
    // caches. Its own CPU is not the element's and is taken out.
    std::unique_ptr<copy_probe> probe = baseline ? nullptr : std::make_unique<copy_probe>(frame_bytes);
    const double cpu0 = cpu_seconds();
    double own = 0.0;
    const auto tEnd = steady::now() + std::chrono::duration_cast<steady::duration>(
                                          std::chrono::duration<double>(seconds - 1.0));
    while (steady::now() < tEnd) {
        std::this_thread::sleep_until(std::min(tEnd, steady::now() + std::chrono::seconds(5)));
        if (probe && steady::now() < tEnd) {
            const double own0 = thread_cpu_seconds();
            probe->round(4);
            own += thread_cpu_seconds() - own0;
        }
    }
    const double cpu1 = cpu_seconds() - own;
    if (probe)
        res.copy_during = probe->result();
    uint64_t pushed1 = 0;
    for (auto& c : res.channels)
        pushed1 += c.pushed;
    res.cpu_per_frame_ms = (cpu1 - cpu0) * 1e3 / static_cast<double>(std::max<uint64_t>(pushed1 - pushed0, 1));

    stop = true;
    for (auto& c : res.channels)
        c.feeder.join();
    gst_buffer_unref(sound);
    res.pictures = std::move(pictures);
    return res;
}

void teardown(run_result& res)
{
    for (auto& c : res.channels) {
        gst_element_set_state(c.pipeline, GST_STATE_NULL);
        for (GstElement* s : c.src)
            gst_object_unref(s);
        if (c.sink)
            gst_object_unref(c.sink);
        gst_object_unref(c.pipeline);
    }
    res.pictures.clear();
}

double percentile_ms(std::vector<int64_t>& v, double q)
{
    if (v.empty())
        return 0.0;
    const size_t k = std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return static_cast<double>(v[k]) / 1e6;
}

// Returns true when every channel met the targets (no drop, no skip, no restart).
bool measure(const raster& r, int n, const options& o)
{
    const size_t frame_bytes = static_cast<size_t>(r.width) * r.height * 2;
    const copy_cost copy = memcpy_us(frame_bytes);
    // A tenth of the run, at least 10 s: the baseline is small and noisy, and
    // its error goes straight into the element's share.
    const double baseline_s = std::min(o.seconds, std::max(10.0, std::min(60.0, o.seconds / 10.0)));
    run_result base = run(r, n, o, true, baseline_s);
    teardown(base);
    run_result el = run(r, n, o, false, o.seconds);

    const double element_ms = el.cpu_per_frame_ms - base.cpu_per_frame_ms;
    // The faster of the two reference copies makes the bound, so that a slow
    // moment of the machine cannot flatter the ratio.
    const double bound_ms = 2.0 * std::min(el.copy_during.cold_us, copy.cold_us) / 1e3;
    const double field_ms = 1e3 / (r.interlaced ? 2.0 * r.fps : r.fps);
    std::printf("\n%s x %d, %.0f s (baseline %.0f s), latency %u ms, hw-buffers %u, pictures %s%s\n", r.name, n,
                o.seconds, baseline_s, o.latency, o.hw_buffers,
                o.bounded_pool ? "from a bounded pool (copied into the FIFO)" : "of no pool (held in the FIFO)",
                o.load ? ", with load beside" : "");
    std::printf("  CPU per frame: process %.3f ms, upstream only %.3f ms, element %.3f ms\n", el.cpu_per_frame_ms,
                base.cpu_per_frame_ms, element_ms);
    std::printf("  memcpy of one frame (%zu bytes) between uncached buffers: %.3f ms while the channels play "
                "(%.3f ms cached), %.3f ms on an idle process\n",
                frame_bytes, el.copy_during.cold_us / 1e3, el.copy_during.hot_us / 1e3, copy.cold_us / 1e3);
    std::printf("  element / two-copy bound = %.2f (against copies while playing %.2f, idle %.2f, cached %.2f)\n",
                element_ms / bound_ms, element_ms / (2.0 * el.copy_during.cold_us / 1e3),
                element_ms / (2.0 * copy.cold_us / 1e3), element_ms / (2.0 * el.copy_during.hot_us / 1e3));
    std::printf("  %-4s %8s %8s %8s %8s %8s  %s (slot %.1f ms)\n", "ch", "sent", "dropped", "repeat", "skip",
                "restarts", "margin ms min / p99 / median", field_ms);
    bool ok = true;
    auto& sim = qvboardsim::Simulator::instance();
    for (size_t i = 0; i < el.channels.size(); ++i) {
        channel& c = el.channels[i];
        const uint64_t sent = sim.frames_sent(c.path);
        const uint64_t dropped = sim.underruns(c.path);
        std::vector<int64_t> m = sim.take_margins(c.path);
        const double mn = m.empty() ? 0.0 : static_cast<double>(*std::min_element(m.begin(), m.end())) / 1e6;
        const double p99 = percentile_ms(m, 0.01);
        const double med = percentile_ms(m, 0.5);
        const std::string rep = stat(c.sink, "Video repeated frames");
        const std::string skip = stat(c.sink, "Video skipped frame");
        const std::string restarts = stat(c.sink, "Number of fifo restarts");
        std::printf("  %-4zu %8llu %8llu %8s %8s %8s  %.2f / %.2f / %.2f\n", i, static_cast<unsigned long long>(sent),
                    static_cast<unsigned long long>(dropped), rep.c_str(), skip.c_str(), restarts.c_str(), mn, p99,
                    med);
        ok = ok && sent > 0 && dropped == 0 && skip == "0" && restarts == "0" && p99 >= field_ms;
    }
    teardown(el);
    std::fflush(stdout);
    return ok;
}

std::vector<pid_t> start_load(int n)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            // A compiler's mix, roughly: arithmetic and memory traffic, never idle.
            std::vector<uint8_t> a(32 << 20, 1), b(32 << 20, 2);
            for (unsigned k = 0;; ++k) {
                std::memcpy(b.data(), a.data(), a.size());
                a[k % a.size()] = static_cast<uint8_t>(b[(k * 7919) % b.size()] + 1);
            }
        }
        if (pid > 0)
            pids.push_back(pid);
    }
    return pids;
}

options parse(int argc, char** argv)
{
    options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "--seconds" && more) {
            o.seconds = std::max(2.0, std::atof(argv[++i]));
        } else if (a == "--channels" && more) {
            o.channels.clear();
            std::string s = argv[++i];
            for (size_t p = 0; p < s.size();) {
                const size_t q = s.find(',', p);
                const int n = std::atoi(s.substr(p, q - p).c_str());
                if (n > 0) // 0 alone: no 1080 run (e.g. only --uhd)
                    o.channels.push_back(n);
                p = q == std::string::npos ? s.size() : q + 1;
            }
        } else if (a == "--uhd") {
            o.uhd = true;
        } else if (a == "--latency" && more) {
            o.latency = static_cast<unsigned>(std::atoi(argv[++i]));
        } else if (a == "--hw-buffers" && more) {
            o.hw_buffers = static_cast<unsigned>(std::atoi(argv[++i]));
        } else if (a == "--load" && more) {
            o.load = std::atoi(argv[++i]);
        } else if (a == "--bounded-pool") {
            o.bounded_pool = true;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--seconds S] [--channels 1,2,4,8] [--uhd] [--latency MS] [--hw-buffers N] "
                         "[--load N] [--bounded-pool]\n",
                         argv[0]);
            std::exit(2);
        }
    }
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    const options o = parse(argc, argv);
    gst_init(nullptr, nullptr);
    gst_plugin_qvjtrenderer_register();
    const std::vector<pid_t> load = start_load(o.load);

    bool ok = true;
    for (int n : o.channels)
        ok = measure(k1080i50, n, o) && ok;
    if (o.uhd)
        ok = measure(k2160p50, 1, o) && ok;

    for (pid_t pid : load) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::printf("\n%s\n", ok ? "all channels on air: no field dropped, no picture skipped, margin p99 >= one slot"
                              : "targets missed (see above)");
    return ok ? 0 : 1;
}
