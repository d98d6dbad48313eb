// Caps of the six sink pad templates. The element class and the renderer each
// keep a template set built from these strings, so the two cannot drift apart.
#pragma once

#include <gst/gst.h>

// The planar and packed YUV formats after xRGB are those the conversion engine
// reads besides the first list, so that a decoder links without a converter.
#define QV_CAPS_VIDEO                                                                                          \
    "video/x-raw, format = { (string)BGR, (string)RGB, (string)YVYU, (string)UYVY, (string)NV12, "             \
    "(string)BGRA, (string)BGRx, (string)ARGB, (string)xRGB, (string)I420, (string)YV12, (string)YUY2 },"      \
    "width = (int)[ 1, 32768 ], height = (int) [ 1, 32768 ], framerate = [ 0/1, 2147483647/1 ]"
#define QV_CAPS_AUDIO                                                                                          \
    "audio/x-raw, format= (string) { S32LE, S16LE, S8 }, rate = (int) 48000, channels = (int) [ 1, 2 ],layout " \
    "= (string) interleaved"
#define QV_CAPS_TELETEXT "application/x-teletext"
#define QV_CAPS_SCTE35 "application/x-scte35"
#define QV_CAPS_SCTE104 "application/x-scte104"
#define QV_CAPS_VBI                                                                                            \
    "application/x-vbi, format = { (string)Y10  }, width = (int) [ 1, MAX ], height = (int) [ 1, MAX ], "      \
    "framerate = (fraction) [ 0/1, MAX ], interlace-mode = (string) { interleaved, progressive }, count-0 = "   \
    "(int) [ 0, MAX ], count-1 = (int) [ 0, MAX ], start-0 = (int) [ 0, MAX ], start-1 = (int) [ 0, MAX ], "   \
    "sample-per-line = (int) [ 0, MAX ]"

// One template set, in the order the element class adds them.
#define QV_DEFINE_PAD_TEMPLATES(prefix)                                                                        \
    static GstStaticPadTemplate prefix##_video = GST_STATIC_PAD_TEMPLATE(                                      \
        "sink_video", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_VIDEO));                           \
    static GstStaticPadTemplate prefix##_audio = GST_STATIC_PAD_TEMPLATE(                                      \
        "sink_audio", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_AUDIO));                           \
    static GstStaticPadTemplate prefix##_teletext = GST_STATIC_PAD_TEMPLATE(                                   \
        "sink_teletext", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_TELETEXT));                     \
    static GstStaticPadTemplate prefix##_scte35 = GST_STATIC_PAD_TEMPLATE(                                     \
        "sink_scte_35", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_SCTE35));                        \
    static GstStaticPadTemplate prefix##_scte104 = GST_STATIC_PAD_TEMPLATE(                                    \
        "sink_scte_104", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_SCTE104));                      \
    static GstStaticPadTemplate prefix##_vbi = GST_STATIC_PAD_TEMPLATE(                                        \
        "sink_vbi", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(QV_CAPS_VBI))
