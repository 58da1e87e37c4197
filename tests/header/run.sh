#!/usr/bin/env bash
# The public headers compile on their own, without a warning, as C99 and C11 and as C++11 to C++20,
# and their version macros equal the project's version. Compiles only: nothing is linked or run.
# Usage: run.sh C_COMPILER CXX_COMPILER PROJECT_VERSION
set -euo pipefail
cc="$1" cxx="$2" version="$3"
here="$(cd "$(dirname "$0")" && pwd)"
include="$(cd "$here/../../include" && pwd)"
IFS=. read -r major minor patch <<<"$version"

common=(-fsyntax-only -Wall -Wextra -pedantic -Werror -Wundef -I"$include"
        -DEXPECT_MAJOR="$major" -DEXPECT_MINOR="$minor" -DEXPECT_PATCH="$patch")
for std in c99 c11; do
  "$cc" -std="$std" "${common[@]}" -Wstrict-prototypes "$here/consumer.c"
  echo "C: $std"
done
for std in c++11 c++14 c++17 c++20; do
  "$cxx" -std="$std" "${common[@]}" -DEXPECT_STRING="\"$version\"" "$here/consumer.cpp"
  echo "C++: $std"
done
