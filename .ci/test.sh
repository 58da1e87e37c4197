#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
#   bash .ci/test.sh            plain build (build/)
#   bash .ci/test.sh address    AddressSanitizer + UndefinedBehaviorSanitizer (build-address/)
#   bash .ci/test.sh thread     ThreadSanitizer (build-thread/)
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize="${1:-}"
bash .ci/install-deps.sh

build="build${sanitize:+-$sanitize}"
jobs="$(nproc 2>/dev/null || echo 2)"
# The benchmarks are built (not run) in the plain pass, so that they keep compiling.
bench=OFF
[ -z "$sanitize" ] && bench=ON
cmake -S . -B "$build" -DVELTO_SANITIZE="$sanitize" -DVELTO_BUILD_BENCH="$bench" >/dev/null
cmake --build "$build" -j "$jobs"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/.ci/tsan.supp"
ctest --test-dir "$build" --output-on-failure -j "$((jobs * 2))" --timeout 600
