#!/usr/bin/env bash
# Fails when a tracked C or C++ source differs from what clang-format makes of it with the
# repository's .clang-format. Fix with: git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || bash .ci/install-deps.sh
git ls-files -z '*.c' '*.cc' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror
echo "format: $(git ls-files '*.c' '*.cc' '*.cpp' '*.h' | wc -l) files as .clang-format has them"
