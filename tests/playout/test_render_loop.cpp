// The render loop on the play-out core alone, against the stepped board
// simulator: what it does when a device or the input fails, ends or is
// flushed, and how the hardware-time lock moves the output.
#include "alsa_faults.h"
#include "playout_rig.h"
#include "print_capture.h"

#include <algorithm>
#include <cerrno>

using playout_test::rig;
using qvboardsim::NodeKind;

namespace {

bool printed(const print_capture& console, const std::string& text)
{
    const auto lines = console.lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

} // namespace

// A sound card that refuses a write restarts the play-out, which comes back on
// air once the card takes sound again.
TEST(RenderLoop, AlsaWriteFailureRestartsThePlayout)
{
    rig r(NodeKind::single_plane, 0, "null");
    r.open();
    r.start(false);
    ASSERT_TRUE(r.step_until([&] { return r.sent() >= 5; }, 50));
    print_capture console;
    alsa_faults::refuse_writes(EIO);
    const bool bRestarted = r.step_until([&] { return r.restarts() > 0; }, 20);
    alsa_faults::refuse_writes(0);
    ASSERT_TRUE(bRestarted);
    const uint64_t nBefore = r.sent();
    EXPECT_TRUE(r.step_until([&] { return r.sent() >= nBefore + 5; }, 60));
    r.stop();
    ASSERT_FALSE(r.restartReasons.empty());
    EXPECT_EQ(r.restartReasons.front(), "an ALSA write failure");
    EXPECT_TRUE(console.contains("qvjtrenderer: qv_alsa_output_device::snd_pcm_writei = -5 (Input/output error)\n"));
}

// A loop that finds its board closed (an open that failed, a reopening given
// up) opens it itself once there is something to play, rather than waiting
// for a buffer that a closed device never gives.
TEST(RenderLoop, OpensABoardItFindsClosed)
{
    for (const NodeKind kind : {NodeKind::single_plane, NodeKind::multi_plane}) {
        SCOPED_TRACE(kind == NodeKind::single_plane ? "single plane" : "multi plane");
        rig r(kind, 0);
        r.open(false);
        r.start(kind == NodeKind::multi_plane);
        EXPECT_TRUE(r.step_until([&] { return r.sent() >= 5; }, 200));
        r.stop();
    }
}

// A board that goes away is retried until it is back, and play-out goes on.
TEST(RenderLoop, LostBoardIsRetriedUntilItComesBack)
{
    rig r(NodeKind::multi_plane, 6);
    r.open();
    r.start(true);
    ASSERT_TRUE(r.step_until([&] { return r.sent() >= 3; }, 50));
    print_capture console;
    r.board.sim().disconnect(r.board.path);
    ASSERT_TRUE(r.step_until([&] { return r.bOutputDown.load(); }, 50, false));
    r.board.sim().reconnect(r.board.path);
    ASSERT_TRUE(r.step_until([&] { return !r.bOutputDown.load(); }, 200, false));
    const uint64_t nBefore = r.sent();
    EXPECT_TRUE(r.step_until([&] { return r.sent() >= nBefore + 3; }, 60));
    r.stop();
    EXPECT_TRUE(printed(console, "output device lost"));
    EXPECT_TRUE(printed(console, "output device back"));
}

// At the end of the stream what was queued goes out, EOS is reported once,
// the play-out is not counted as restarted, and a new stream plays again.
TEST(RenderLoop, EndOfStreamDrainsThenReportsOnce)
{
    for (const NodeKind kind : {NodeKind::single_plane, NodeKind::multi_plane}) {
        SCOPED_TRACE(kind == NodeKind::single_plane ? "single plane" : "multi plane");
        rig r(kind, 0);
        r.open();
        r.start(kind == NodeKind::multi_plane);
        ASSERT_TRUE(r.step_until([&] { return r.sent() >= 10; }, 60));
        r.bEos = true;
        ASSERT_TRUE(r.step_until([&] { return r.nEosPosted > 0; }, 100, false));
        EXPECT_TRUE(r.bEosPosted);
        // By then the board has sent the last input frame (the pictures carry their numbers).
        const auto frames = r.board.captured();
        const auto last = static_cast<uint8_t>((r.inputs() - 1) & 0xFF);
        EXPECT_TRUE(std::any_of(frames.begin(), frames.end(),
                                [&](const auto& f) { return f.picture.size() > 1 && f.picture[1] == last; }))
            << "the end was reported before the last frame went out";
        r.step_until([] { return false; }, 5, false);
        EXPECT_EQ(r.nEosPosted, 1);
        EXPECT_EQ(r.restarts(), 0u);

        // A new stream after the end (the element clears the flags and asks for a flush).
        r.bEos = false;
        r.bEosPosted = false;
        r.bFlush = true;
        ASSERT_TRUE(r.step_until([&] { return !r.bFlush; }, 20, false));
        const uint64_t nBefore = r.sent();
        EXPECT_TRUE(r.step_until([&] { return r.sent() >= nBefore + 5; }, 60));
        r.stop();
        EXPECT_EQ(r.restarts(), 0u);
    }
}

// An input that stops without an end of stream underflows the FIFO: that is
// a restart, counted and reported with its reason.
TEST(RenderLoop, InputThatStopsRestartsThePlayout)
{
    rig r(NodeKind::single_plane, 0);
    r.open();
    r.start(false);
    ASSERT_TRUE(r.step_until([&] { return r.sent() >= 5; }, 50));
    EXPECT_TRUE(r.step_until([&] { return r.restarts() > 0; }, 100, false));
    r.stop();
    ASSERT_FALSE(r.restartReasons.empty());
    EXPECT_EQ(r.restartReasons.front(), "a FIFO underflow");
}

// The hardware lock compares when each picture goes out with when its input
// frame arrived (both on the board's clock): nine frames more than the latency
// apart, it moves the output on by nine frames, once, and holds there; more
// than ten frames apart it does not trust the figures and leaves the output be.
TEST(RenderLoop, HardwareLockMovesTheOutputToTheLatency)
{
    struct lock_case {
        int nEarly;          // frames the input arrives earlier than play-out at the latency needs
        const char* pExpect; // what the first attempt says
        bool bCorrected;
    };
    for (const lock_case c : {lock_case{9, "diff=180.0 ms  => correct to 9.0 frames backward +++++++", true},
                              lock_case{12, "diff=240.0 ms => correct to 12.0 frames backward !!!!!!!", false}}) {
        SCOPED_TRACE(c.nEarly);
        rig r(NodeKind::multi_plane, 6); // 720p50: 20 ms a frame
        r.bUseHWLock = true;
        r.open();
        uint32_t nNow = 0;
        std::chrono::steady_clock::time_point tp;
        ASSERT_TRUE(r.mpln_device.getHWtime(nNow, tp));
        const auto step = static_cast<uint32_t>(r.nHWFrameStep);
        // The rig keeps the FIFO 8 frames ahead of the output (4 of them the
        // latency): input frame n arrived 3 + nEarly frames before the board's
        // clock reached frame n.
        const auto early = static_cast<uint32_t>(3 + c.nEarly);
        r.input_hw = [&](uint64_t n) { return nNow + static_cast<uint32_t>(n) * step - early * step; };
        print_capture console;
        r.start(true);
        // Three attempts: one a second of output.
        r.step_until([] { return false; }, 160);
        r.stop();
        std::vector<std::string> attempts;
        for (const auto& l : console.lines())
            if (l.find("tryHWLock[") != std::string::npos)
                attempts.push_back(l);
        ASSERT_FALSE(attempts.empty());
        EXPECT_NE(attempts.front().find(c.pExpect), std::string::npos) << attempts.front();
        if (c.bCorrected) {
            // Locked: later attempts find it within a frame and say nothing.
            EXPECT_EQ(attempts.size(), 1u);
        } else {
            // Every attempt refuses again, with the FIFO's picture printed.
            EXPECT_GE(attempts.size(), 2u);
            EXPECT_TRUE(printed(console, "cur-last="));
        }
    }
}
