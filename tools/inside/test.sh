#!/usr/bin/env bash
# Inside a toolchain root: runs the suite of one build tree that the amd64
# root built (tools/test.sh calls this; 32 in the i386 root, 64 in amd64).
# The output goes to the terminal and to <build dir>/ctest.log.
set -uo pipefail
cd "$(dirname "$0")/../.."
. tools/common.sh
case "${1:-}" in 32|64) bits=$1 ;; *) echo "usage: inside/test.sh 32|64" >&2; exit 2 ;; esac
dir=$(build_dir "$bits")
[ -f "$dir/CTestTestfile.cmake" ] || { echo "no build tree at $dir" >&2; exit 1; }
# shellcheck disable=SC2086
(cd "$dir" && ctest --output-on-failure -j2 --timeout 300 ${CTEST_ARGS:-}) 2>&1 | tee "$dir/ctest.log"
exit "${PIPESTATUS[0]}"
