// What a channel costs beside the stock V4L2 sink, and how many fit one box.
//
// Matrix (default): for each raster, the same live source (black picture, two
// silent stereo lines) into fakesink (the source alone), stock v4l2sink (one
// copy) and qvjtrenderer on the simulated single- and multi-plane boards, at
// the declared defaults, at latency 500 and at capacity 60000. Every run is a
// process of its own, so that its resident memory is its own. Reported: CPU a
// frame (process, and over the source alone), its ratio to v4l2sink's, page
// faults a frame, resident memory, NULL->READY and NULL<->PLAYING times, and
// what the board saw.
//
// Channels (--channels 8,16,24,32): N processes at once, each one multi-plane
// 1080i50 channel with two audio lines at the declared defaults; reported:
// processes still playing at the end, fields dropped, pictures skipped and
// repeated, FIFO restarts, CPU a frame and the total resident memory, sampled
// every two seconds (flat or not: min / max after the first minute, or after
// the warm-up in shorter runs). Channels start a quarter of a second apart
// unless --stagger-ms says otherwise.
//
// FOOTPRINT_CLOCK=system puts every pipeline on the system clock instead of
// the one GStreamer chooses (the board's, where the element offers it).
//
// Usage: footprint_bench [--rasters 1080i50,2160p50,720p50] [--warmup S] [--seconds S] [--load N]
//        footprint_bench --channels 8,16,24,32 [--warmup S] [--seconds S] [--stagger-ms MS]
//        footprint_bench --one SINK RASTER LATENCY CAPACITY WARMUP SECONDS BOARD CYCLES
#include "footprint_run.h"

#include "gstqvjtrenderer.h"

#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct options {
    std::vector<std::string> rasters{"1080i50", "2160p50", "720p50"};
    std::vector<int> channels;
    double warmup = 10.0;
    double seconds = 20.0;
    int load = 0;
    int stagger_ms = 250;
};

std::vector<std::string> split(const std::string& s)
{
    std::vector<std::string> out;
    for (size_t p = 0; p <= s.size();) {
        const size_t q = std::min(s.find(',', p), s.size());
        if (q > p)
            out.push_back(s.substr(p, q - p));
        p = q + 1;
    }
    return out;
}

struct child {
    pid_t pid = -1;
    int out = -1;
};

// This program again, with `args`, its standard output on a pipe.
child spawn(const std::vector<std::string>& args)
{
    int fds[2];
    if (pipe(fds) != 0)
        std::exit(2);
    child c;
    c.pid = fork();
    if (c.pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        std::vector<char*> argv{const_cast<char*>("/proc/self/exe")};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv("/proc/self/exe", argv.data());
        _exit(127);
    }
    close(fds[1]);
    c.out = fds[0];
    return c;
}

run_result collect(child& c, bool& ok)
{
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(c.out, buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<size_t>(n));
    close(c.out);
    int status = 0;
    waitpid(c.pid, &status, 0);
    // FOOTPRINT_LOGS=DIR keeps each run's console (the element's own lines).
    if (const char* dir = std::getenv("FOOTPRINT_LOGS")) {
        std::ofstream log(std::string(dir) + "/run-" + std::to_string(c.pid) + ".log");
        log << text;
    }
    run_result r;
    const size_t at = text.rfind("RESULT ");
    ok = at != std::string::npos && from_line(text.substr(at), r) && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return r;
}

std::vector<std::string> one_args(const std::string& sink, const std::string& raster, unsigned latency,
                                  unsigned capacity, const options& o, int board, unsigned cycles)
{
    return {"--one", sink, raster, std::to_string(latency), std::to_string(capacity), std::to_string(o.warmup),
            std::to_string(o.seconds), std::to_string(board), std::to_string(cycles)};
}

double rss_mb(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atof(line.c_str() + 6) / 1024.0;
    return 0.0;
}

