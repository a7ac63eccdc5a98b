#!/usr/bin/env bash
# Prints the benchmark of the driver (handle checks against the size of the
# control table, whole hierarchies against the size of the tree) for the
# 32- and the 64-bit build, or for one: tools/bench.sh 32. Installs the
# toolchain root first if needed (root).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/toolchain.sh
exec tools/in-toolchain.sh tools/inside/bench.sh "$@"
