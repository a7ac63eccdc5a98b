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
result=${PIPESTATUS[0]}
# A test that ran out of time or crashed printed nothing of the driver's log:
# show where its threads (the 30 heard from last) stood, and the log's last lines.
sed -nE 's/.*Test +#[0-9]+: ([^ ]+) .*\*\*\*(Timeout|Exception).*/\1/p' "$dir/ctest.log" | while read -r test; do
  name=${test#*.}
  find "/tmp/deskwright-wine-$bits/drive_c/users" -name "deskwright-test-${name//\//_}*.log" 2>/dev/null |
    while read -r log; do
      echo "---- $test: the last line of each thread in $(basename "$log") ----"
      awk '$3 ~ /^\[/ { last[$3] = $0 } END { for (t in last) print last[t] }' "$log" | sort | tail -n 30 | cut -c1-400
      echo "---- its last 60 lines ----"
      tail -n 60 "$log" | cut -c1-400
    done
done
exit "$result"
