#!/usr/bin/env bash
# Builds everything (library, tests, tools, benchmarks) with clang and its thread-safety analysis
# (VELTO_THREAD_SAFETY=ON) in a fresh build-tsa/. Fails when the analysis finds a broken locking rule
# (the option makes those findings errors) and, to keep the clang build clean, on any other
# compiler warning too.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang++ >/dev/null || bash .ci/install-deps.sh

build=build-tsa
jobs="$(nproc 2>/dev/null || echo 2)"
rm -rf "$build"
CC=clang CXX=clang++ cmake -S . -B "$build" -DVELTO_THREAD_SAFETY=ON -DVELTO_BUILD_BENCH=ON >/dev/null
log="$build/build.log"
if ! cmake --build "$build" -j "$jobs" >"$log" 2>&1; then
  grep -E -A4 'error:|warning:' "$log" >&2 || tail -n 40 "$log" >&2
  echo "thread-safety: the clang build failed" >&2
  exit 1
fi
if grep -q 'warning:' "$log"; then
  echo "thread-safety: the clang build has warnings:" >&2
  grep 'warning:' "$log" | sort -u >&2
  exit 1
fi
echo "thread-safety: clang build of every target clean"
