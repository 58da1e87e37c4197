#!/usr/bin/env bash
# The long kill -9 durability pass, run by hand (CI runs the short one, Faults.Kill9Short): builds the
# plain build in build/ (or $BUILD_DIR) as far as the harness needs, then runs it for 50 runs.
# Arguments go to the harness and override the default, e.g.: kill9.sh --runs 200 --seed 42 --keep /tmp/k9
set -euo pipefail
src="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="${BUILD_DIR:-$src/build}"
if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$src" -B "$build" >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target killrun flow_host >/dev/null
VELTO_BINARY_DIR="$build" exec "$build/tests/faults/killrun" --runs 50 "$@"
