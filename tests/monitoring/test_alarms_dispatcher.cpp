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

TEST(AlarmsDispatcher, UnlinkedInputsAreNotWatched)
{
    qv_alarms_dispatcher d;
    recording_manager m(1);
    d.set_alarm_manager(&m);
    d.start(false, false, true, false);
    frames(d, 10);
    EXPECT_EQ(m.log, (std::vector<std::string>{"+no-teletext@"}));
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
    frames(d, 20);
    d.restart_event(); // a second restart re-arms the hold
    frames(d, 24);
    EXPECT_TRUE(d.is_raised(qv_alarms_dispatcher::al_restart));
    d.frame_event();
    EXPECT_FALSE(d.is_raised(qv_alarms_dispatcher::al_restart));
    EXPECT_EQ(m.log, (std::vector<std::string>{"+playout-restart@", "-playout-restart@"}));
}

// While the output device is lost nothing goes out: silence is counted in
// slots gone by, and the restart alarm holds until frames flow again.
TEST(AlarmsDispatcher, SilenceCountsSlotsAndRestartHoldsWhileTheDeviceIsLost)
{
    qv_alarms_dispatcher d;
    recording_manager m(100);
    d.set_alarm_manager(&m);
    d.start(true, false, false, false);
    d.set_output_down(true);
    d.slots_elapsed(100);
    EXPECT_FALSE(d.is_raised(qv_alarms_dispatcher::al_no_video));
    d.slots_elapsed(1);
    EXPECT_TRUE(d.is_raised(qv_alarms_dispatcher::al_no_video));
    d.video_event();
    frames(d, 5); // frames handed while the device is still marked lost do not end the hold
    d.set_output_down(false);
    frames(d, 24);
    EXPECT_TRUE(d.is_raised(qv_alarms_dispatcher::al_restart));
    d.frame_event();
    EXPECT_FALSE(d.is_raised(qv_alarms_dispatcher::al_restart));
    EXPECT_EQ(m.log, (std::vector<std::string>{"+playout-restart@", "+no-video@", "-no-video@",
                                               "-playout-restart@"}));
}

} // namespace
