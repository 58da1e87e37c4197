#!/usr/bin/env bash
# Builds the libFuzzer targets (build-fuzz, clang) and runs each one in turn for the given number of
# seconds (default 60) with its seed corpus and dictionary:
#   bash fuzz/run.sh        60 s per target
#   bash fuzz/run.sh 20     20 s per target (the CI smoke run)
# New corpus entries go to a scratch directory that is removed at the end; any crash, timeout,
# out-of-memory or leak input is copied to fuzz/crashers/<target>/, where the replay test of the normal
# suite picks it up. Prints the runs of each target and the total; exits 1 when any target found a fault.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
case "$seconds" in
  '' | *[!0-9]*) echo "usage: fuzz/run.sh [SECONDS]" >&2; exit 2 ;;
esac

bash .ci/install-deps.sh
build=build-fuzz
jobs="$(nproc 2>/dev/null || echo 2)"
CC=clang CXX=clang++ cmake -S . -B "$build" -DVELTO_FUZZ=ON -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCH=OFF \
  -DVELTO_BUILD_TOOLS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if ! cmake --build "$build" -j "$jobs" --target velto_fuzz >"$build/fuzz-build.log" 2>&1; then
  tail -n 40 "$build/fuzz-build.log"
  exit 1
fi

# The targets write their files into the scratch directory; on a memory file system the library's
# flushes to the disk cost nothing, which multiplies the runs of the file-reading targets.
scratch_base="${TMPDIR:-/tmp}"
[ -d /dev/shm ] && [ -w /dev/shm ] && scratch_base=/dev/shm
scratch="$(mktemp -d "$scratch_base/velto-fuzz-run.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Inputs larger than this are not worth the time: every reader's interesting cases are short, and the
# seeds of the multipart and message-file targets fit well inside.
max_len_of() {
  case "$1" in
    msg_file | decode_reader | collector_payload | debug_report | client_prefs) echo 16384 ;;
    *) echo 4096 ;;
  esac
}

# The executed inputs from libFuzzer's final statistics (0 when it printed none).
runs_in() {
  sed -n 's/^stat::number_of_executed_units: *\([0-9]*\).*/\1/p' "$1" | tail -n 1 | grep . || echo 0
}

total=0
passed=0
failed=0
while read -r name; do
  [ -n "$name" ] || continue
  work="$scratch/$name"
  mkdir -p "$work/corpus" "$work/artifacts" "$work/tmp"
  args=("$work/corpus" "fuzz/corpus/$name"
    -max_total_time="$seconds" -max_len="$(max_len_of "$name")" -timeout=10 -rss_limit_mb=2048
    -artifact_prefix="$work/artifacts/" -print_final_stats=1)
  [ -f "fuzz/dict/$name.dict" ] && args+=(-dict="fuzz/dict/$name.dict")
  status=0
  TMPDIR="$work/tmp" "$build/fuzz/fuzz_$name" "${args[@]}" >"$work/log" 2>&1 || status=$?
  runs="$(runs_in "$work/log")"
  total=$((total + runs))
  found=("$work"/artifacts/*)
  if [ "$status" -ne 0 ] || [ -e "${found[0]}" ]; then
    failed=$((failed + 1))
    mkdir -p "fuzz/crashers/$name"
    [ -e "${found[0]}" ] && cp "${found[@]}" "fuzz/crashers/$name/"
    printf '%-18s %12d runs  FOUND A FAULT (exit %d), input kept in fuzz/crashers/%s/\n' "$name" "$runs" "$status" "$name"
    grep -m 12 -E 'ERROR|SUMMARY|runtime error|#[0-9]+ 0x' "$work/log" | sed 's/^/    /' || true
  else
    passed=$((passed + 1))
    printf '%-18s %12d runs  nothing found\n' "$name" "$runs"
  fi
done <"$build/fuzz/targets.txt"

echo "total: $total runs in $((passed + failed)) targets of ${seconds} s each"
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
