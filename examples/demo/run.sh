#!/usr/bin/env bash
# The demo, end to end on this machine: installs what is missing, builds the library with its
# collection host aimed at a local velto-collector, starts the collector on loopback, runs the demo
# host, shows the records as they arrived and what was left on disk, and stops the collector.
set -euo pipefail
cd "$(dirname "$0")/../.."

HTTPS_PORT="${VELTO_DEMO_HTTPS_PORT:-18443}"
HTTP_PORT="${VELTO_DEMO_HTTP_PORT:-18080}"
build=build-demo

bash .ci/install-deps.sh
echo "== building (collection host 127.0.0.1:$HTTPS_PORT)"
cmake -S . -B "$build" -DVELTO_COLLECT_HOST="127.0.0.1:$HTTPS_PORT" \
      -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target velto-collector velto-demo velto-decode >/dev/null

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
    --records "$work/records.jsonl" --cert-dir "$work/cert" &
collector_pid=$!
for _ in $(seq 1 100); do
  (exec 3<>"/dev/tcp/127.0.0.1/$HTTPS_PORT") 2>/dev/null && break
  sleep 0.1
done

echo "== running the demo host"
"$build/examples/velto-demo" "$work/root"

echo "== what the library left in its root directory (velto-decode)"
"$build/tools/velto-decode" "$work/root" | tail -n 1

echo "== stopping the collector"
kill -INT "$collector_pid"
wait "$collector_pid" || true
collector_pid=""
echo "== $(wc -l < "$work/records.jsonl") records arrived (one JSON object per line in records.jsonl)"
