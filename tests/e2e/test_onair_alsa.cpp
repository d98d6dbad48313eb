// A sound card that is gone when the board restarts: the single-plane output
// waits for it calmly (no reset storm, one line), keeps the restart alarm up,
// and plays again as soon as the card is back.
#include "onair_driver.h"
#include "qv_renderer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

namespace {

using qvboardsim::NodeKind;

// ALSA reads its whole configuration from ALSA_CONFIG_PATH and reloads it when
// the file is replaced, so the card "qvcard" can vanish and return on demand.
class SoundCard {
public:
    SoundCard()
    {
        char dir[] = "/tmp/qv-alsa-XXXXXX";
        m_strDir = ::mkdtemp(dir);
        m_strPath = m_strDir + "/asound.conf";
        present(true);
        ::setenv("ALSA_CONFIG_PATH", m_strPath.c_str(), 1);
    }
    ~SoundCard()
    {
        ::unsetenv("ALSA_CONFIG_PATH");
        std::remove(m_strPath.c_str());
        ::rmdir(m_strDir.c_str());
    }
    SoundCard(const SoundCard&) = delete;
    SoundCard& operator=(const SoundCard&) = delete;

    void present(bool bPresent)
    {
        // A new file (new inode) so that the reload does not depend on mtime resolution.
        const std::string strNew = m_strPath + ".new";
        std::ofstream(strNew) << (bPresent ? "pcm.qvcard { type null }\n" : "pcm.qvcard { type hw card 99 }\n");
        std::rename(strNew.c_str(), m_strPath.c_str());
    }

private:
    std::string m_strDir;
    std::string m_strPath;
};

constexpr int k_latency_frames = 5; // the fixture's 200 ms at 25 frames/s

} // namespace

TEST_F(OnAirTest, LostSoundCardIsRetriedCalmlyAndPlaysWhenBack)
{
    SoundCard card;
    const auto restarts = [&] { return std::stoull(stat("Number of fifo restarts")); };
    make_sd(NodeKind::single_plane, 1, [&] { g_object_set(m_pElement, "alsa", "qvcard", nullptr); });
    AlarmRecorder& alarms = install_alarms(10);
    ASSERT_LT(play_until_sent(20, 80), 80) << "no play-out with the card present";

    // The board restarts while the card is gone: the reopen fails on ALSA.
    card.present(false);
    auto& sim = qvboardsim::Simulator::instance();
    sim.disconnect(m_strPath);
    for (int i = 0; i < 100 && !renderer()->output_down(); ++i) {
        push_frame();
        step(m_nSlots);
        g_usleep(10000);
    }
    ASSERT_TRUE(renderer()->output_down());
    sim.reconnect(m_strPath);

    const uint64_t nRestartsBefore = restarts();
    print_capture lines;
    for (int i = 0; i < 75; ++i) { // 3 s with the board back and no card
        push_frame();
        step(m_nSlots);
        g_usleep(40000);
    }
    EXPECT_TRUE(renderer()->output_down()) << "played without its sound card";
    EXPECT_TRUE(alarms.raised(QV_ALARM_RESTART));
    EXPECT_LE(restarts() - nRestartsBefore, 1u) << "device resets while waiting for the card";
    // About one attempt a second, each reporting its failed open; nothing else repeats.
    const size_t nAttempts = lines.count_prefix("qv_alsa_output_device: open_device error");
    EXPECT_GE(nAttempts, 1u) << "the card is not retried";
    EXPECT_LE(nAttempts, 4u) << "retried faster than once a second";
    EXPECT_LE(lines.lines().size(), nAttempts + 2) << "the console floods while the card is away";

    card.present(true);
    for (int i = 0; i < 150 && renderer()->output_down(); ++i) { // the back-off retries about once a second
        push_frame();
        step(m_nSlots);
        g_usleep(20000);
    }
    EXPECT_FALSE(renderer()->output_down()) << "the card came back but play-out did not";
    EXPECT_LE(play_until_sent(10, 40), 10 + k_latency_frames + 2);
}
