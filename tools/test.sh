#!/usr/bin/env bash
# Builds deskwright for 32- and 64-bit Windows and runs the whole test suite
# under Wine: the 32-bit suite under 32-bit Wine, the same suite for the 64-bit
# build under 64-bit Wine. Installs the toolchain root first if needed (root).
#
#   tools/test.sh            everything
#   tools/test.sh 32         one architecture
#   CTEST_ARGS="-R natives" tools/test.sh   a subset
set -euo pipefail
cd "$(dirname "$0")/.."
tools/toolchain.sh
exec tools/in-toolchain.sh env CTEST_ARGS="${CTEST_ARGS:-}" tools/inside/test.sh "$@"
