// What the render loop puts into the held buffer(s) of a frame: picture,
// embedded audio, VBI/VANC lines and time code.
#include "qv_mpln_output_device.h"

#include "qv_vbi_convert.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

bool qv_mpln_output_device::push_image(const QVSDK::QVImage& image)
{
    const int width = m_nWidth;
    if (!is_interlaced()) {
        if (m_nFieldBufIndex[0] < 0) {
            g_print("qv_jt_renderer: video device '%s' internal error #4\n", m_strName.c_str());
            return false;
        }
        qv_mpln_buffers& b = m_vBuffers[m_nFieldBufIndex[0]];
        const size_t need = static_cast<size_t>(m_nVbiSize[0]) + static_cast<size_t>(width) * m_nHeight * 2;
        if (b.data[0] == nullptr || b.mapped[0] < need)
            return false;
        QVSDK::QVImage dst(b.data[0] + m_nVbiSize[0], width, m_nHeight, width * 2, QVSDK::FieldOrder_Progressive,
                           m_videoFormat);
        image.copyTo(dst);
        return true;
    }
    if (m_nFieldBufIndex[0] < 0 || m_nFieldBufIndex[1] < 0) {
        g_print("qv_jt_renderer: video device '%s' internal error #3\n", m_strName.c_str());
        return false;
    }
    const int field_height = m_nHeight / 2;
    QVSDK::QVImage dst[2];
    bool ok = true;
    for (int f = 0; f < 2; ++f) {
        qv_mpln_buffers& b = m_vBuffers[m_nFieldBufIndex[f]];
        const size_t need = static_cast<size_t>(m_nVbiSize[f]) + static_cast<size_t>(width) * field_height * 2;
        if (b.data[0] == nullptr || b.mapped[0] < need) {
            ok = false;
            continue;
        }
        dst[f].InitImage(b.data[0] + m_nVbiSize[f], width, field_height, width * 2,
                         f == 0 ? QVSDK::Single_Field_Upper : QVSDK::Single_Field_Lower, m_videoFormat);
    }
    // A field whose buffer is unusable stays empty and is skipped.
    image.copyFieldsTo(dst[0], dst[1]);
    return ok;
}

size_t qv_mpln_output_device::audio_capacity(const qv_mpln_buffers& b) const
{
    return b.mapped[1] / (static_cast<size_t>(m_nSdiAudioChCnt) * 4);
}

void qv_mpln_output_device::fill_audio(qv_mpln_buffers& b, const QVSDK::QVSound& sound, size_t first,
                                       size_t frames)
{
    uint8_t* out = b.data[1];
    if (out == nullptr)
        return;
    std::memset(out, 0, b.mapped[1]);
    b.planes[1].bytesused = 0;
    const QVSDK::QVSoundFormat& fmt = sound.format();
    const size_t bytes = fmt.m_bit_per_sample / 8;
    if (frames == 0 || bytes == 0)
        return;
    // Never read past a sample frame, whatever the format claims about its channels.
    const size_t channels = std::min({static_cast<size_t>(fmt.m_channel), static_cast<size_t>(m_nSdiAudioChCnt),
                                      static_cast<size_t>(fmt.m_block_align) / bytes});
    const uint8_t* in = sound.data() + first * fmt.m_block_align;
    // Each SDI word holds a 24-bit sample in its low three bytes.
    for (size_t i = 0; i < frames; ++i) {
        const uint8_t* src = in + i * fmt.m_block_align;
        uint8_t* dst = out + i * static_cast<size_t>(m_nSdiAudioChCnt) * 4;
        for (size_t c = 0; c < channels; ++c) {
            uint32_t word;
            if (bytes == 2) {
                uint16_t s;
                std::memcpy(&s, src + c * 2, 2);
                word = static_cast<uint32_t>(s) << 8;
            } else {
                uint32_t s;
                std::memcpy(&s, src + c * 4, 4);
                word = s >> 8;
            }
            std::memcpy(dst + c * 4, &word, 4);
        }
    }
    b.planes[1].bytesused = static_cast<uint32_t>(frames * static_cast<size_t>(m_nSdiAudioChCnt) * 4);
}

bool qv_mpln_output_device::push_audio(const QVSDK::QVSound& sound)
{
    const QVSDK::QVSoundFormat& fmt = sound.format();
    // With no audio line there is no sound at all: the frame goes out without
    // audio samples, which is not a format error worth a line per frame.
    if (!sound.isEmpty() && fmt.m_bit_per_sample != 16 && fmt.m_bit_per_sample != 32) {
        g_print("qv_jt_renderer: audio device '%s' audio format (%d) must be 16 or 32 bits !!!\n", m_strName.c_str(),
                fmt.m_bit_per_sample);
        return false;
    }
    // Frames actually present in the sound's memory, whatever the fill count claims.
    const size_t available = fmt.m_block_align != 0 && !sound.isEmpty() ? sound.size() / fmt.m_block_align : 0;
    if (!is_interlaced()) {
        if (m_nFieldBufIndex[0] < 0)
            return false;
        qv_mpln_buffers& b = m_vBuffers[m_nFieldBufIndex[0]];
        const size_t n = std::min({static_cast<size_t>(sound.frames()), available, audio_capacity(b)});
        fill_audio(b, sound, 0, n);
        return true;
    }
    if (m_nFieldBufIndex[0] < 0 || m_nFieldBufIndex[1] < 0)
        return false;
    const size_t total = std::min(static_cast<size_t>(sound.frames()), available);
    qv_mpln_buffers& b1 = m_vBuffers[m_nFieldBufIndex[0]];
    qv_mpln_buffers& b2 = m_vBuffers[m_nFieldBufIndex[1]];
    const size_t n1 = std::min(audio_capacity(b1), (total + 1) / 2);
    const size_t n2 = std::min(audio_capacity(b2), total - n1);
    fill_audio(b1, sound, 0, n1);
    fill_audio(b2, sound, n1, n2);
    return true;
}

