// Measures, per frame, add_video_frame + map_next_data of the FIFO engine for
// several input formats and sizes (output UYVY, as the board takes it), and
// beside each: a memcpy of the output bytes and GStreamer's video converter
// (videoconvert / videoscale's engine) doing the same conversion with the same
// number of threads, in the same run. Prints the ratios.
//
// Usage: fifo_bench [seconds per measurement, default 0.5] [only cases whose name contains this]
#include "qv_fifo_engine.h"

#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

using QVSDK::QVImage;
using clock_type = std::chrono::steady_clock;

namespace {

struct format_case {
    const char* name;
    QVSDK::QVEnumFormats qv;
    GstVideoFormat gst;
};

const format_case kFormats[] = {
    {"UYVY", QVSDK::FORMAT_UYVY, GST_VIDEO_FORMAT_UYVY},
    {"I420", QVSDK::FORMAT_IYUV, GST_VIDEO_FORMAT_I420},
    {"NV12", QVSDK::FORMAT_NV12, GST_VIDEO_FORMAT_NV12},
    {"YUY2", QVSDK::FORMAT_YUY2, GST_VIDEO_FORMAT_YUY2},
    {"BGRA", QVSDK::FORMAT_BGRA, GST_VIDEO_FORMAT_BGRA},
};

struct size_case {
    int w, h;
};

// The three contenders are timed in alternating slices and the best slice of
// each is kept, so that load from other processes hits all of them alike.
// Returns mean microseconds per call.
std::vector<double> measure_us(const std::vector<std::function<void()>>& fns, double seconds)
{
    for (const auto& fn : fns)
        for (int i = 0; i < 3; ++i)
            fn();
    std::vector<double> best(fns.size(), 1e30);
    const int rounds = 7;
    const auto slice = std::chrono::duration<double>(seconds / rounds);
    for (int r = 0; r < rounds; ++r) {
        for (size_t k = 0; k < fns.size(); ++k) {
            const auto t0 = clock_type::now();
            const auto until = t0 + slice;
            long n = 0;
            do {
                fns[k]();
                ++n;
            } while (clock_type::now() < until);
            const double us = std::chrono::duration<double, std::micro>(clock_type::now() - t0).count() / n;
            best[k] = std::min(best[k], us);
        }
    }
    return best;
}

QVImage random_image(int w, int h, QVSDK::QVEnumFormats f)
{
    QVImage img(w, h, QVSDK::FieldOrder_Upper_First, f);
    std::mt19937 rng(1);
    for (size_t i = 0; i < img.memory().size(); ++i)
        img.data(0)[i] = static_cast<uint8_t>(rng());
    return img;
}

// The engine, one frame per call: queue a picture and take it out again.
struct engine_runner {
    qv_renderer_statistics stats;
    qv_alarms_dispatcher alarms;
    qv_fifo_engine engine{stats, alarms};
    QVImage out;
    QVSDK::QVSound sound;
    std::vector<uint8_t> ttx, scte;
    uint64_t n = 0;

    engine_runner(int w, int h)
    {
        engine.create_video_stream(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(w, h), QVSDK::FieldOrder_Upper_First);
        engine.create_sound_stream(0, QVSDK::QVSoundFormat(0, 48000, 16, 2));
        engine.create_teletext_stream(25.0f);
        engine.create_scte104_stream(25.0f);
        engine.create_vbi_stream(25.0f);
        engine.alloc_fifo(4);
        engine.start();
    }
    void frame(const QVImage& in)
    {
        const uint64_t pts = n * 40000000ull;
        engine.add_video_frame(pts, pts + 40000000ull, pts, 0, in, 0);
        engine.map_next_data(static_cast<unsigned>(n), out, sound, ttx, scte);
        ++n;
    }
};

// GStreamer's converter over the same planes.
struct gst_runner {
    GstVideoInfo in{}, out{};
    GstVideoConverter* conv = nullptr;
    GstVideoFrame inFrame{}, outFrame{};
    GstBuffer* inBuf = nullptr;
    GstBuffer* outBuf = nullptr;

