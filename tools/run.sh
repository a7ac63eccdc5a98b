#!/usr/bin/env bash
# The main job: builds both DLLs and the Java host classes into out/ (in the
# amd64 root), then runs a smoke session of the 32-bit driver under 32-bit
# Wine (i386 root) and of the 64-bit driver under 64-bit Wine (amd64 root)
# and prints what each did. Installs the toolchain roots first if needed
# (root).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
tools/toolchain.sh
tools/in-toolchain.sh amd64 tools/inside/package.sh
for bits in 32 64; do
  echo
  echo "== smoke session, $bits-bit driver ($(root_of "$bits") root)"
  tools/in-toolchain.sh "$(root_of "$bits")" tools/inside/wine-run.sh "$bits" "out/win$bits/smoke.exe"
done