bool qv_mpln_output_device::init_vbi(qv_vbi_data& vbi)
{
    // Blank again only what the last frame wrote; the rest is still black.
    const size_t rows = m_VBI.m_nStride != 0 ? m_VBIdata16bit.size() / m_VBI.m_nStride : 0;
    for (int f = 0; f < 2; ++f) {
        const size_t base = f == 0 ? 0 : m_VBI.m_nLines[0];
        for (size_t l = 0; l < 1024; ++l) {
            if (!m_VBI.m_bUsed[f][l])
                continue;
            m_VBI.m_bUsed[f][l] = false;
            if (base + l < rows)
                BlackUYVY16(reinterpret_cast<uint16_t*>(m_VBIdata16bit.data() + (base + l) * m_VBI.m_nStride),
                            m_VBI.m_nStride);
        }
    }
    vbi = m_VBI;
    return m_VBI.m_bValid;
}

bool qv_mpln_output_device::finish_vbi(const qv_vbi_data& vbi)
{
    m_VBI.m_bValid = vbi.m_bValid;
    m_VBI.m_nLines[0] = vbi.m_nLines[0];
    m_VBI.m_nLines[1] = vbi.m_nLines[1];
    std::memcpy(m_VBI.m_bUsed, vbi.m_bUsed, sizeof(m_VBI.m_bUsed));
    bool bBlank[2];
    for (int f = 0; f < 2; ++f)
        bBlank[f] = std::none_of(std::begin(m_VBI.m_bUsed[f]), std::end(m_VBI.m_bUsed[f]), [](bool b) { return b; });
    return push_vbi(m_VBIdata16bit.data(), m_VBIdata16bit.size(), bBlank);
}

bool qv_mpln_output_device::pack_vbi(qv_mpln_buffers& b, int field, const uint8_t* src, size_t nBytes, bool bBlank)
{
    const size_t size = static_cast<size_t>(m_nVbiSize[field]);
    if (b.data[0] == nullptr || b.mapped[0] < size)
        return false;
    // Most fields carry no VBI/VANC data at all, and the buffers come round
    // again and again: a blank area stays blank.
    if (bBlank && b.nBlankVbiBytes == size)
        return true;
    b.nBlankVbiBytes = bBlank ? size : 0;
    size_t written = 0;
    if (src != nullptr && reinterpret_cast<uintptr_t>(src) % alignof(uint16_t) == 0) {
        written = PackVBI_UYVY16toUYVY10(reinterpret_cast<const uint16_t*>(src), nBytes, b.data[0], size);
    } else if (src != nullptr) {
        // A byte buffer that is not 16-bit aligned goes through a small aligned window.
        uint16_t window[4 * 128];
        size_t consumed = 0;
        while (true) {
            const size_t groups = std::min({sizeof(window) / 8, (size - written) / 5, (nBytes - consumed) / 8});
            if (groups == 0)
                break;
            std::memcpy(window, src + consumed, groups * 8);
            written += PackVBI_UYVY16toUYVY10(window, groups * 8, b.data[0] + written, groups * 5);
            consumed += groups * 8;
        }
    }
    BlackUYVY10(b.data[0] + written, size - written);
    return true;
}

bool qv_mpln_output_device::push_vbi(const void* pData, size_t nSize)
{
    const bool bUnknown[2] = {false, false};
    return push_vbi(static_cast<const uint8_t*>(pData), nSize, bUnknown);
}

bool qv_mpln_output_device::push_vbi(const uint8_t* src, size_t nSize, const bool (&bBlank)[2])
{
    if (src == nullptr)
        nSize = 0;
    if (!is_interlaced()) {
        if (m_nFieldBufIndex[0] < 0)
            return false;
        return pack_vbi(m_vBuffers[m_nFieldBufIndex[0]], 0, src, nSize, bBlank[0]);
    }
    if (m_nFieldBufIndex[0] < 0 || m_nFieldBufIndex[1] < 0)
        return false;
    const size_t stride = m_VBI.m_nStride != 0 ? m_VBI.m_nStride : 1;
    const size_t first = std::min(nSize, (nSize / 2 / stride) * stride);
    const bool ok1 = pack_vbi(m_vBuffers[m_nFieldBufIndex[0]], 0, src, first, bBlank[0]);
    const bool ok2 =
        pack_vbi(m_vBuffers[m_nFieldBufIndex[1]], 1, src == nullptr ? nullptr : src + first, nSize - first, bBlank[1]);
    return ok1 && ok2;
}

void qv_mpln_output_device::set_timecode(const qv_timecode& tc)
{
    for (int place = 0; place < 2; ++place) {
        if (m_nFieldBufIndex[place] < 0)
            continue;
        v4l2_buffer& b = m_vBuffers[m_nFieldBufIndex[place]].buff;
        if (tc.bValid) {
            b.flags |= V4L2_BUF_FLAG_TIMECODE;
            b.timecode = tc.timecode;
            b.timecode.type = m_timecodeType;
        } else {
            b.flags &= ~V4L2_BUF_FLAG_TIMECODE;
        }
    }
}
