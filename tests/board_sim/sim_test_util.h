// A minimal V4L2 output client over the plain C calls, used by the simulator
// tests in place of the device code.
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qvboardsim.h"

namespace qvbs_test {

// Configures one board and returns its config (paths unique per test).
qvboardsim::BoardConfig board(qvboardsim::NodeKind kind, int mode, qvboardsim::Pacing pacing,
                              const std::string& tag);

class Client {
public:
    Client(const std::string& path, bool nonblock);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int fd() const { return m_fd; }
    bool mplane() const { return m_type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE; }
    // REQBUFS + QUERYBUF + mmap of every plane; returns the granted count.
    int setup(uint32_t type, uint32_t count);
    int streamon();
    int streamoff();
    // QBUF buffer `index`; for multi-plane the three bytesused values.
    int qbuf(uint32_t index, uint32_t used0 = 0, uint32_t used1 = 0, uint32_t flags = 0,
             const v4l2_timecode* tc = nullptr);
    // DQBUF; fills `out` (and its planes). Returns ioctl result, errno in `err`.
    int dqbuf(v4l2_buffer& out, int& err);
    uint8_t* plane(uint32_t index, int p) { return m_maps[index * 3 + p]; }
    v4l2_plane planes[3]{};

private:
    int m_fd = -1;
    uint32_t m_type = 0;
    std::vector<uint8_t*> m_maps;
    std::vector<size_t> m_lens;
};

} // namespace qvbs_test
