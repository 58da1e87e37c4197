#!/usr/bin/env bash
# Makes the Debian packages of a built tree with CPack, checks their contents and dependencies,
# unpacks them into a scratch root and checks that root with check-prefix.sh.
# Usage: packages.sh BUILD_DIR VERSION
set -euo pipefail
# (grep reads its whole input, never -q: a writer cut off early would fail the pipeline.)
trap 'echo "$(basename "$0"): failed at line $LINENO: $BASH_COMMAND" >&2' ERR
build="$1" version="$2"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" >/dev/null
# The packages' architecture: the build's own (i386 from cmake/i386.cmake), else this machine's.
arch="$(sed -n 's/^set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")"
[ -n "$arch" ] || arch="$(dpkg --print-architecture)"
deb() { echo "$work/out/$1_${version}_${arch}.deb"; }
field() { dpkg-deb -f "$(deb "$1")" "$2"; }
contents() { dpkg-deb -c "$(deb "$1")" | awk '{print $6}'; }

# The library's package: the library under its SONAME, nothing a build needs; its dependencies come
# from dpkg-shlibdeps and it declares what it provides for packages built against it.
contents libvelto1 | grep -x './usr/lib/libVelto.so.1' >/dev/null
if contents libvelto1 | grep -E '\.h$|/libVelto\.so$|\.pc$|/bin/'; then exit 1; fi
field libvelto1 Depends | grep 'libcurl4' >/dev/null
field libvelto1 Depends | grep 'libc6' >/dev/null
dpkg-deb -I "$(deb libvelto1)" shlibs | grep -x "libVelto 1 libvelto1 (>= $version)" >/dev/null
# The development package: headers, the link-time name, the CMake and pkg-config files.
for f in include/velto.h include/velto_test.h lib/libVelto.so lib/pkgconfig/velto.pc \
         lib/cmake/Velto/VeltoConfig.cmake; do
  contents libvelto-dev | grep -x "./usr/$f" >/dev/null
done
[ "$(field libvelto-dev Depends)" = "libvelto1 (= $version)" ]
contents velto-tools | grep -x './usr/bin/velto-decode' >/dev/null
field velto-tools Depends | grep "libvelto1 (= $version)" >/dev/null

for pkg in libvelto1 libvelto-dev velto-tools; do dpkg-deb -x "$(deb "$pkg")" "$work/root"; done
[ "$(objdump -p "$work/root/usr/lib/libVelto.so.1" | awk '/SONAME/ {print $2}')" = libVelto.so.1 ]
bash "$here/check-prefix.sh" "$work/root/usr" "$version" "$work" tools
echo "packages: $(cd "$work/out" && ls *.deb | xargs)"
