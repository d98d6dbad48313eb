#!/usr/bin/env bash
# The main job: build, install the plug-in, and play a short test programme
# through it with no board, printing the statistics snapshot.
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake --preset default
cmake --build --preset default -j "$(nproc)"
cmake --install build
qvjt-playout --seconds 3
