#!/usr/bin/env bash
# Installs the built library into a temporary prefix and builds a tiny consumer against it twice:
# with find_package(Velto) and with pkg-config. Usage: run.sh BUILD_DIR
set -euo pipefail
build="$1"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir="$(ls -d "$work"/prefix/lib*/ | head -n 1)"

cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
out="$(LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer")"
[ "$out" = "api get: 7" ]

cc "$here/consumer.c" -o "$work/consumer-pc" \
   $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs velto)
out="$(LD_LIBRARY_PATH="$libdir" "$work/consumer-pc")"
[ "$out" = "api get: 7" ]
echo "consumer built and ran with find_package and with pkg-config"