    gst_runner(const format_case& f, int sw, int sh, int dw, int dh, int threads)
    {
        gst_video_info_set_format(&in, f.gst, static_cast<guint>(sw), static_cast<guint>(sh));
        gst_video_info_set_format(&out, GST_VIDEO_FORMAT_UYVY, static_cast<guint>(dw), static_cast<guint>(dh));
        GstStructure* cfg = gst_structure_new("cfg", GST_VIDEO_CONVERTER_OPT_THREADS, G_TYPE_UINT,
                                              static_cast<guint>(threads), nullptr);
        conv = gst_video_converter_new(&in, &out, cfg);
        inBuf = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&in), nullptr);
        outBuf = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&out), nullptr);
        GstMapInfo m;
        gst_buffer_map(inBuf, &m, GST_MAP_WRITE);
        std::mt19937 rng(1);
        for (gsize i = 0; i < m.size; ++i)
            m.data[i] = static_cast<guint8>(rng());
        gst_buffer_unmap(inBuf, &m);
        gst_video_frame_map(&inFrame, &in, inBuf, GST_MAP_READ);
        gst_video_frame_map(&outFrame, &out, outBuf, GST_MAP_WRITE);
    }
    ~gst_runner()
    {
        gst_video_frame_unmap(&inFrame);
        gst_video_frame_unmap(&outFrame);
        gst_buffer_unref(inBuf);
        gst_buffer_unref(outBuf);
        gst_video_converter_free(conv);
    }
    void frame() { gst_video_converter_frame(conv, &inFrame, &outFrame); }
};

} // namespace

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.5;
    const char* filter = argc > 2 ? argv[2] : "";
    const int threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    // Silence the engine's console lines (none are expected at this rate).
    g_set_print_handler([](const gchar*) {});

    std::printf("threads=%d, %.2f s per measurement, output UYVY; times are per frame\n", threads, seconds);
    std::printf("%-22s %10s %10s %10s %12s %12s\n", "case", "engine us", "memcpy us", "gst us", "eng/memcpy",
                "eng/gst");

    const size_case sizes[] = {{720, 576}, {1920, 1080}, {3840, 2160}};
    struct job {
        format_case f;
        size_case in, out;
    };
    std::vector<job> jobs;
    for (const size_case& s : sizes)
        for (const format_case& f : kFormats)
            jobs.push_back({f, s, s});
    // Resizing: SD pictures to HD, HD to UHD.
    jobs.push_back({kFormats[0], {720, 576}, {1920, 1080}});
    jobs.push_back({kFormats[1], {720, 576}, {1920, 1080}});
    jobs.push_back({kFormats[1], {1920, 1080}, {3840, 2160}});

    for (const job& j : jobs) {
        char name[64];
        std::snprintf(name, sizeof name, "%s %dx%d->%dx%d", j.f.name, j.in.w, j.in.h, j.out.w, j.out.h);
        if (std::strstr(name, filter) == nullptr)
            continue;
        const QVImage src = random_image(j.in.w, j.in.h, j.f.qv);
        engine_runner eng(j.out.w, j.out.h);
        const size_t bytes = static_cast<size_t>(j.out.w) * static_cast<size_t>(j.out.h) * 2;
        std::vector<uint8_t> a(bytes, 1), b(bytes, 2);
        gst_runner g(j.f, j.in.w, j.in.h, j.out.w, j.out.h, threads);
        const std::vector<double> us = measure_us(
            {[&] { eng.frame(src); },
             [&] {
                 std::memcpy(b.data(), a.data(), bytes);
                 a[0] = b[bytes / 2]; // keep the copy observable
             },
             [&] { g.frame(); }},
            seconds);
        const double engUs = us[0], cpyUs = us[1], gstUs = us[2];

        std::printf("%-22s %10.1f %10.1f %10.1f %12.2f %12.2f\n", name, engUs, cpyUs, gstUs, engUs / cpyUs,
                    engUs / gstUs);
        std::fflush(stdout);
    }
    return 0;
}
