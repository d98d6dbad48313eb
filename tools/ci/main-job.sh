#!/usr/bin/env bash
# The main job: build and install, then play a three-second test programme
# through the installed plug-in, first with no board, then on the simulated
# multi-plane board (1080i50, two audio lines), printing the statistics and
# what the board sent out.
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake --preset default
cmake --build --preset default -j "$(nproc)"
cmake --install build
ldconfig

echo "=== no board"
qvjt-playout --seconds 3

echo "=== simulated multi-plane board"
capture=$(mktemp --suffix=.qvcap)
QVBOARDSIM="[board];kind=multi;video=/dev/qvsim-video1;mode=2;capture=$capture;capture_summary=1" \
LD_PRELOAD=/usr/local/lib/libqvboardsim.so \
  qvjt-playout --v4l2 /dev/qvsim-video1 --mode 2 --width 1920 --height 1080 --audio-lines 2 --seconds 3
echo "=== what the board sent (first and last fields)"
report=$(mktemp)
qvboardsim-inspect "$capture" > "$report"
sed -n '1,5p' "$report"
echo "..."
tail -n 3 "$report"
rm -f "$capture" "$report"
