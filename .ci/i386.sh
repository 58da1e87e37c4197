#!/usr/bin/env bash
# The whole suite as a 32-bit Intel (i386) build, then the check that it writes the same bytes as the
# 64-bit build: installs the i386 packages, configures build-i386 with cmake/i386.cmake, builds and
# runs its ctest, then builds the 64-bit velto-bytes-dump in build/ (configured by the plain pass,
# .ci/test.sh) and runs SameBytes there against build-i386. Prints how long it took.
#   bash .ci/i386.sh
set -euo pipefail
cd "$(dirname "$0")/.."
start=$(date +%s)

bash .ci/install-deps.sh
bash .ci/install-deps.sh i386
jobs="$(nproc 2>/dev/null || echo 2)"

# The benchmarks stay off: they are built (not run) in the plain pass already.
cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake -DVELTO_BUILD_BENCH=OFF >/dev/null

# Some kernels are built without 32-bit support (exec fails with "Exec format error"). There the
# library and the tools are still built as 32-bit programs and checked to be so; the test programs,
# which the build itself runs to list their cases, are neither built nor run.
probe="$(mktemp -d)"
printf 'int main(void) { return 0; }\n' > "$probe/probe.c"
if ! { gcc -m32 -o "$probe/probe" "$probe/probe.c" && "$probe/probe"; } 2>/dev/null; then
  rm -rf "$probe"
  echo "i386: this kernel cannot run 32-bit programs; building the library and the tools only"
  cmake --build build-i386 -j "$jobs" --target Velto velto-decode
  file -L build-i386/libVelto.so build-i386/tools/velto-decode | grep -v 'ELF 32-bit.*Intel 80386' && {
    echo "build-i386 made something other than 32-bit Intel programs" >&2
    exit 1
  }
  echo "i386 pass (build only): $(($(date +%s) - start)) s"
  exit 0
fi
rm -rf "$probe"
cmake --build build-i386 -j "$jobs"
file -L build-i386/libVelto.so build-i386/tools/velto-decode | grep -v 'ELF 32-bit.*Intel 80386' && {
  echo "build-i386 made something other than 32-bit Intel programs" >&2
  exit 1
}
ctest --test-dir build-i386 --output-on-failure -j "$((jobs * 2))" --timeout 600

# The comparison runs in the 64-bit tree (build/, or VELTO_BUILD64_DIR); a tree that the plain pass
# did not make is configured here.
build64="${VELTO_BUILD64_DIR:-build}"
[ -f "$build64/CMakeCache.txt" ] || cmake -S . -B "$build64" >/dev/null
cmake --build "$build64" -j "$jobs" --target same_bytes_test
VELTO_I386_BUILD_DIR="$PWD/build-i386" ctest --test-dir "$build64" --output-on-failure --no-tests=error -R '^SameBytes\.'

echo "i386 pass: $(($(date +%s) - start)) s"
