"""Runs every example of the README as written: the gst-launch-1.0 command
lines, the Python block and the qvjt-playout line, each in a process with the
board simulator preloaded and /dev/video0 mapped onto a simulated board
(single-plane when the example names an ALSA device, multi-plane otherwise).
Live examples run a few seconds and are then interrupted; the rest run to
their end. Each must exit cleanly and get frames out of the board; examples
run with -m must show the periodic statistics messages, and the alarm example its alarm."""

import argparse
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import qvts  # noqa: E402

SKIP = 77
LIVE_SECONDS = 6  # enough for the 2 s default pre-roll and a few statistics periods
CAPTIONED_FRAMES = 100  # 4 s: shorter than the default buffer capacity
CAPTION_ELEMENTS = ["cccombiner", "x264enc", "h264parse", "avdec_h264"]


def examples(readme):
    """(kind, text) of every example: 'launch' command lines, 'python' blocks, 'playout' lines."""
    found = []
    lines = open(readme).read().splitlines()
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith("    gst-launch-1.0 "):
            cmd = line.strip()
            while cmd.endswith("\\"):
                i += 1
                cmd = cmd[:-1] + " " + lines[i].strip()
            found.append(("launch", cmd))
        elif line.strip() == "```python":
            j = lines.index("```", i + 1)
            found.append(("python", "\n".join(lines[i + 1:j])))
            i = j
        for m in re.finditer(r"`(qvjt-playout [^`]+)`", line):
            found.append(("playout", m.group(1)))
        i += 1
    return found


def board_for(text, capture):
    kind = "single" if "alsa=" in text else "multi"
    m = re.search(r"(?:\bmode=|--mode )(\d+)", text)
    # The captions example is read back line by line; the others by their checksums.
    summary = 0 if "captioned.ts" in text else 1
    return (f"[board];kind={kind};video=/dev/video0;mode={m.group(1) if m else 0};pacing=realtime;"
            f"capture={capture};capture_summary={summary}")


def run_example(kind, text, build_dir, work, n):
    cap = os.path.join(work, f"example{n}.qvcap")
    env = qvts.sim_env(build_dir, work, board_for(text, cap))
    if kind == "launch":
        argv = shlex.split(text)
    elif kind == "python":
        argv = [sys.executable, "-c", text]
    else:
        argv = shlex.split(text)
        argv[0] = os.path.join(build_dir, "tools", "qvjt_playout", "qvjt-playout")
    live = "is-live=true" in text
    proc = subprocess.Popen(argv, cwd=work, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    lines = []
    reader = threading.Thread(target=lambda: lines.extend(proc.stdout), daemon=True)
    reader.start()
    if live:
        # Runs LIVE_SECONDS once playing, then is interrupted as a user would.
        deadline = time.monotonic() + 120
        while not any("Setting pipeline to PLAYING" in ln for ln in lines) and proc.poll() is None \
                and time.monotonic() < deadline:
            time.sleep(0.1)
        time.sleep(LIVE_SECONDS)
        if proc.poll() is None:
            proc.send_signal(signal.SIGINT)
    try:
        proc.wait(timeout=30 if live else 180)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        reader.join(5)
        return [f"did not end: {''.join(lines)[-2000:]}"]
    reader.join(5)
    out = "".join(lines)
    failures = []
    if proc.returncode != 0:
        failures.append(f"exit code {proc.returncode}: {out[-2000:]}")
    if "ERROR" in out and kind == "launch":
        failures.append(f"error on the bus: {out[-2000:]}")
    glib = qvts.glib_warnings(out)
    if glib:
        failures.append("GLib warnings: " + " | ".join(glib[:3]))
    frames, _ = qvts.read_capture(build_dir, cap) if os.path.exists(cap) else ([], None)
    if len(frames) < 10:
        failures.append(f"{len(frames)} frames went out: {out[-2000:]}")
    if kind == "launch" and " -m " in text and "stats-interval=" in text and "qvjtrenderer-stats" not in out:
        failures.append("no qvjtrenderer-stats message")
    if kind == "launch" and " -m " in text and "alarm-source-name=" in text and "qvjtrenderer-alarm" not in out:
        failures.append("no qvjtrenderer-alarm message")
    if "captioned.ts" in text:
        failures += check_captions(frames)
    return failures


def check_captions(frames):
    """The station file's captions come out whole and in order, both fields."""
    got, bad = qvts.captions_of_capture(frames)
    sent = qvts.caption_pairs(CAPTIONED_FRAMES)
    failures = []
    if bad:
        failures.append(f"{bad} malformed cdps")
    for field in (0, 1):
        want = [p[field] for p in sent]
        # Null pairs carry nothing and need not go out.
        want = [p for p in want if (p[0] & 0x7F, p[1] & 0x7F) != (0, 0)]
        if got[field] != want[:len(got[field])] or len(got[field]) < len(want) - 8:
            failures.append(f"field {field + 1}: {len(got[field])} of {len(want)} pairs, or out of order: "
                            f"{got[field][:8]} ... against {want[:8]} ...")
    return failures


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", required=True)
    ap.add_argument("--source-dir", required=True)
    args = ap.parse_args()
    if not qvts.have_elements():
        return SKIP
    found = examples(os.path.join(args.source_dir, "README.md"))
    if not found:
        print("no examples found in the README")
        return 1
    if any("captioned.ts" in text for _, text in found) and not qvts.have_elements(CAPTION_ELEMENTS):
        print("the captions example is left out")
        found = [(k, t) for k, t in found if "captioned.ts" not in t]
    failed = False
    with tempfile.TemporaryDirectory(prefix="qv-readme-") as work:
        if any("programme.ts" in text for _, text in found):
            # The programme the file examples play: 4 s, teletext on lines 7
            # and 320, one splice at 2 s.
            qvts.build_ts(os.path.join(work, "programme.ts"), 720, 576, 100,
                          lambda f: [(True, 7, 1), (False, 7, 2)], [(1, 2_000_000_000)])
        if any("captioned.ts" in text for _, text in found):
            qvts.build_captioned_ts(os.path.join(work, "captioned.ts"), 720, 576, CAPTIONED_FRAMES)
        # The registry is built once, before anything is timed.
        subprocess.run(["gst-inspect-1.0", "qvjtrenderer"], env=qvts.sim_env(args.build_dir, work, ""),
                       capture_output=True, timeout=300)
        for n, (kind, text) in enumerate(found):
            failures = run_example(kind, text, args.build_dir, work, n)
            print(f"example {n} ({kind}): {'ok' if not failures else 'FAIL'}: {text[:100]}")
            for f in failures:
                print(f"  {f}")
            failed |= bool(failures)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
