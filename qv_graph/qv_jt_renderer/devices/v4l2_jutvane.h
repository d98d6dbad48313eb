// The board driver's user-space interface: private control ids, enums and
// the records it exchanges with user space. The numeric values are fixed by
// the driver; the device code and the board simulator both include this file
// so that they can never disagree.
#pragma once

#include <linux/videodev2.h>
#include <stdint.h>

enum v4l2_jutvane_timecode_type {
    V4L2_JUTVANE_TIMECODE_DISABLED = 0,
    V4L2_JUTVANE_TIMECODE_LTC = 1,
    V4L2_JUTVANE_TIMECODE_VITC = 2,
    V4L2_JUTVANE_TIMECODE_ANY = 3,
};

enum v4l2_jutvane_genlock_state {
    V4L_JUTVANE_GENLOCK_MASTER = 0,
    V4L_JUTVANE_GENLOCK_NO_INPUT_SIGNAL = 1,
    V4L_JUTVANE_GENLOCK_LOCKING = 2,
    V4L_JUTVANE_GENLOCK_LOCKED = 3,
    V4L_JUTVANE_GENLOCK_HOLDOVER = 4,
};

enum v4l2_jutvane_genlock_source {
    V4L_JUTVANE_GENLOCK_SRC_MASTER = 0,
    V4L_JUTVANE_GENLOCK_SRC_ANALOG = 1,
    V4L_JUTVANE_GENLOCK_SRC_IN0 = 2, // SDI input n is n + 2
    V4L_JUTVANE_GENLOCK_SRC_IN1 = 3,
    V4L_JUTVANE_GENLOCK_SRC_IN2 = 4,
    V4L_JUTVANE_GENLOCK_SRC_IN3 = 5,
    V4L_JUTVANE_GENLOCK_SRC_IN4 = 6,
    V4L_JUTVANE_GENLOCK_SRC_IN5 = 7,
    V4L_JUTVANE_GENLOCK_SRC_IN6 = 8,
    V4L_JUTVANE_GENLOCK_SRC_IN7 = 9,
};

// Private controls (VIDIOC_S_CTRL / VIDIOC_G_CTRL, 32-bit value).
#define V4L2_CID_JUTVANE_VANC_ENABLE 0x009e1c01u
#define V4L2_CID_JUTVANE_TIMECODE_TYPE 0x00a01c05u
#define V4L2_CID_JUTVANE_FORMAT_COMMIT 0x00a01c01u
#define V4L2_CID_JUTVANE_GENLOCK_SOURCE 0x00a01c06u
#define V4L2_CID_JUTVANE_GENLOCK_STATE 0x00a01c08u
#define V4L2_CID_JUTVANE_STOP_STATE 0x00a01c0bu
#define V4L2_CID_JUTVANE_WATCHDOG_ENABLE 0x00981d06u
#define V4L2_CID_JUTVANE_WATCHDOG_NOTIFY 0x00981d07u // value: time-out in ms
#define V4L2_CID_JUTVANE_AUDIO_GROUPS 0x00981d15u    // 1, 2 or 4 groups of 4 channels
// Extended control (VIDIOC_G_EXT_CTRLS, class V4L2_CTRL_CLASS_USER, 20-byte payload).
#define V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP 0x00981d02u

// The board's own multi-plane pixel format; its layout is the driver's business.
#define V4L2_PIX_FMT_JUTVANE_QVC8 v4l2_fourcc('Q', 'V', 'C', '8')

#pragma pack(push, 1)
// Payload of V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP: the hardware time (148.5 MHz
// ticks) of the last input frame and the current hardware / steady-clock time.
struct v4l2_jutvane_analog_rx_timestamp {
    uint32_t valid;
    uint32_t timestamp;
    uint32_t cur_hw_time;
    uint64_t cur_sys_time; // steady-clock nanoseconds
};
#pragma pack(pop)
static_assert(sizeof(struct v4l2_jutvane_analog_rx_timestamp) == 20, "driver payload is 20 bytes");

// Status record the driver writes into plane 2 of every multi-plane buffer.
#define JUTVANE_STATUS_MAGIC "kvnx"
#define JUTVANE_STATUS_OFF_MAGIC 0        // 4 bytes 'k','v','n','x'
#define JUTVANE_STATUS_OFF_FRAME 4        // int32 frame number
#define JUTVANE_STATUS_OFF_SYSTIME 12     // uint64 steady-clock ns
#define JUTVANE_STATUS_OFF_HWCOUNTER 20   // uint32 148.5 MHz frame counter
#define JUTVANE_STATUS_SIZE 24

#define JUTVANE_HW_CLOCK_HZ 148500000u