std::vector<pid_t> start_load(int n)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::vector<unsigned char> a(32 << 20, 1), b(32 << 20, 2);
            for (unsigned k = 0;; ++k) {
                std::memcpy(b.data(), a.data(), a.size());
                a[k % a.size()] = static_cast<unsigned char>(b[(k * 7919) % b.size()] + 1);
            }
        }
        pids.push_back(pid);
    }
    return pids;
}

void stop_load(const std::vector<pid_t>& pids)
{
    for (pid_t pid : pids) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

struct row {
    const char* label;
    const char* sink;
    unsigned latency, capacity;
};

void matrix(const options& o)
{
    const row rows[] = {
        {"source alone (fakesink)", "fakesink", 2000, 5000},
        {"v4l2sink (single-plane)", "v4l2sink", 2000, 5000},
        {"qvjtrenderer single-plane", "qv-single", 2000, 5000},
        {"qvjtrenderer multi-plane, 2 lines", "qv-multi", 2000, 5000},
        {"qvjtrenderer single, latency 500", "qv-single", 500, 5000},
        {"qvjtrenderer multi, latency 500", "qv-multi", 500, 5000},
        {"qvjtrenderer single, capacity 60000", "qv-single", 2000, 60000},
    };
    std::printf("warm-up %.0f s, measured %.0f s, %d busy process(es) beside\n", o.warmup, o.seconds, o.load);
    for (const std::string& name : o.rasters) {
        const raster* r = find_raster(name);
        if (!r) {
            std::fprintf(stderr, "no raster %s\n", name.c_str());
            continue;
        }
        std::printf("\n%s  %-36s %8s %8s %7s %8s %7s %8s %9s %s\n", r->name, "sink", "CPU ms/f", "over src",
                    "/v4l2", "faults/f", "RSS MB", "READY ms", "cycle ms", "sent/dropped/repeat/skip/resets");
        double src = 0.0, v4l2 = 0.0, v4l2over = 0.0;
        for (const row& w : rows) {
            const std::vector<pid_t> load = start_load(o.load);
            child c = spawn(one_args(w.sink, name, w.latency, w.capacity, o, 0, 5));
            bool ok = false;
            const run_result res = collect(c, ok);
            stop_load(load);
            if (!ok) {
                std::printf("         %-36s failed\n", w.label);
                continue;
            }
            const double over = res.cpu_ms - src;
            if (std::strcmp(w.sink, "fakesink") == 0)
                src = res.cpu_ms;
            if (std::strcmp(w.sink, "v4l2sink") == 0) {
                v4l2 = res.cpu_ms;
                v4l2over = over;
            }
            char ratio[32] = "-";
            if (v4l2 > 0.0 && std::strncmp(w.sink, "qv", 2) == 0)
                std::snprintf(ratio, sizeof ratio, "%.2f", res.cpu_ms / v4l2);
            std::printf("         %-36s %8.3f %8.3f %7s %8.2f %7.0f %8.1f %9.1f %llu/%llu/%lld/%lld/%lld%s\n", w.label,
                        res.cpu_ms, over, ratio, res.faults, res.rss_mb, res.ready_ms, res.cycle_ms, res.sent,
                        res.dropped, res.repeated, res.skipped, res.resets, res.playing ? "" : "  NOT PLAYING");
            std::fflush(stdout);
        }
        if (v4l2over > 0.0)
            std::printf("         (over-source CPU of v4l2sink: %.3f ms a frame)\n", v4l2over);
    }
}

bool channels(const options& o)
{
    bool all = true;
    for (int n : o.channels) {
        // Started --stagger-ms apart (a quarter of a second unless told), as a
        // station brings channels up: a storm of simultaneous starts measures
        // the storm, not a channel.
        // An earlier channel warms up longer, so that every channel measures
        // the same last --seconds, all of them running.
        std::vector<child> kids;
        for (int i = 0; i < n; ++i) {
            options mine = o;
            mine.warmup += (n - 1 - i) * o.stagger_ms / 1000.0;
            kids.push_back(spawn(one_args("qv-multi", "1080i50", 2000, 5000, mine, i, 0)));
            if (i + 1 < n)
                std::this_thread::sleep_for(std::chrono::milliseconds(o.stagger_ms));
        }
        // Total resident memory every two seconds; flatness is judged after
        // the first minute (or after the warm-up in runs shorter than that).
        const auto t0 = std::chrono::steady_clock::now();
        const double settle = o.seconds > 120.0 ? 60.0 : o.warmup;
        double lo = 1e18, hi = 0.0, last = 0.0;
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(2));
            const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            if (t >= o.warmup + o.seconds)
                break;
            double total = 0.0;
            for (const child& k : kids)
                total += rss_mb(k.pid);
            last = total;
            if (t >= settle) {
                lo = std::min(lo, total);
                hi = std::max(hi, total);
            }
        }
        unsigned playing = 0;
        unsigned long long dropped = 0;
        long long skipped = 0, repeated = 0, resets = 0;
        double cpu = 0.0, rss = 0.0;
        for (child& k : kids) {
            bool ok = false;
            const run_result r = collect(k, ok);
            playing += ok && r.playing ? 1 : 0;
            dropped += r.dropped;
            skipped += std::max(0LL, r.skipped);
            repeated += std::max(0LL, r.repeated);
            resets += std::max(0LL, r.resets);
            cpu += r.cpu_ms;
            rss += r.rss_mb;
        }
        const bool ok = playing == unsigned(n) && dropped == 0 && skipped == 0 && resets == 0;
        all = all && ok;
        std::printf("%2d x 1080i50 (2 lines, latency 2000, capacity 5000), %.0f s: playing %u/%d, dropped %llu, "
                    "skipped %lld, repeated %lld, resets %lld, CPU %.3f ms a frame a channel, resident total %.0f MB "
                    "(%.0f MB a channel; sampled %.0f..%.0f MB, spread %.1f %%, last sample %.0f MB)%s\n",
                    n, o.warmup + o.seconds, playing, n, dropped, skipped, repeated, resets, cpu / n, rss, rss / n,
                    lo, hi, lo > 0 ? (hi - lo) * 100.0 / lo : 0.0, last, ok ? "" : "  TARGET MISSED");
        std::fflush(stdout);
    }
    return all;
}

