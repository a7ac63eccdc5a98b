#!/usr/bin/env bash
# Prints the benchmark of the driver (handle checks against the size of the
# control table, whole hierarchies against the size of the tree) for the
# 32- and the 64-bit build, or for one: tools/bench.sh 32. Builds in the amd64
# root and runs each under its own Wine. Installs the toolchain roots first
# if needed (root).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
bits_list=$(bits_of "${1:-all}")
tools/toolchain.sh
for bits in $bits_list; do
  tools/in-toolchain.sh amd64 tools/build.sh "$bits" --target deskwright_bench
  tools/in-toolchain.sh "$(root_of "$bits")" tools/inside/wine-run.sh "$bits" \
    "$(build_dir "$bits")/bin/deskwright_bench.exe"
done
