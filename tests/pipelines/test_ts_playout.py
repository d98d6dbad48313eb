"""An MPEG-TS made with stock elements (MPEG-2 video, MP2 audio, DVB teletext,
SCTE-35 splice_insert on its own PID) played from Python through
filesrc ! tsdemux ! parsers ! decoders ! qvjtrenderer, with no video
converter and nothing pacing the file but the element itself, at the declared
latency and capacity, into the simulated single-plane board (576i, 20 s) and
multi-plane board (576i, 20 s; 1080i, 3 s). The line map is set and read back
and "stats" is read from Python; the checks run on what the board sent out:
every picture of the file once, in order, and the end of the stream posted
by itself."""

import argparse
import json
import os
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qvts  # noqa: E402

SKIP = 77
CUE_EVENT, CUE_TIME = 7, 2_000_000_000  # splice at running time 2 s: input frame 50

VARIANTS = {
    # name: raster, board, mode, line map, its read-back, frames
    "sd": dict(width=720, height=576, board="single", mode=0, frames=500,
               line_map="teletext=7-22,320-335;scte104=22",
               read_back="teletext=7-20,320-333;scte104=22"),
    "sd-multi": dict(width=720, height=576, board="multi", mode=0, frames=500,
                     line_map="teletext=7-22,320-335;scte104=22",
                     read_back="teletext=7-20,320-333;scte104=22"),
    "hd": dict(width=1920, height=1080, board="multi", mode=2, frames=75,
               line_map="teletext=9-12;scte104=14", read_back="teletext=9-12;scte104=14"),
}


def teletext_units(frame):
    # Field 1 line 7 carries row 1, field 2 line 8 carries row 2.
    return [(True, 7, 1), (False, 8, 2)]


PLAYER = """
filesrc location={ts} ! tsdemux name=d send-scte35-events=true
d. ! queue ! mpegvideoparse ! avdec_mpeg2video ! out.sink_video
d. ! queue ! mpegaudioparse ! avdec_mp2float ! audioconvert ! audio/x-raw,format=S32LE ! out.src_audio0
d. ! queue ! out.sink_teletext
qvjtrenderer name=out v4l2=/dev/video0 mode={mode} number_of_audio_lines=1 {alsa}
"""


def play(args):
    """Child process, with the simulator preloaded: plays and reports as JSON."""
    from gi.repository import Gst
    Gst.init(None)
    v = VARIANTS[args.variant]
    alsa = "alsa=plughw:1,0" if v["board"] == "single" else ""
    pipe = Gst.parse_launch(PLAYER.format(ts=args.play, mode=v["mode"], alsa=alsa))
    out = pipe.get_by_name("out")
    result = {"bad_map_kept": None}
    out.set_property("line-map", "teletext=7-;scte104=1")  # malformed: ignored
    result["bad_map_kept"] = out.get_property("line-map") == ""
    out.set_property("line-map", v["line_map"])
    out.set_property("stats-interval", 200)
    result["line_map"] = out.get_property("line-map")
    pipe.set_state(Gst.State.PLAYING)
    periodic = []

    def count_stats(msg):
        if msg.type == Gst.MessageType.ELEMENT and msg.get_structure().get_name() == "qvjtrenderer-stats":
            periodic.append(msg)

    end, warnings = qvts.wait_for_end(pipe, 60, count_stats)
    stats = out.get_property("stats")
    result.update(end=end, periodic=len(periodic), warnings=warnings,
                  stats={k: stats.get_value(k) for k in ("device-sequence", "fifo-restarts", "teletext-arrival-time",
                                                          "scte-arrival-time", "audio-lines")})
    pipe.set_state(Gst.State.NULL)
    print("RESULT " + json.dumps(result))
    return 0