options parse(int argc, char** argv)
{
    options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        if (a == "--rasters" && more) {
            o.rasters = split(argv[++i]);
        } else if (a == "--channels" && more) {
            for (const std::string& s : split(argv[++i]))
                o.channels.push_back(std::max(1, std::atoi(s.c_str())));
        } else if (a == "--warmup" && more) {
            o.warmup = std::max(1.0, std::atof(argv[++i]));
        } else if (a == "--seconds" && more) {
            o.seconds = std::max(1.0, std::atof(argv[++i]));
        } else if (a == "--load" && more) {
            o.load = std::atoi(argv[++i]);
        } else if (a == "--stagger-ms" && more) {
            o.stagger_ms = std::max(0, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr,
                         "usage: %s [--rasters 1080i50,2160p50,720p50] [--warmup S] [--seconds S] [--load N]\n"
                         "       %s --channels 8,16,24,32 [--warmup S] [--seconds S] [--stagger-ms MS]\n",
                         argv[0], argv[0]);
            std::exit(2);
        }
    }
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    gst_init(nullptr, nullptr);
    if (argc == 10 && std::strcmp(argv[1], "--one") == 0) {
        gst_plugin_qvjtrenderer_register();
        run_config c;
        c.sink = argv[2];
        c.r = find_raster(argv[3]);
        c.latency = static_cast<unsigned>(std::atoi(argv[4]));
        c.capacity = static_cast<unsigned>(std::atoi(argv[5]));
        c.warmup_s = std::atof(argv[6]);
        c.measure_s = std::atof(argv[7]);
        c.board = std::atoi(argv[8]);
        c.cycles = static_cast<unsigned>(std::atoi(argv[9]));
        if (!c.r)
            return 2;
        std::printf("%s\n", to_line(run_one(c)).c_str());
        return 0;
    }
    const options o = parse(argc, argv);
    if (!o.channels.empty())
        return channels(o) ? 0 : 1;
    matrix(o);
    return 0;
}
