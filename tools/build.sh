#!/usr/bin/env bash
# Configures and builds deskwright for 32- and/or 64-bit Windows. Runs inside
# the amd64 toolchain root (tools/in-toolchain.sh amd64 tools/build.sh ...);
# build trees go to build/<bits>, or to $DESKWRIGHT_BUILD_DIR/<bits>.
#
#   tools/build.sh [32|64|all] [extra cmake build args...]
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
bits_list=$(bits_of "${1:-all}"); shift || true
for bits in $bits_list; do
  if [ "$bits" = 32 ]; then tc=cmake/mingw-i686.cmake; else tc=cmake/mingw-x86_64.cmake; fi
  dir=$(build_dir "$bits")
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$tc" \
    -DDESKWRIGHT_TESTS=ON >/dev/null
  cmake --build "$dir" "$@"
done
