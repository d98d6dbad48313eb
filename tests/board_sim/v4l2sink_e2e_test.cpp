// A V4L2 client nobody here wrote: GStreamer's v4l2sink plays a test pattern
// into the simulated single-plane node (simulator preloaded), and the capture
// must hold the very frames the same pattern writes to a file.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "capture_format.h"
#include "gst_test_env.h"

using namespace qvboardsim;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true; // a sanitized .so cannot be preloaded into gst-launch
#else
constexpr bool kSanitized = false;
#endif

bool have(const char* cmd)
{
    return std::system((std::string("command -v ") + cmd + " >/dev/null 2>&1").c_str()) == 0;
}

TEST(V4l2SinkEndToEnd, CaptureHoldsTheFramesTheSinkSent)
{
    if (kSanitized)
        GTEST_SKIP() << "preloading needs an uninstrumented libqvboardsim.so";
    qv_test_gst_environment(); // gst-inspect and gst-launch inherit the private plug-in path
    if (!have("gst-launch-1.0") || std::system("gst-inspect-1.0 v4l2sink >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "gst-launch-1.0 or v4l2sink not installed";
    char dir[] = "/tmp/qvbs-e2e-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string d = dir;
    const std::string caps = "video/x-raw,format=UYVY,width=1280,height=720,framerate=50/1,"
                             "colorimetry=bt709,interlace-mode=progressive";
    const int frames = 100;
    std::string ref = "gst-launch-1.0 -q videotestsrc num-buffers=" + std::to_string(frames) +
                      " ! " + caps + " ! filesink location=" + d + "/ref.uyvy";
    ASSERT_EQ(std::system(ref.c_str()), 0);
    std::string play = "LD_PRELOAD=" + std::string(QVBS_PRELOAD_LIB) +
                       " QVBOARDSIM='[board];kind=single;video=/dev/qvsim-e2e-video0;mode=1280x720_50p;"
                       "capture=" + d + "/out.qvcap'" +
                       " gst-launch-1.0 -q videotestsrc num-buffers=" + std::to_string(frames) + " ! " +
                       caps + " ! v4l2sink sync=false device=/dev/qvsim-e2e-video0"; // paced by the board, not the clock
    ASSERT_EQ(std::system(play.c_str()), 0) << play;

    const size_t frame_bytes = size_t(1280) * 720 * 2;
    std::ifstream in(d + "/ref.uyvy", std::ios::binary);
    std::map<uint32_t, int> reference; // picture checksum -> frame number
    std::vector<char> buf(frame_bytes);
    for (int i = 0; in.read(buf.data(), std::streamsize(frame_bytes)); ++i)
        reference.emplace(uint32_t(crc32(0, reinterpret_cast<const Bytef*>(buf.data()), uInt(frame_bytes))), i);
    ASSERT_EQ(reference.size(), size_t(frames));

    CaptureReader r;
    ASSERT_TRUE(r.open(d + "/out.qvcap")) << r.error();
    EXPECT_EQ(r.header().width, 1280u);
    EXPECT_EQ(r.header().height, 720u);
    CapturedFrame f;
    int last = -1, distinct = 0;
    uint32_t last_seq = 0;
    while (r.next(f)) {
        auto it = reference.find(f.pic_crc);
        ASSERT_NE(it, reference.end()) << "captured frame " << f.index << " is not a frame the sink was given";
        EXPECT_GE(it->second, last) << "frames out of order";
        distinct += it->second != last ? 1 : 0;
        last = it->second;
        // Paced output: sequences only grow (a client starved of CPU leaves
        // gaps, which are underruns and not errors).
        EXPECT_GT(f.sequence, last_seq);
        last_seq = f.sequence;
    }
    EXPECT_TRUE(r.error().empty()) << r.error();
    // Buffers still queued when the sink stops streaming at EOS never go out.
    EXPECT_GE(distinct, frames - 4);
    std::system(("rm -rf " + d).c_str());
}

} // namespace
