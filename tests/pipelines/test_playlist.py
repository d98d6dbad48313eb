"""A playlist to air: three clips of different lengths, each stamped from 0
as every file is, joined by stock `concat` (one for the pictures, one for the
sound) and played with nothing pacing them but the element, into the
simulated multi-plane board at 576i. The clips are raw pictures and PCM in
Matroska, so that the sound of each clip lasts exactly as long as its
pictures: what the test measures is the element, not an encoder's padding.
From the capture: every picture of every clip once and in order, the sound
without a gap across the joins, and each clip's first sample (a click) in the
first sample of the field that shows the clip's first picture."""

import argparse
import json
import os
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qvts  # noqa: E402

SKIP = 77
CLIPS = [27, 39, 51]  # frames; 3 frames hold a whole number of 48 kHz samples and MP2 frames alike


def player(clips):
    desc = ("qvjtrenderer name=out v4l2=/dev/video0 mode=0 number_of_audio_lines=1 "
            "concat name=cv ! queue ! out.sink_video concat name=ca ! queue ! out.src_audio0 ")
    for i, clip in enumerate(clips):
        desc += (f"filesrc location={clip} ! matroskademux name=d{i} "
                 f"d{i}.video_0 ! queue ! cv. d{i}.audio_0 ! queue ! audioconvert ! audio/x-raw,format=S32LE ! ca. ")
    return desc


def play(clips):
    """Child process, with the simulator preloaded: plays and reports as JSON."""
    from gi.repository import Gst
    Gst.init(None)
    pipe = Gst.parse_launch(player(clips))
    out = pipe.get_by_name("out")
    pipe.set_state(Gst.State.PLAYING)
    end, warnings = qvts.wait_for_end(pipe, 60)
    restarts = out.get_property("stats").get_value("fifo-restarts")
    pipe.set_state(Gst.State.NULL)
    print("RESULT " + json.dumps({"end": end, "warnings": warnings, "restarts": restarts}))
    return 0


def check(frames, audio, result):
    failures = []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    total = sum(CLIPS)
    expect(result["end"] == "eos", f"play-out ended with {result['end']}")
    expect(result["restarts"] == 0, f"play-out restarted {result['restarts']} time(s): {result['warnings'][:4]}")
    order = qvts.shown_frames(frames, 2)
    expect(order[:total] == list(range(total)) and set(order[total:]) <= {total - 1},
           f"pictures out of order, missing or repeated: {qvts.describe(order, total)}")
    expect(audio["longest_quiet"] == 0, f"the sound has a gap of {audio['longest_quiet']} samples")
    expect(audio["total"] >= total * qvts.SAMPLES_PER_FRAME, f"only {audio['total']} samples went out")
    # Each clip's click: in the first sample of the first field of its first picture.
    starts, first = [], 0
    for n in CLIPS:
        starts.append(first)
        first += n
    clicks = [(i, f["click"]) for i, f in enumerate(frames) if "click" in f]
    expect(len(clicks) == len(CLIPS), f"{len(clicks)} clicks went out, {clicks[:6]}")
    near = 0
    shown_at = {}
    for i, f in enumerate(frames):
        got = qvts.frame_of_luma(f["luma"], near) if f["luma"] >= 0 else None
        if got is not None:
            near = got + 1
            shown_at.setdefault(got, i)
    for start, (rec, at) in zip(starts, clicks):
        expect(shown_at.get(start) == rec and at == 0,
               f"clip starting at picture {start}: its first picture in record {shown_at.get(start)}, "
               f"its first sample in record {rec} at sample {at}")
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--source-dir")
    ap.add_argument("--play", nargs="*")
    args = ap.parse_args()
    if args.play:
        return play(args.play)
    if not qvts.have_elements(["matroskamux", "matroskademux", "concat"]):
        return SKIP
    with tempfile.TemporaryDirectory(prefix="qv-playlist-") as work:
        clips, first = [], 0
        for i, n in enumerate(CLIPS):
            clips.append(os.path.join(work, f"clip{i}.mkv"))
            qvts.build_clip(clips[-1], first, n)
            first += n
        cap = os.path.join(work, "out.qvcap")
        board = f"[board];kind=multi;video=/dev/video0;mode=0;pacing=realtime;capture={cap}"
        result, console = qvts.run_player(__file__, args.build_dir, work, board, clips)
        if result is None:
            return 1
        frames, audio = qvts.read_capture(args.build_dir, cap)
        failures = check(frames, audio, result)
        print(f"{len(frames)} records, audio {audio}, restarts {result['restarts']}, warnings {result['warnings'][:3]}")
        for f in failures:
            print(f"FAIL {f}")
        if failures:
            print("player console:\n" + console[-4000:])
        return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
