#!/usr/bin/env bash
# Every test: the normal build, the ASan+UBSan build, the ThreadSanitizer run of
# the concurrency tests and the bounded fuzz runs. Assumes install-deps.sh ran.
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs=$(nproc)
step() { printf '\n=== %s (%ss)\n' "$1" "$SECONDS"; }

step "default build"
cmake --preset default
cmake --build --preset default -j "$jobs"
step "default tests"
ctest --preset default -j "$jobs"

step "ASan+UBSan build"
cmake --preset asan
cmake --build --preset asan -j "$jobs"
step "ASan+UBSan tests"
# The 40-case mode table only repeats, per raster, paths that the line-table and
# fault groups already take under the sanitizers; it runs in the default build.
ctest --preset asan -j "$jobs" -E 'OnAirModes'

step "ThreadSanitizer build (concurrency tests)"
cmake --preset tsan
tsan_targets=$(cmake --build --preset tsan --target help | sed -n 's/^\([a-z_]*concurrent[a-z_]*\): .*/\1/p' | tr '\n' ' ')
if [ -n "$tsan_targets" ]; then
  cmake --build --preset tsan -j "$jobs" --target $tsan_targets
  step "ThreadSanitizer tests"
  ctest --preset tsan -L tsan -j "$jobs"
fi

if [ -d tests/fuzz ]; then
  step "fuzz build (clang, libFuzzer)"
  cmake --preset fuzz
  cmake --build --preset fuzz -j "$jobs"
  step "bounded fuzz runs"
  ctest --test-dir build-fuzz -L fuzz --output-on-failure
fi
step "all tests passed"
