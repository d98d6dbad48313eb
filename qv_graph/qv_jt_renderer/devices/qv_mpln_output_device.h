// Multi-plane board output: one node whose buffers carry a whole field or
// frame: plane 0 the packed 10-bit VBI/VANC lines followed by the picture,
// plane 1 the embedded SDI audio, plane 2 a status record from the driver.
// Interlaced modes take one buffer per field.
#pragma once

#include "qv_mpln_buffers.h"
#include "qv_v4l2_common.h"

#include "qv_sound.h"
#include "qvimage.h"

#include <linux/videodev2.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class qv_mpln_output_device : public qv_v4l2_base_output_device {
public:
    explicit qv_mpln_output_device(qv_device_reporter& reporter);
    ~qv_mpln_output_device() override;

    // Takes over the descriptor CheckDevice returned (fd becomes -1 on success).
    bool init_device(int& fd, const std::string& name, qv_v4l2_enum_sdi_mode mode,
                     v4l2_jutvane_timecode_type timecode_type, bool bUseWatchdog, uint32_t nHWBuffers,
                     bool bFullColorRange, uint32_t nNumberOfAudioLines);
    bool set_video_format(int groups);
    bool mmap_buffers();
    void unmmap_buffers();
    void close_device();

    // Format of the sound push_audio takes: 48 kHz, 32 bits, 2 channels.
    const QVSDK::QVSoundFormat& get_sound_format() const { return m_audioFormat; }
    int get_sdi_audio_channels() const { return m_nSdiAudioChCnt; }
    QVSDK::QVFieldOrder get_field_order() const { return m_eFieldOrder; }
    // VBI/VANC lines of field 0 or 1 (0 for field 1 when progressive).
    size_t get_vbi_lines(int field) const { return m_VBI.m_nLines[field != 0 ? 1 : 0]; }
    int get_vbi_size(int field) const { return m_nVbiSize[field & 1]; }
    uint32_t get_buffer_count() const { return static_cast<uint32_t>(m_vBuffers.size()); }
    uint64_t get_last_frame_number() const { return m_nLastFrameNumber; }
    uint32_t get_last_frame_hw() const { return m_nLastFrameHW; }
    std::chrono::steady_clock::time_point get_last_frame_sp() const { return m_nLastFrameSP; }

    // Per frame: can_render; push_image; push_audio; init_vbi, fill, finish_vbi;
    // set_timecode; send_data.
    bool can_render(uint32_t& seq);
    bool push_image(const QVSDK::QVImage& image);
    bool push_audio(const QVSDK::QVSound& sound);
    bool init_vbi(qv_vbi_data& vbi);
    bool finish_vbi(const qv_vbi_data& vbi);
    // pData holds 16-bit samples, field 1's lines first.
    bool push_vbi(const void* pData, size_t nSize);
    void set_timecode(const qv_timecode& tc);
    bool send_data();

    // Hardware time of the input (148.5 MHz ticks) with the steady-clock time it was read at.
    bool getHWtime(uint32_t& hw_time, std::chrono::steady_clock::time_point& tp);

protected:
    bool start_renderer() override;
    bool stop_renderer() override;

private:
    bool is_interlaced() const { return m_eFieldOrder != QVSDK::FieldOrder_Progressive; }
    bool dequeue(uint32_t field, int& index);
    // Puts a dequeued or never-queued buffer into a free field place.
    void hold_field_buffer(int index);
    void read_status(const qv_mpln_buffers& b);
    // Writes frames input frames starting at frame first into plane 1 of b.
    void fill_audio(qv_mpln_buffers& b, const QVSDK::QVSound& sound, size_t first, size_t frames);
    size_t audio_capacity(const qv_mpln_buffers& b) const;
    // bBlank: the lines are known to be all blank (nothing was written).
    bool pack_vbi(qv_mpln_buffers& b, int field, const uint8_t* src, size_t nBytes, bool bBlank);
    bool push_vbi(const uint8_t* src, size_t nSize, const bool (&bBlank)[2]);

    uint32_t m_nHWBuffers = 3;
    bool m_bFullColorRange = false;
    uint32_t m_nNumberOfAudioLines = 0;
    std::vector<qv_mpln_buffers> m_vBuffers;
    QVSDK::QVFieldOrder m_eFieldOrder = QVSDK::FieldOrder_Progressive;
    int m_nVbiSize[2] = {0, 0};
    int m_nFieldBufIndex[2] = {-1, -1};
    uint64_t m_nNextFrame = 0;
    uint64_t m_nLastFrameNumber = 0;
    uint32_t m_nLastFrameHW = 0;
    std::chrono::steady_clock::time_point m_nLastFrameSP{};
    v4l2_buffer m_VBIinfo{};
    std::vector<uint8_t> m_VBIdata16bit;
    qv_vbi_data m_VBI;
    QVSDK::QVSoundFormat m_audioFormat;
    int m_nSdiAudioChCnt = 4;
    // Picture geometry of the timing the driver runs (not necessarily the mode's
    // row when no enumerated timing matched it).
    int m_nWidth = 0;
    int m_nHeight = 0;
};
