// Single-plane board output: a V4L2 video output node plus its companion VBI
// output node. Frames are drawn in place into the mapped driver buffers; the
// device never copies a picture.
#pragma once

#include "qv_v4l2_buffers.h"
#include "qv_v4l2_common.h"

#include "qvimage.h"

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class qv_v4l2_output_device : public qv_v4l2_base_output_device {
public:
    explicit qv_v4l2_output_device(qv_device_reporter& reporter);
    ~qv_v4l2_output_device() override;

    // Takes over the descriptor CheckDevice returned (fd becomes -1 on success),
    // opens the VBI node derived from the path, sets the format and maps the buffers.
    bool init_device(int& fd, const std::string& name, qv_v4l2_enum_sdi_mode mode,
                     v4l2_jutvane_timecode_type timecode_type, bool bUseWatchdog, uint32_t nBuffers);
    bool init_device();
    bool set_video_format();
    bool mmap_buffers();
    void unmmap_buffers();
    void deinit_device();
    void close_device();

    bool is_vbi_open() const { return m_hVbi != -1; }
    uint32_t get_buffer_count() const { return static_cast<uint32_t>(m_vVideoBuf.size()); }
    const std::string& get_vbi_name() const { return m_strVbiName; }
    const v4l2_pix_format& get_pix_format() const { return m_fmtVideo; }
    const v4l2_vbi_format& get_vbi_format() const { return m_fmtVbi; }

    // Per frame: map_image, [map_vbi, fill, unmap_vbi], set_timecode, unmap_image.
    bool map_image(uint32_t& seq, QVSDK::QVImage& image);
    bool unmap_image();
    bool map_vbi(void** ppData, size_t& nSize);
    bool map_vbi(qv_vbi_data& vbi);
    bool unmap_vbi();
    void set_timecode(const qv_timecode& tc);

protected:
    bool start_renderer() override;
    bool stop_renderer() override;

private:
    int m_hVbi = -1;
    uint32_t m_nBuffers = 0;
    std::vector<qv_v4l2_buffers> m_vVideoBuf;
    v4l2_pix_format m_fmtVideo{};
    v4l2_buffer m_cur_buffer{};
    uint64_t m_curr_buff_index = 0; // frames handed back since streaming started
    bool m_bKeepVideo = false;      // m_cur_buffer was refused by QBUF and is still ours
    v4l2_buffer m_vbi_cur_buffer{};
    uint64_t m_nVbiQueued = 0; // VBI buffers handed to the driver since streaming started
    bool m_bKeepVbi = false;   // m_vbi_cur_buffer was refused by QBUF and is still ours
    bool m_bVbiHeld = false;   // m_vbi_cur_buffer is lent out
    std::vector<qv_v4l2_buffers> m_vVbiBuf;
    v4l2_vbi_format m_fmtVbi{};
    std::string m_strVbiName;
};
