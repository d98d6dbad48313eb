"""A playlist through qvjt-playout into the simulated multi-plane board at
576i: three clips of different lengths, each stamped from 0, with a missing
file and a file without pictures among them, two audio lines of which the
clips fill the first, and a splice cue at each boundary. From the capture:
every picture of every clip once and in order, no restart, the first line's
sound without a gap across the boundaries and each clip's first sample (a
click) in the first sample of the field that shows its first picture, and
one SCTE-104 cue a boundary whose pre-roll points at the new clip's first
picture. The bad entries are named on the console and play-out goes on."""

import argparse
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qvts  # noqa: E402

SKIP = 77
CLIPS = [27, 39, 51]  # frames


def check(frames, audio, out, code):
    failures = []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    total = sum(CLIPS)
    expect(code == 0, f"qvjt-playout exit code {code}")
    expect("end of the playlist" in out, "the playlist did not end by itself")
    restarts = re.search(r"Number of fifo restarts\s+(\d+)", out)
    expect(restarts and restarts.group(1) == "0", f"play-out restarted: {restarts.group(0) if restarts else out[-300:]}")
    expect(re.search(r"skipping \S*missing\.mkv: no such file", out), "the missing file was not named")
    expect(re.search(r"skipping \S*sound-only\.mkv: no video stream", out), "the file without pictures was not named")
    glib = qvts.glib_warnings(out)
    expect(not glib, f"GLib warnings: {glib[:3]}")

    order = qvts.shown_frames(frames, 2)
    expect(order[:total] == list(range(total)) and set(order[total:]) <= {total - 1},
           f"pictures out of order, missing or repeated: {qvts.describe(order, total)}")
    expect(audio["longest_quiet"] == 0, f"the sound has a gap of {audio['longest_quiet']} samples")
    expect(audio["total"] >= total * qvts.SAMPLES_PER_FRAME, f"only {audio['total']} samples went out")

    # Where each input picture first went out (in field records).
    shown_at, near = {}, 0
    for i, f in enumerate(frames):
        got = qvts.frame_of_luma(f["luma"], near) if f["luma"] >= 0 else None
        if got is not None:
            near = got + 1
            shown_at.setdefault(got, i)
    starts = [sum(CLIPS[:k]) for k in range(len(CLIPS))]
    clicks = [(i, f["click"]) for i, f in enumerate(frames) if "click" in f]
    expect(len(clicks) == len(CLIPS), f"{len(clicks)} clicks went out, {clicks[:6]}")
    for start, (rec, at) in zip(starts, clicks):
        expect(shown_at.get(start) == rec and at == 0,
               f"clip starting at picture {start}: its first picture in record {shown_at.get(start)}, "
               f"its first sample in record {rec} at sample {at}")

    # One cue a boundary, announcing the first field of the next clip.
    cues = [(i, p) for i, f in enumerate(frames) for _, did, sdid, p in f["anc"] if (did, sdid) == (0x41, 0x07)]
    expect(len(cues) == len(CLIPS) - 1, f"{len(cues)} SCTE-104 cues for {len(CLIPS) - 1} boundaries")
    for (i, p), start in zip(cues, starts[1:]):
        target = i + round(qvts.pre_roll_ms(p) / 40) * 2
        expect(abs(target - shown_at.get(start, -99)) <= 1,
               f"the cue in record {i} points at record {target}, the clip starts in {shown_at.get(start)}")
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--source-dir")
    args = ap.parse_args()
    if not qvts.have_elements(["matroskamux", "matroskademux", "uridecodebin", "videoconvert", "audioresample"]):
        return SKIP
    with tempfile.TemporaryDirectory(prefix="qv-playout-") as work:
        clips = []
        for i, n in enumerate(CLIPS):
            clips.append(os.path.join(work, f"clip{i}.mkv"))
            qvts.build_clip(clips[-1], sum(CLIPS[:i]), n)
        sound_only = os.path.join(work, "sound-only.mkv")
        qvts.build_clip(sound_only, 0, 10, video=False)
        playlist = os.path.join(work, "list.txt")
        with open(playlist, "w") as f:
            f.write("# a station's evening\n")
            f.write("\n".join([clips[0], os.path.join(work, "missing.mkv"), clips[1], sound_only, clips[2]]) + "\n")
        cap = os.path.join(work, "out.qvcap")
        board = f"[board];kind=multi;video=/dev/video0;mode=0;pacing=realtime;capture={cap}"
        env = qvts.sim_env(args.build_dir, work, board)
        tool = os.path.join(args.build_dir, "tools", "qvjt_playout", "qvjt-playout")
        run = subprocess.run([tool, "--v4l2", "/dev/video0", "--mode", "0", "--audio-lines", "2", "--splice-cues", "--line-map", "scte104=22",
                              "--playlist", playlist], env=env, capture_output=True, text=True, timeout=240)
        out = run.stdout + run.stderr
        frames, audio = qvts.read_capture(args.build_dir, cap) if os.path.exists(cap) else ([], {})
        failures = check(frames, audio, out, run.returncode) if frames else ["nothing went out"]
        print(f"{len(frames)} records, audio {audio}")
        for f in failures:
            print(f"FAIL {f}")
        if failures:
            print("qvjt-playout console:\n" + out[-5000:])
        return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
