#!/usr/bin/env bash
# Installs every Debian package that the build, the tests, the tools and the demo need.
# Idempotent: does nothing when everything is already there. Uses sudo only when not root.
set -euo pipefail
#   bash .ci/install-deps.sh        the native (amd64) set below
#   bash .ci/install-deps.sh i386   the 32-bit Intel set for build-i386 (install_i386)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

# ---- 32-bit Intel (i386) build --------------------------------------------------------------------
# The compiler's -m32 multilib and the i386 (multiarch) -dev packages of every library the build, the
# tests, the tools and the examples link, installed beside the amd64 ones (cmake/i386.cmake uses them).
I386_PACKAGES=(
  g++-multilib
  libcurl4-openssl-dev:i386 libssl-dev:i386 zlib1g-dev:i386 uuid-dev:i386 libplist-dev:i386
  libcpp-httplib-dev:i386 libsqlite3-dev:i386 libgtest-dev:i386 libgmock-dev:i386
)

# A Multi-Arch: same library must have the very same version in both architectures. When the amd64
# copy installed here, or the amd64 candidate, differs from the i386 candidate (a point release that
# the mirror's i386 index does not offer yet, or no longer), apt's resolver gives up on the whole
# install. So both sides are named with the i386 candidate's version: "name:amd64=V" moves the amd64
# copy to it (only when it differs and amd64 offers V), "name:i386=V" keeps apt from aiming higher.
i386_version_pins() {
  # Every apt-cache call reads the whole package cache, so each question is asked once for all names.
  local closure
  mapfile -t closure < <(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
    --no-breaks --no-replaces --no-enhances "$@" 2>/dev/null | grep -E '^[^ <].*:i386$' | sort -u)
  [ ${#closure[@]} -gt 0 ] || return 0
  local -A installed i386_candidate amd64_candidate
  local name state version
  while read -r name state version; do
    [ "$state" = ii ] && installed[$name]="$version"
  done < <(dpkg-query -W -f='${Package} ${db:Status-Abbrev} ${Version}\n' "${closure[@]/%:i386/:amd64}" 2>/dev/null)
  [ ${#installed[@]} -gt 0 ] || return 0
  local names=("${!installed[@]}")
  while read -r name version; do
    case "$name" in
      *:i386) i386_candidate[${name%:i386}]="$version" ;;
      *) amd64_candidate[$name]="$version" ;;
    esac
  done < <(apt-cache policy "${names[@]/%/:i386}" "${names[@]/%/:amd64}" |
    awk '/^[^ ].*:$/ {sub(/:$/, ""); n = $0} /^  Candidate:/ {print n, $2}')
  local -A same amd64_versions
  while read -r name; do same[$name]=1; done < <(apt-cache show "${names[@]/%/:i386}" 2>/dev/null |
    awk '/^Package:/ {n = $2} /^Multi-Arch: same/ {print n}')
  while read -r name version; do amd64_versions["$name=$version"]=1; done < <(
    apt-cache madison "${names[@]/%/:amd64}" | awk -F'|' '{gsub(/ /, ""); print $1, $2}')
  for name in "${names[@]}"; do
    version="${i386_candidate[$name]:-(none)}"
    [ -n "${same[$name]:-}" ] && [ "$version" != "(none)" ] || continue
    [ "$version" != "${installed[$name]}" ] || [ "$version" != "${amd64_candidate[$name]:-}" ] || continue
    if [ "$version" != "${installed[$name]}" ]; then
      [ -n "${amd64_versions["$name=$version"]:-}" ] || continue
      echo "$name:amd64=$version"
    fi
    echo "$name:i386=$version"
  done
}

install_i386() {
  local missing=() p
  for p in "${I386_PACKAGES[@]}"; do
    [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" = "install ok installed" ] || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  dpkg --print-foreign-architectures | grep -x i386 >/dev/null || $SUDO dpkg --add-architecture i386
  # A mirror that is syncing can fail one index (the security one, say); what was fetched still works.
  $SUDO apt-get update -qq || echo "apt-get update reported errors; going on with the indexes it has"
  local pins
  mapfile -t pins < <(i386_version_pins "${missing[@]}")
  echo "installing (i386): ${missing[*]} ${pins[*]}"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends --allow-downgrades \
    "${missing[@]}" "${pins[@]}"
}

if [ "${1:-}" = "i386" ]; then
  install_i386
  exit 0
fi

# ---- native (amd64) build -------------------------------------------------------------------------
# Programs a bare Debian root lacks are named too: file (CPack's shared-library dependency step),
# openssl (the valgrind pass's TLS server and its certificate). postgresql: the collector's PostgreSQL
# tests start a server of their own from /usr/lib/postgresql/15/bin; libpq-dev: the collector's client.
# libfaketime: the clock tests set a host's clock back and forth by days.
# chromium, chromium-driver and python3-selenium: the browser test of the collector's page.
PACKAGES=(
  build-essential cmake pkg-config git
  libcurl4-openssl-dev zlib1g-dev uuid-dev libplist-dev libssl-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  binutils ca-certificates dpkg-dev file openssl
  clang clang-format libclang-rt-14-dev llvm valgrind
  libsqlite3-dev sqlite3 chromium chromium-driver python3-selenium fonts-dejavu-core
  postgresql libpq-dev
  libfaketime
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
