// Opening, closing and reopening the board as the configuration in force says.
#include "qv_playout_core.h"

#include <glib.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Why a node that CheckDevice refused cannot be used, in words for the operator.
std::string describe_unusable_node(const std::string& strName)
{
    const int h = ::open(strName.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (h == -1)
        return std::strerror(errno);
    ::close(h);
    return "not a video device";
}

} // namespace

bool qv_playout_core::open_devices(std::string& strError)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_cfg.strV4l2Name.empty())
        return true;
    const qv_v4l2_enum_sdi_mode mode = static_cast<qv_v4l2_enum_sdi_mode>(m_cfg.nMode);
    int fd = -1;
    const auto type = qv_v4l2_base_output_device::CheckDevice(fd, m_cfg.strV4l2Name);
    bool bOk = false;
    switch (type) {
    case qv_v4l2_base_output_device::eDTSepare:
        if (!m_video_device.init_device(fd, m_cfg.strV4l2Name, mode, m_cfg.eTimeCodeType, m_cfg.bUseWatchdog,
                                        m_cfg.nHWBuffers)) {
            strError = "the device is busy or cannot take the configured mode";
            break;
        }
        if (!m_cfg.strAlsaName.empty() && !m_audio_device.open_device(m_cfg.strAlsaName, m_cfg.nAudioLines)) {
            m_video_device.close_device();
            strError = "the ALSA device \"" + m_cfg.strAlsaName + "\" cannot be opened";
            break;
        }
        bOk = true;
        break;
    case qv_v4l2_base_output_device::eDTMultiPlane:
        if (!m_mpln_device.init_device(fd, m_cfg.strV4l2Name, mode, m_cfg.eTimeCodeType, m_cfg.bUseWatchdog,
                                       m_cfg.nHWBuffers, m_cfg.bFullColorRange, m_cfg.nAudioLines)) {
            g_print("qvjtrenderer: m_mpln_device.init_device ERROR !!!\n");
            strError = "the device is busy or cannot take the configured mode";
            break;
        }
        bOk = true;
        break;
    case qv_v4l2_base_output_device::eDTUnknown:
        strError = "not a video output device";
        break;
    default:
        strError = describe_unusable_node(m_cfg.strV4l2Name);
        break;
    }
    if (fd != -1)
        ::close(fd);
    return bOk;
}

void qv_playout_core::close_devices()
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_mpln_device.is_open()) {
        m_mpln_device.stop_device();
        m_mpln_device.close_device();
    }
    if (m_video_device.is_open()) {
        m_video_device.stop_device();
        m_video_device.close_device();
    }
    if (m_audio_device.is_open()) {
        m_audio_device.stop_device();
        m_audio_device.close_device();
    }
}

bool qv_playout_core::reset()
{
    // The pads' add calls read the devices under m_cs; they must not see a
    // device half closed or half reopened. close() never waits for this
    // thread while holding m_cs: the render thread is stopped before it.
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    g_print("qvjtrenderer: start reset\n");
    close_devices();
    m_fifo.reset();
    m_time_starter.reset();
    // Pictures are numbered afresh: what waited for the old numbers would wait for ever.
    m_ancillary.clear();
    m_cc_queue.clear();
    m_pacer.restart();
    std::string strError;
    const bool bOk = open_devices(strError);
    if (!bOk)
        g_print("qvjtrenderer: output device not reopened: %s\n", strError.c_str());
    g_print("qvjtrenderer: stop reset\n");
    return bOk;
}
