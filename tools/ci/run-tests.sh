#!/usr/bin/env bash
# Every test: the normal build, the ASan+UBSan build, the ThreadSanitizer run of
# the concurrency tests and the bounded fuzz runs. Assumes install-deps.sh ran.
# About 16 minutes on a 2-core machine. On a failure it stops at that stage and
# ends with the stage and the names of the tests that failed.
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs=$(nproc)
stage="" stage_dir=""
step() { stage=$1 stage_dir=${2:-}; printf '\n=== %s (%ss)\n' "$stage" "$SECONDS"; }

# CTest keeps the failed tests of its last run; CMake's discovery appends the
# raw bytes of a test's parameter to its name, which say nothing to a reader.
failed_tests() {
  local log=$1/Testing/Temporary/LastTestsFailed.log
  [ -s "$log" ] && sed -e 's/^[0-9]*://' -e 's/ *# GetParam() = .*//' "$log" | sed 's/^/    /'
}

report() {
  local rc=$?
  [ "$rc" -eq 0 ] && return
  printf '\n=== FAILED at "%s" after %ss (exit status %s)\n' "$stage" "$SECONDS" "$rc"
  if [ -n "$stage_dir" ] && failed_tests "$stage_dir" >/dev/null; then
    echo "  failed tests:"
    failed_tests "$stage_dir"
  fi
}
trap report EXIT

step "default build"
cmake --preset default
cmake --build --preset default -j "$jobs"
rm -f build/Testing/Temporary/LastTestsFailed.log
step "default tests" build
ctest --preset default -j "$jobs"

step "ASan+UBSan build"
cmake --preset asan
cmake --build --preset asan -j "$jobs"
rm -f build-asan/Testing/Temporary/LastTestsFailed.log
step "ASan+UBSan tests" build-asan
# The 40-case mode table only repeats, per raster, paths that the line-table and
# fault groups already take under the sanitizers; it runs in the default build.
ctest --preset asan -j "$jobs" -E 'OnAirModes'

step "ThreadSanitizer build (concurrency tests)"
cmake --preset tsan
tsan_targets=$(cmake --build --preset tsan --target help | sed -n 's/^\([a-z_]*concurrent[a-z_]*\): .*/\1/p' | tr '\n' ' ')
if [ -n "$tsan_targets" ]; then
  cmake --build --preset tsan -j "$jobs" --target $tsan_targets
  rm -f build-tsan/Testing/Temporary/LastTestsFailed.log
  step "ThreadSanitizer tests" build-tsan
  ctest --preset tsan -L tsan -j "$jobs"
fi

if [ -d tests/fuzz ]; then
  step "fuzz build (clang, libFuzzer)"
  cmake --preset fuzz
  cmake --build --preset fuzz -j "$jobs"
  rm -f build-fuzz/Testing/Temporary/LastTestsFailed.log
  step "bounded fuzz runs" build-fuzz
  ctest --test-dir build-fuzz -L fuzz --output-on-failure
fi
step "all tests passed"
