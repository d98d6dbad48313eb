// Conversions between the three sample layouts of the ancillary/blanking path:
//   8-bit UYVY   - two bytes a pixel, as the encoders build packets;
//   16-bit UYVY  - one little-endian 16-bit container per 10-bit sample (staging areas);
//   10-bit UYVY  - four 10-bit samples packed into five bytes (what the board takes).
// Stateless and allocation-free: they run once per VBI line per frame on the render
// thread, in place over buffers the caller owns.
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>

// Black in each layout: chroma 0x200 / luma 0x040 in 10 bits, 0x80 / 0x10 in 8 bits.
constexpr uint16_t QV_BLACK_CHROMA_10 = 0x200;
constexpr uint16_t QV_BLACK_LUMA_10 = 0x040;
constexpr uint8_t QV_BLACK_CHROMA_8 = 0x80;
constexpr uint8_t QV_BLACK_LUMA_8 = 0x10;

// Fills nBytes rounded down to 4 with the 16-bit pairs 0x0200, 0x0040.
void BlackUYVY16(uint16_t* pBuffer, size_t nBytes);

// Fills nBytes / 5 whole packed groups with black; a tail shorter than a group is left.
void BlackUYVY10(uint8_t* pBuffer, size_t nBytes);

// Packs min(nDstBytes / 5, nSrcBytes / 8) groups of four 16-bit samples (each masked to
// 10 bits). Returns the bytes written (groups x 5), 0 when no group fits.
size_t PackVBI_UYVY16toUYVY10(const uint16_t* pSrc, size_t nSrcBytes, uint8_t* pDst, size_t nDstBytes);

// Packs nPixels / 2 groups from a 16-bit line into the board's 10-bit layout. The fourth
// sample of a group goes unmasked into the fifth byte (s3 >> 2). Always true.
bool CopyVBIData16to10(uint8_t* pDst, const uint16_t* pSrc, size_t nPixels);

// Clamps to 0..255.
uint8_t ByteOfValue(int16_t nValue);

// The 10-bit ANC word of an 8-bit value: bit 8 = even parity of bits 0-7 (set when they
// hold an odd number of ones), bit 9 = NOT bit 8.
uint16_t AncWordWithParity(uint8_t nValue);

// SD: 8-bit UYVY line of nPixels pixels (nPixels x 2 bytes) into 16-bit samples; ANC
// packets (ADF 00 FF FF) may start at any sample. Packet words get parity and the
// checksum is computed; every other byte becomes byte x 4. False on a packet whose data
// count runs past the end of the line.
bool ConvertSDIPacketsInUYVY8to10(uint16_t* pDst, const uint8_t* pSrc, size_t nPixels);

// HD: as above, but packets live in the luma (odd) samples only. The chroma samples under
// the three ADF words are not written.
bool ConvertSDIPacketsInYOnly8to10(uint16_t* pDst, const uint8_t* pSrc, size_t nPixels);

// GStreamer time code to V4L2 time code. A template over the time-code type so that this
// header and qvjt_core need no GStreamer; the element instantiates it with
// GstVideoTimeCode (fields config.flags, hours, minutes, seconds, frames).
// The drop-frame flag is set only when the flags are exactly "drop frame": a drop-frame
// code that is also marked interlaced gets no flag.
constexpr unsigned QV_GST_TIME_CODE_FLAGS_DROP_FRAME = 1; // GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME

template <class TimeCode>
v4l2_timecode convert_gst_timecode_to_v4l2_timecode(const TimeCode& tc)
{
    v4l2_timecode out{};
    out.type = 0;
    out.flags = (static_cast<unsigned>(tc.config.flags) == QV_GST_TIME_CODE_FLAGS_DROP_FRAME)
                    ? V4L2_TC_FLAG_DROPFRAME
                    : 0;
    out.frames = static_cast<uint8_t>(tc.frames);
    out.seconds = static_cast<uint8_t>(tc.seconds);
    out.minutes = static_cast<uint8_t>(tc.minutes);
    out.hours = static_cast<uint8_t>(tc.hours);
    return out;
}
