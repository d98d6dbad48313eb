// What an application implements to receive the element's alarms.
//
// Hand a pointer to your implementation to the element's "alarm-manager"
// property. The element never takes ownership: the manager must outlive the
// element (or be replaced by nullptr before it is destroyed).
//
// Calls arrive from the element's streaming and render threads, one at a time
// and in order. Return quickly and do not call back into the element from a
// callback (set no property, change no state): queue the work instead.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

// Stable alarm names, also used as the "alarm" field of bus messages.
#define QV_ALARM_NO_VIDEO "no-video"
#define QV_ALARM_NO_AUDIO "no-audio"
#define QV_ALARM_NO_TELETEXT "no-teletext"
#define QV_ALARM_NO_VBI "no-vbi"
#define QV_ALARM_RESTART "playout-restart"
#define QV_ALARM_REPEATED_FRAMES "repeated-frames"

struct qv_alarm_event {
    bool bRaise = false;       // true: raised; false: cleared
    std::string strSource;     // the element's "alarm-source-name"
    std::string strAlarm;      // one of the QV_ALARM_ names
    std::string strText;       // human-readable description
    std::chrono::system_clock::time_point time; // when the condition was detected
};

class qv_alarm_manager {
public:
    virtual ~qv_alarm_manager() = default;

    virtual void raise_alarm(const qv_alarm_event& event) = 0;
    virtual void clear_alarm(const qv_alarm_event& event) = 0;

    // How many output frames a connected input may stay silent before its
    // "no ..." alarm is raised. Override to tune; 25 frames is 1 s at 25 Hz.
    virtual uint32_t silence_frames() const { return 25; }
};
