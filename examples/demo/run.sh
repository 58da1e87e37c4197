#!/usr/bin/env bash
# The demo, end to end on this machine: installs what is missing, builds the library with its
# collection host aimed at a local velto-collector, starts the collector on loopback, runs the demo
# host, shows the records as they arrived and what was left on disk, leaves the collector's page open
# for VELTO_DEMO_KEEP seconds (default 10; Ctrl-C ends it sooner) and stops the collector.
# VELTO_JOBS sets the build's parallelism (default: the number of processors); the build shows its
# own progress. The demo host keeps its files (and its HOME) in a scratch directory removed at the end;
# the collector's database, build-demo/collector.db, keeps the records of every run.
set -euo pipefail
cd "$(dirname "$0")/../.."

HTTPS_PORT="${VELTO_DEMO_HTTPS_PORT:-18443}"
HTTP_PORT="${VELTO_DEMO_HTTP_PORT:-18080}"
build=build-demo
jobs="${VELTO_JOBS:-$(nproc 2>/dev/null || echo 2)}"
keep="${VELTO_DEMO_KEEP:-10}"
case "$jobs" in
  ''|*[!0-9]*|0) echo "VELTO_JOBS must be a positive number, not '$jobs'" >&2; exit 2 ;;
esac
case "$keep" in
  ''|*[!0-9]*) echo "VELTO_DEMO_KEEP must be a number of seconds, not '$keep'" >&2; exit 2 ;;
esac

bash .ci/install-deps.sh
echo "== building in $build with $jobs jobs (collection host 127.0.0.1:$HTTPS_PORT)"
cmake -S . -B "$build" -DVELTO_COLLECT_HOST="127.0.0.1:$HTTPS_PORT" \
      -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target velto-collector velto-demo velto-decode

work="$(mktemp -d)"
collector_pid=""
cleanup() {
  if [ -n "$collector_pid" ] && kill -0 "$collector_pid" 2>/dev/null; then
    kill -INT "$collector_pid" 2>/dev/null || true
    wait "$collector_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "== starting velto-collector on https://127.0.0.1:$HTTPS_PORT and http://127.0.0.1:$HTTP_PORT"
"$build/tools/velto-collector" --https-port "$HTTPS_PORT" --http-port "$HTTP_PORT" \
    --records "$work/records.jsonl" --db "$build/collector.db" --cert-dir "$work/cert" &
collector_pid=$!
for _ in $(seq 1 100); do
  kill -0 "$collector_pid" 2>/dev/null || break
  (exec 3<>"/dev/tcp/127.0.0.1/$HTTPS_PORT") 2>/dev/null && break
  sleep 0.1
done
sleep 0.2
if ! kill -0 "$collector_pid" 2>/dev/null; then
  collector_pid=""
  echo "velto-collector did not start: is port $HTTPS_PORT or $HTTP_PORT in use?" \
       "(VELTO_DEMO_HTTPS_PORT and VELTO_DEMO_HTTP_PORT choose others)" >&2
  exit 1
fi

echo "== running the demo host"
mkdir -p "$work/home"
HOME="$work/home" "$build/examples/velto-demo" "$work/root"

echo "== what the library left in its root directory (velto-decode)"
"$build/tools/velto-decode" "$work/root" | tail -n 1

echo "== the collector's page: http://127.0.0.1:$HTTP_PORT/"
echo "   (this run's records and those of earlier runs, kept in $build/collector.db)"
echo "   the collector stops in $keep s, or at once with Ctrl-C; VELTO_DEMO_KEEP=600 keeps it for ten minutes"
# Ctrl-C ends the wait (the collector, in the same process group, takes it too and stops by itself).
sleep "$keep" &
sleeper=$!
trap 'kill "$sleeper" 2>/dev/null || true' INT
wait "$sleeper" 2>/dev/null || true
trap - INT

echo "== stopping the collector"
kill -INT "$collector_pid" 2>/dev/null || true
wait "$collector_pid" || true
collector_pid=""
cp "$work/records.jsonl" "$build/records.jsonl"
echo "== $(wc -l < "$build/records.jsonl") records arrived, one JSON object per line in $build/records.jsonl"
echo "   (for example: grep screenview $build/records.jsonl, or jq -c .record $build/records.jsonl)"
echo "   every run's records: sqlite3 $build/collector.db 'SELECT kind, count(*) FROM records GROUP BY kind'"
