#!/usr/bin/env bash
# Installs everything the project needs to build, test and benchmark on Debian 12.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends \
    build-essential cmake ninja-build pkg-config git ca-certificates \
    clang libclang-rt-14-dev \
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev \
    gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good \
    gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav \
    python3 python3-gi gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0 \
    libzvbi-dev \
    libasound2-dev alsa-utils \
    libswscale-dev libswresample-dev libavutil-dev \
    libgtest-dev libgmock-dev googletest libbenchmark-dev \
    v4l-utils libpng-dev zlib1g-dev
