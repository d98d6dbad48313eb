"""A flushing seek from the application, mid-file: an 8 s transport stream
(stock elements) plays from Python through tsdemux and the decoders into the
simulated single-plane board; after two seconds on air the application seeks
to 5 s. What the board sent must show the file's pictures in order up to the
seek, the last of them held (never black), then the picture sought and every
one after it once, in order, within the latency plus two frames of the seek,
with the play-out never restarted."""

import argparse
import json
import os
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qvts  # noqa: E402
from test_ts_playout import PLAYER  # noqa: E402

SKIP = 77
FRAMES = 200
SEEK_AT_FRAME = 50      # output frames on air before the application seeks
TARGET = 125            # the input frame sought (5 s)
LATENCY_FRAMES = 50     # the declared default latency, 2 s at 25 frames/s


def play(args):
    """Child process, with the simulator preloaded: plays, seeks once, reports as JSON."""
    from gi.repository import Gst
    Gst.init(None)
    pipe = Gst.parse_launch(PLAYER.format(ts=args.play, mode=0, alsa="alsa=plughw:1,0"))
    out = pipe.get_by_name("out")
    pipe.set_state(Gst.State.PLAYING)
    bus = pipe.get_bus()
    end, seq_at_seek = None, None
    while end is None:
        msg = bus.timed_pop(20 * Gst.MSECOND)
        if msg is not None and msg.type == Gst.MessageType.EOS:
            end = "eos"
        elif msg is not None and msg.type == Gst.MessageType.ERROR:
            end = "error: %s" % msg.parse_error()[0].message
        if seq_at_seek is None:
            seq = out.get_property("stats").get_value("device-sequence")
            if seq >= SEEK_AT_FRAME:
                seq_at_seek = seq
                ok = pipe.seek_simple(Gst.Format.TIME, Gst.SeekFlags.FLUSH | Gst.SeekFlags.ACCURATE,
                                      TARGET * qvts.FRAME_NS)
                if not ok:
                    end = "seek refused"
    stats = out.get_property("stats")
    result = dict(end=end, seq_at_seek=seq_at_seek,
                  restarts=stats.get_value("fifo-restarts"))
    pipe.set_state(Gst.State.NULL)
    print("RESULT " + json.dumps(result))
    return 0


def picture_codes(frames):
    """Each record's input frame number modulo 24, the period of the luma
    code (see qvts.luma_of); None for a picture that carries no code."""
    codes = []
    for f in frames:
        step = (f["luma"] - 32) / 8
        code = round(step)
        codes.append(code % 24 if f["luma"] >= 0 and abs(step - code) * 8 <= 3 else None)
    return codes


def check(frames, result):
    failures = []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    expect(result["end"] == "eos", f"play-out ended with {result['end']}")
    expect(result["restarts"] == 0, "the seek restarted the play-out")
    # One stream from the first frame to the end: every slot had its buffer
    # and the device numbered its frames on (a restart starts both afresh).
    expect([f["index"] for f in frames] == list(range(len(frames))), "a slot went out without a buffer")
    expect(all(b["seq"] == a["seq"] + 1 for a, b in zip(frames, frames[1:])), "the device restarted")
    codes = picture_codes(frames)
    expect(None not in codes, "a picture went out without its code (black?)")

    # The file from its first picture, each once, then the picture on air at
    # the seek held until the new position had pre-rolled, then the new
    # position to the end of the file, each once; the last stays after the end.
    while len(codes) > 1 and codes[-1] == codes[-2]:
        codes.pop()
    steps = [(b - a) % 24 for a, b in zip(codes, codes[1:])]
    held_from = steps.index(0) if 0 in steps else len(steps)
    new_from = held_from
    while new_from < len(steps) and steps[new_from] == 0:
        new_from += 1
    expect(codes[:1] == [0] and held_from >= SEEK_AT_FRAME - 1, f"before the seek: steps {steps[:held_from + 2]}")
    expect(all(s == 1 for s in steps[new_from:]), f"after the seek: steps {steps[new_from:]}")
    # The new position's first picture is the one at the target (the one
    # whose time span covers it, the stream's stamps being offset a little).
    first_new = FRAMES - (len(codes) - new_from - 1)
    expect(TARGET - 4 <= first_new <= TARGET, f"the new position starts at input frame {first_new}")
    # Board frames from the application's seek to the new position on air
    # (the single-plane board numbers its frames from 1).
    to_air = new_from + 2 - result["seq_at_seek"]
    print(f"seek at board frame {result['seq_at_seek']}, picture held for {new_from - held_from} frames, "
          f"input frame {first_new} on air {to_air} frames after the seek")
    expect(to_air <= LATENCY_FRAMES + 2, f"the new position went out {to_air} frames after the seek")
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--source-dir")
    ap.add_argument("--play")
    args = ap.parse_args()
    if args.play:
        return play(args)
    if not qvts.have_elements():
        return SKIP
    with tempfile.TemporaryDirectory(prefix="qv-seek-") as work:
        ts = os.path.join(work, "seek.ts")
        qvts.build_ts(ts, 720, 576, FRAMES, lambda f: [(True, 7, 1)], [])
        cap = os.path.join(work, "seek.qvcap")
        board = f"[board];kind=single;video=/dev/video0;mode=0;pacing=realtime;capture={cap}"
        result, _ = qvts.run_player(__file__, args.build_dir, work, board, [ts])
        if result is None:
            return 1
        frames, _ = qvts.read_capture(args.build_dir, cap)
        failures = check(frames, result)
    for f in failures:
        print(f"FAIL {f}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
