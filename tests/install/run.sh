#!/usr/bin/env bash
# Installs the built library into a temporary prefix, component by component, and checks the result
# with check-prefix.sh. Usage: run.sh BUILD_DIR VERSION [tools]
set -euo pipefail
trap 'echo "$(basename "$0"): failed at line $LINENO: $BASH_COMMAND" >&2' ERR
build="$1" version="$2" tools="${3:-}"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The runtime component alone is the shared library under its SONAME and its full version.
cmake --install "$build" --prefix "$work/runtime" --component runtime >/dev/null
[ "$(cd "$work/runtime" && find . ! -type d -printf '%f ' | tr ' ' '\n' | sort | xargs)" = \
  "libVelto.so.1 libVelto.so.$version" ]

cmake --install "$build" --prefix "$work/prefix" >/dev/null
bash "$here/check-prefix.sh" "$work/prefix" "$version" "$work" $tools
