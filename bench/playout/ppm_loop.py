"""A looped playlist on simulated boards whose clocks run off real time, side
by side: qvjt-playout plays three clips of different lengths over and over
(--loop) into one multi-plane 576i board per clock offset, and the element's
periodic statistics show whether the board paces the files exactly: no
repeated or skipped picture, no restart, and a FIFO depth that stays put.

    python3 bench/playout/ppm_loop.py --build-dir build [--seconds 600] [--ppm 100,-100]

Prints one line per board: the counters over the run and the video FIFO
depth (min / max, in frames) from the end of the first minute on (from the
end of the first tenth for runs shorter than ten minutes)."""

import argparse
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "pipelines"))
import qvts  # noqa: E402

CLIPS = (52, 77, 101)  # frames: three lengths, none a multiple of another
FRAME_S = 0.04


def stats_of(line):
    """The integer fields of a printed "qvjtrenderer-stats" structure."""
    out = {}
    for part in line.split(", ")[1:]:
        key, _, value = part.partition("=")
        m = re.match(r"\((?:g?u?int(?:64)?)\)(-?\d+)", value)
        if m:
            out[key] = int(m.group(1))
    return out


def run(args, work, ppm, playlist):
    dev = f"/dev/qvsim-ppm{'p' if ppm >= 0 else 'm'}{abs(ppm)}-video0"
    board = f"[board];kind=multi;video={dev};mode=0;pacing=realtime;ppm={ppm}"
    env = qvts.sim_env(args.build_dir, os.path.join(work, f"ppm{ppm}"), board)
    tool = os.path.join(args.build_dir, "tools", "qvjt_playout", "qvjt-playout")
    cmd = [tool, "--v4l2", dev, "--mode", "0", "--audio-lines", "1", "--playlist", playlist, "--loop",
           "--seconds", str(args.seconds), "--stats-interval", "1000"]
    # Each board's console goes to a file: read through pipes one after the
    # other, a full pipe would stall the board whose turn has not come.
    log = open(os.path.join(work, f"ppm{ppm}.log"), "w+")
    return subprocess.Popen(cmd, env=env, stdout=log, stderr=subprocess.STDOUT, text=True), log


def report(ppm, output, seconds):
    rows = [stats_of(ln[len("stats "):]) for ln in output.splitlines() if ln.startswith("stats ")]
    if not rows:
        return f"ppm {ppm:+}: no statistics\n{output[-2000:]}"
    settle = max(1, min(60, seconds // 10))
    steady = rows[settle:] or rows
    depth = [r.get("video-fifo-fullness", 0) / 1e9 / FRAME_S for r in steady]
    last = rows[-1]
    return (f"ppm {ppm:+}: {len(rows)} s of statistics, restarts {last.get('fifo-restarts')}, "
            f"repeated {last.get('video-repeated-frames')}, skipped {last.get('video-skipped-frames')}, "
            f"device dropped {last.get('device-dropped-frames')}, frames sent {last.get('device-sequence')}, "
            f"FIFO depth after {settle} s: {min(depth):.1f} .. {max(depth):.1f} frames")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--seconds", type=int, default=600)
    ap.add_argument("--ppm", default="100,-100")
    args = ap.parse_args()
    args.build_dir = os.path.abspath(args.build_dir)
    with tempfile.TemporaryDirectory(prefix="qv-ppm-") as work:
        names = []
        for i, n in enumerate(CLIPS):
            path = os.path.join(work, f"clip{i}.mkv")
            qvts.build_clip(path, sum(CLIPS[:i]), n)
            names.append(path)
        playlist = os.path.join(work, "list.txt")
        with open(playlist, "w") as f:
            f.write("\n".join(names) + "\n")
        offsets = [int(p) for p in args.ppm.split(",")]
        procs = [(ppm, run(args, work, ppm, playlist)) for ppm in offsets]
        for ppm, (proc, log) in procs:
            proc.wait(timeout=args.seconds + 120)
            log.seek(0)
            print(report(ppm, log.read(), args.seconds))
            log.close()


if __name__ == "__main__":
    main()
