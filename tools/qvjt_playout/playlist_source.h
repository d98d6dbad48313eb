// Plays a list of files or URIs back to back into the element's pads.
//
// Each item is decoded by a pipeline of its own (uridecodebin into appsinks),
// prepared while the item before it plays, and restamped into one programme
// time line: an item starts where the pictures of the one before ended, so the
// boundaries are gapless whatever each file's own stamps. The programme's
// pictures, sound, teletext and cues reach the element through appsrcs of the
// main pipeline, which pass the element's back-pressure on to the decoders.
//
// Sound follows the pictures: the first N audio streams of an item go to lines
// 1..N, each line is kept contiguous (small stamp jitter is absorbed, gaps are
// filled with silence, overlaps dropped), and a line the item has no sound for
// gets silence as long as the item's pictures, so that every item's first
// sample goes out with its first picture.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct playlist_settings {
    std::vector<std::string> entries; // files or URIs, in play order
    int audio_lines = 1;
    bool loop = false;
    bool splice_cues = false; // an SCTE-35 splice_insert at every boundary between two items
    bool teletext = false;
};

class playlist_item;
struct playlist_outputs;

class playlist_source {
public:
    explicit playlist_source(playlist_settings settings);
    ~playlist_source();
    playlist_source(const playlist_source&) = delete;
    playlist_source& operator=(const playlist_source&) = delete;

    // The main pipeline's sources and their links into the element "out", as
    // gst_parse_launch text.
    std::string pipeline_text() const;
    // Takes the sources of the launched pipeline.
    bool attach(GstElement* pipeline);
    // Moves the list on: prepares the next item, starts it when the one
    // playing has ended, skips entries that cannot play. Called from the
    // application's loop, never from a streaming thread.
    void poll();
    // True once the last item has been handed over and the sources ended.
    bool finished() const { return m_bFinished; }
    // Items that played (or began to).
    size_t played() const { return m_nPlayed; }

private:
    void prepare_next();
    void start_next(uint64_t nBoundary);
    void finish();
    void send_splice_cue(uint64_t nBoundary);

    playlist_settings m_settings;
    std::unique_ptr<playlist_outputs> m_pOut;
    std::unique_ptr<playlist_item> m_pCurrent; // playing
    std::unique_ptr<playlist_item> m_pNext;    // being prepared, or ready
    size_t m_nNextEntry = 0;
    size_t m_nFailedInARow = 0; // entries skipped since one last played: a list of bad entries must not spin
    size_t m_nPlayed = 0;
    uint64_t m_nEnd = 0; // programme time where the last item that played ended
    uint32_t m_nCueId = 0;
    bool m_bGaveUp = false;
    bool m_bFinished = false;
};
