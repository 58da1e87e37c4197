#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the tools and the demo need.
# Idempotent: does nothing when everything is already there. Uses sudo only when not root.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  libcurl4-openssl-dev zlib1g-dev uuid-dev libplist-dev libssl-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  binutils ca-certificates dpkg-dev
  clang clang-format libclang-rt-14-dev llvm valgrind
  libsqlite3-dev sqlite3 chromium fonts-dejavu-core
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "installing: ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
