#include "qv_alarms_dispatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Records every change as "+name" / "-name".
class recording_manager : public qv_alarm_manager {
public:
    explicit recording_manager(uint32_t nSilence = 3) : m_nSilence(nSilence) {}
    void raise_alarm(const qv_alarm_event& ev) override { log.push_back("+" + ev.strAlarm + "@" + ev.strSource); }
    void clear_alarm(const qv_alarm_event& ev) override { log.push_back("-" + ev.strAlarm + "@" + ev.strSource); }
    uint32_t silence_frames() const override { return m_nSilence; }
    std::vector<std::string> log;

private:
    uint32_t m_nSilence;
};

void frames(qv_alarms_dispatcher& d, int n)
{
    for (int i = 0; i < n; ++i)
        d.frame_event();
}

TEST(AlarmsDispatcher, SilentInputRaisesAfterThresholdAndClearsOnReturn)
{
    qv_alarms_dispatcher d;
    recording_manager m(3);
    d.set_alarm_manager(&m);
    d.set_source_name("ch1");
    d.start(true, true, false, false);

    frames(d, 3);
    EXPECT_TRUE(m.log.empty()) << "three silent frames are within the threshold";
    d.audio_event();
    d.frame_event();
    EXPECT_EQ(m.log, (std::vector<std::string>{"+no-video@ch1"}));
    frames(d, 5);
    EXPECT_EQ(m.log.size(), 2u) << "audio went silent too; video stays raised without repeats";
    EXPECT_EQ(m.log[1], "+no-audio@ch1");

    d.video_event();
    EXPECT_EQ(m.log.back(), "-no-video@ch1");
    d.video_event();
    EXPECT_EQ(m.log.size(), 3u) << "a clear is sent once";
}

TEST(AlarmsDispatcher, UnlinkedInputsAreNotWatched)
{
    qv_alarms_dispatcher d;
    recording_manager m(1);
    d.set_alarm_manager(&m);
    d.start(false, false, true, false);
    frames(d, 10);
    EXPECT_EQ(m.log, (std::vector<std::string>{"+no-teletext@"}));
}

TEST(AlarmsDispatcher, StopClearsEverythingRaised)
{
    qv_alarms_dispatcher d;
    recording_manager m(0);
    d.set_alarm_manager(&m);
    d.start(true, false, false, true);
    d.restart_event();
    d.frame_event();
    ASSERT_EQ(m.log.size(), 3u);
    d.stop();
    EXPECT_EQ(m.log.size(), 6u);
    for (size_t i = 3; i < 6; ++i)
        EXPECT_EQ(m.log[i][0], '-');
    frames(d, 10);
    EXPECT_EQ(m.log.size(), 6u) << "no alarms while stopped";
}

TEST(AlarmsDispatcher, RepeatedFramesNeedARunAndClearOnFreshFrame)
{
    qv_alarms_dispatcher d;
    recording_manager m(1000);
    d.set_alarm_manager(&m);
    d.start(true, false, false, false);
    // Isolated repeats are input jitter.
    for (int i = 0; i < 10; ++i) {
        d.repeat_event();
        d.frame_event();
        d.frame_event();
    }
    EXPECT_TRUE(m.log.empty());
    for (int i = 0; i < 3; ++i) {
        d.repeat_event();
        d.frame_event();
    }
    EXPECT_EQ(m.log, (std::vector<std::string>{"+repeated-frames@"}));
    d.frame_event();
    EXPECT_EQ(m.log.back(), "-repeated-frames@");
}

TEST(AlarmsDispatcher, RestartHoldsThenClears)
{
    qv_alarms_dispatcher d;
    recording_manager m(100000);
    d.set_alarm_manager(&m);
    d.start(false, false, false, false);
    d.restart_event();
    frames(d, 200);
    d.restart_event(); // a second restart re-arms the hold
    frames(d, 249);
    EXPECT_TRUE(d.is_raised(qv_alarms_dispatcher::al_restart));
    d.frame_event();
    EXPECT_FALSE(d.is_raised(qv_alarms_dispatcher::al_restart));
    EXPECT_EQ(m.log, (std::vector<std::string>{"+playout-restart@", "-playout-restart@"}));
}

TEST(AlarmsDispatcher, FallbackSinkOnlyWithoutManager)
{
    qv_alarms_dispatcher d;
    std::vector<qv_alarm_event> seen;
    d.set_fallback_sink([&](const qv_alarm_event& ev) { seen.push_back(ev); });
    d.set_silence_frames(2);
    d.set_source_name("studio");
    d.start(true, false, false, false);
    frames(d, 3);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].bRaise);
    EXPECT_EQ(seen[0].strAlarm, QV_ALARM_NO_VIDEO);
    EXPECT_EQ(seen[0].strSource, "studio");
    EXPECT_FALSE(seen[0].strText.empty());

    recording_manager m;
    d.set_alarm_manager(&m);
    d.video_event();
    EXPECT_EQ(seen.size(), 1u);
    EXPECT_EQ(m.log, (std::vector<std::string>{"-no-video@studio"}));
}

} // namespace
