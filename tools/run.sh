#!/usr/bin/env bash
# The main job: builds both DLLs and the Java host classes into out/, then runs
# a smoke session of the 32-bit and the 64-bit driver in the JNI test host
# under Wine and prints what it did. Installs the toolchain root first if
# needed (root).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/toolchain.sh
exec tools/in-toolchain.sh tools/inside/run.sh "$@"
