// What an output device reports of each frame the board sent. The devices
// own this interface and know nothing of who listens; the play-out's
// statistics record implements it.
#pragma once

#include <cstdint>

class qv_device_reporter {
public:
    // nSeq: the board's sequence number of the frame; nDeviceTime: ns of
    // output (frame count / mode rate); bNewCount: the device was stopped
    // since the last report (a flush, an end of stream, a restart), so no
    // frame can have been dropped between the two.
    virtual void frame_sent(uint32_t nSeq, uint64_t nDeviceTime, int32_t nGenlockState, int32_t nGenlockSource,
                            bool bNewCount) = 0;

protected:
    ~qv_device_reporter() = default;
};