def check(variant, frames, result):
    v = VARIANTS[variant]
    failures = []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    expect(result["end"] == "eos", f"play-out ended with {result['end']}")
    expect(result["bad_map_kept"], "a malformed line map changed the map")
    expect(result["line_map"] == v["read_back"], f"line map reads back as {result['line_map']!r}")
    expect(result["periodic"] >= 3, f"only {result['periodic']} statistics messages")
    expect(result["stats"]["device-sequence"] > 0 and result["stats"]["scte-arrival-time"] > 0,
           f"stats: {result['stats']}")
    expect(result["stats"]["fifo-restarts"] == 0, f"play-out restarted: {result['warnings']}")

    # Pictures: every input frame once (both fields of it on the multi-plane
    # board), in order; only the last one is held after the end.
    order = qvts.shown_frames(frames, 2 if v["board"] == "multi" else 1)
    expect(order[:v["frames"]] == list(range(v["frames"])) and set(order[v["frames"]:]) <= {v["frames"] - 1},
           f"pictures out of order, missing or repeated: {qvts.describe(order, v['frames'])}")
    # The end of the stream is posted once the last picture has gone out: the
    # board holds it only until the application stops the pipeline, well
    # under two seconds later.
    expect(len(order) - v["frames"] <= 50, f"the last picture was held for {len(order) - v['frames']} frames")

    # Teletext on its lines: SD as a waveform on the packet's own line of its
    # field; HD as OP-47 packets on the first lines of the map.
    if v["height"] == 576:
        lines = {(fl, ln, txt.split(" row ")[1][:2]) for f in frames for fl, ln, txt in f["teletext"]}
        expect(lines == {(1, 7, "01"), (2, 8, "02")}, f"teletext decoded on {sorted(lines)}")
        # Two packets a frame: both in the frame's record, or one in each field's.
        per_record = 1 if v["board"] == "multi" else 2
        carried = sum(len(f["teletext"]) for f in frames if len(f["teletext"]) == per_record) // 2
        expect(carried >= v["frames"] - 5, f"teletext in {carried} frames")
    else:
        op47 = [(ln, p) for f in frames for ln, did, sdid, p in f["anc"] if (did, sdid) == (0x43, 0x02)]
        rows = {ln for ln, _ in op47}
        expect(8 in rows and rows <= {8, 9, 10, 11}, f"OP-47 packets on rows {sorted(rows)}")
        texts = [bytes(b & 0x7F for b in p) for _, p in op47]
        for row in (b"row 01", b"row 02"):
            n = sum(row in t and b"QV frame" in t for t in texts)
            expect(n >= v["frames"] - 5, f"{n} OP-47 packets carry teletext {row.decode()}")

    # SCTE-104: one packet for the cue, on the map's line, and its pre-roll
    # points at the output frame that shows the picture of the splice time.
    scte = [(i, ln, p) for i, f in enumerate(frames) for ln, did, sdid, p in f["anc"] if (did, sdid) == (0x41, 0x07)]
    expect(len(scte) >= 1, "no SCTE-104 packet went out")
    for i, ln, p in scte[:1]:
        expect(ln == 21 or (v["board"] == "multi" and ln == 13), f"SCTE-104 on row {ln}")
        per_frame = 2 if v["board"] == "multi" else 1
        target = i + round(qvts.pre_roll_ms(p) / 40) * per_frame
        if target < len(frames):
            got = qvts.frame_of_luma(frames[target]["luma"], CUE_TIME // qvts.FRAME_NS)
            expect(got is not None and abs(got - CUE_TIME // qvts.FRAME_NS) <= 1,
                   f"splice frame {target} shows input frame {got}")

    if v["board"] == "multi":
        expect(result["audio"]["total"] >= 48000 * v["frames"] // 25 * 0.9, f"audio {result['audio']}")
        expect(result["audio"]["longest_quiet"] < 24, f"audio gap of {result['audio']['longest_quiet']} samples")
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--source-dir")
    ap.add_argument("--play")
    ap.add_argument("--variant", default="sd")
    args = ap.parse_args()
    if args.play:
        return play(args)
    if not qvts.have_elements():
        return SKIP

    failed = False
    with tempfile.TemporaryDirectory(prefix="qv-ts-") as work:
        for name, v in VARIANTS.items():
            ts = os.path.join(work, name + ".ts")
            qvts.build_ts(ts, v["width"], v["height"], v["frames"], teletext_units, [(CUE_EVENT, CUE_TIME)])
            cap = os.path.join(work, name + ".qvcap")
            board = f"[board];kind={v['board']};video=/dev/video0;mode={v['mode']};pacing=realtime;capture={cap}"
            result, _ = qvts.run_player(__file__, args.build_dir, work, board, [ts, "--variant", name])
            if result is None:
                print(f"{name}: FAIL the player failed")
                failed = True
                continue
            frames, result["audio"] = qvts.read_capture(args.build_dir, cap)
            failures = check(name, frames, result)
            print(f"{name}: {len(frames)} records, stats {result['stats']}, "
                  f"{result['periodic']} statistics messages, warnings {result['warnings'][:3]}")
            for f in failures:
                print(f"{name}: FAIL {f}")
            failed |= bool(failures)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
