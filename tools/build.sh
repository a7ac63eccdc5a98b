#!/usr/bin/env bash
# Configures and builds deskwright for 32- and/or 64-bit Windows. Runs inside
# the toolchain root (see in-toolchain.sh); build trees go to build/<bits>, or
# to $DESKWRIGHT_BUILD_DIR/<bits>.
#
#   tools/build.sh [32|64|all] [extra cmake build args...]
set -euo pipefail
cd "$(dirname "$0")/.."
which=${1:-all}; shift || true
case "$which" in all) bits_list="32 64" ;; 32|64) bits_list=$which ;; *) echo "usage: build.sh [32|64|all]" >&2; exit 2 ;; esac
for bits in $bits_list; do
  if [ "$bits" = 32 ]; then tc=cmake/mingw-i686.cmake; else tc=cmake/mingw-x86_64.cmake; fi
  dir=${DESKWRIGHT_BUILD_DIR:-build}/$bits
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$tc" \
    -DDESKWRIGHT_TESTS=ON >/dev/null
  cmake --build "$dir" "$@"
done
