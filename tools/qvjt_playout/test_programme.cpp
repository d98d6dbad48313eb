#include "test_programme.h"

std::string test_programme_text(const playout_options& o)
{
    std::string p = " videotestsrc is-live=true pattern=smpte ! video/x-raw,format=UYVY,width=" +
                    std::to_string(o.width) + ",height=" + std::to_string(o.height) + ",framerate=" + o.framerate +
                    ",pixel-aspect-ratio=1/1,interlace-mode=progressive ! out.sink_video";
    for (int i = 0; i < o.audio_lines; ++i)
        p += " audiotestsrc is-live=true wave=sine freq=" + std::to_string(440 * (i + 1)) +
             " samplesperbuffer=1920 ! audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved ! "
             "out.src_audio" +
             std::to_string(i);
    return p;
}
