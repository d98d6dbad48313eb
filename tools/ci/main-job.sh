#!/usr/bin/env bash
# The main job: build and install, then show the station's work. A short
# programme file (576i MPEG-2 with two sound tracks, teletext and an SCTE-35
# cue) is made with stock GStreamer elements and played with qvjt-playout
# through the installed plug-in to the simulated multi-plane board at 1080i50;
# then what the board sent out is printed: the statistics, the SCTE-104 and
# teletext packets decoded, the sound level of each line, and one frame
# written as a PNG (build/main-job/frame.png).
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake --preset default
cmake --build --preset default -j "$(nproc)"
cmake --install build
ldconfig

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
shown=$PWD/build/main-job
mkdir -p "$shown"

echo "=== a three-second programme made with stock elements: MPEG-2 576i, two MP2 tracks, teletext, an SCTE-35 cue"
/usr/bin/python3 tools/ci/make-programme.py "$work/programme.ts" 3

echo "=== qvjt-playout on the simulated multi-plane board, 1080i50, two audio lines"
capture=$work/out.qvcap
QVBOARDSIM="[board];kind=multi;video=/dev/qvsim-video1;mode=2;pacing=realtime;capture=$capture" \
LD_PRELOAD=/usr/local/lib/libqvboardsim.so \
  qvjt-playout --v4l2 /dev/qvsim-video1 --mode 2 --audio-lines 2 --latency 500 --teletext \
    --line-map "teletext=12-15;scte104=16" "$work/programme.ts"

qvboardsim-inspect --anc "$capture" > "$work/report" || true
echo "=== what the board sent: $(tail -n 1 "$work/report")"
echo "--- SCTE-104 (the cue of the file, announced with its pre-roll)"
# No reader here stops early: under pipefail, a writer cut off by `head`
# fails the pipeline (SIGPIPE) and with it the job, now and then.
cues=$(grep -B 2 "scte104 " "$work/report" | grep -E "^#|scte104 " | sed -n 1,4p || true)
echo "${cues:-none}"
echo "--- teletext (OP-47), first packets and count"
grep -m 4 "op47 teletext" "$work/report" | sed 's/^ *//' || true
echo "  $(grep -c "op47 teletext" "$work/report") teletext rows in all"
echo "--- sound: the loudest peak of each line (dBFS, left/right)"
awk '/ peaks=/ { sub(/.* peaks=/, ""); n = split($0, p, ",");
                 for (i = 1; i <= n; ++i) if (p[i] != "-inf" && (!(i in max) || p[i] + 0 > max[i])) max[i] = p[i] + 0 }
     END { for (i = 1; i + 1 <= 4; i += 2) printf "  line %d: %s / %s\n", (i + 1) / 2,
             (i in max) ? max[i] : "silent", (i + 1 in max) ? max[i + 1] : "silent" }' "$work/report"
records=$(grep -c "^#" "$work/report")
frame=$((records / 4))
qvboardsim-inspect --png "$frame" "$shown/frame.png" "$capture" > /dev/null
echo "--- frame $frame written to $shown/frame.png"
