#!/usr/bin/env bash
# Inside the toolchain root: build and run the benchmark of one or both
# architectures under Wine.
set -euo pipefail
cd "$(dirname "$0")/../.."
which=${1:-all}
case "$which" in all) bits_list="32 64" ;; 32|64) bits_list=$which ;; *) echo "usage: bench.sh [32|64]" >&2; exit 2 ;; esac
for bits in $bits_list; do
  tools/build.sh "$bits" --target deskwright_bench
  dir=${DESKWRIGHT_BUILD_DIR:-build}/$bits
  tests/wine/suite.sh setup "$bits" >/dev/null
  tests/wine/suite.sh run "$bits" "$dir/bin/deskwright_bench.exe" || status=$?
  tests/wine/suite.sh cleanup "$bits"
  [ "${status:-0}" = 0 ] || exit "$status"
done
