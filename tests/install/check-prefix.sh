#!/usr/bin/env bash
# Checks an installed Velto (a `cmake --install` prefix, or the /usr of unpacked Debian packages):
# the consumer builds with find_package(Velto) and with pkg-config and runs without LD_LIBRARY_PATH
# (CMake's build RPATH; -Wl,-rpath from pkg-config's libdir), and, with "tools", the installed tools
# answer --help and --version. Usage: check-prefix.sh PREFIX VERSION WORK_DIR [tools]
set -euo pipefail
# (grep reads its whole input, never -q: a writer cut off early would fail the pipeline.)
trap 'echo "$(basename "$0"): failed at line $LINENO: $BASH_COMMAND" >&2' ERR
prefix="$1" version="$2" work="$3" tools="${4:-}"
here="$(cd "$(dirname "$0")" && pwd)"
libdir="$(ls -d "$prefix"/lib*/pkgconfig | head -n 1)"
libdir="${libdir%/pkgconfig}"
expected="$(printf 'api get: 7\n%s' "$version")"
run() { env -u LD_LIBRARY_PATH "$@"; }

cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DEXPECT_VERSION="$version" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
[ "$(run "$work/cmake-build/consumer")" = "$expected" ]

export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(pkg-config --modversion velto)" = "$version" ]
# CC and CFLAGS (also read by the CMake build above) name the library's target, -m32 for i386.
# shellcheck disable=SC2086
"${CC:-cc}" ${CFLAGS:-} "$here/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs velto) \
  -Wl,-rpath,"$libdir"
[ "$(run "$work/consumer-pc")" = "$expected" ]
echo "consumer built and ran with find_package and with pkg-config"

[ "$tools" = tools ] || exit 0
for tool in velto-collector velto-decode; do
  [ "$(run "$prefix/bin/$tool" --version)" = "$tool $version" ]
  run "$prefix/bin/$tool" --help | grep "^usage: $tool" >/dev/null
  # Every shared library the installed program needs is found.
  if env -u LD_LIBRARY_PATH ldd "$prefix/bin/$tool" | grep "not found"; then exit 1; fi
done
echo "installed tools answer --help and --version ($version)"
