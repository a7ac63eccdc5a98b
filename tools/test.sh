#!/usr/bin/env bash
# Builds deskwright for 32- and 64-bit Windows and runs the whole test suite
# under Wine: the 32-bit suite under 32-bit Wine in the i386 root, the same
# suite for the 64-bit build under 64-bit Wine in the amd64 root. Everything
# is built in the amd64 root. Installs the toolchain roots first if needed
# (root). Ends with one line of totals; fails if any test failed or none ran.
#
#   tools/test.sh            everything
#   tools/test.sh 32         one architecture
#   CTEST_ARGS="-R natives" tools/test.sh   a subset
#   DESKWRIGHT_BUILD_DIR=build-x tools/test.sh   build trees below build-x/
set -uo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
bits_list=$(bits_of "${1:-all}") || exit 2
tools/toolchain.sh || exit 1

echo "== build $bits_list"
start=$SECONDS
if ! tools/in-toolchain.sh amd64 tools/build.sh "${1:-all}"; then
  echo "build failed"; exit 1
fi
echo "== built in $((SECONDS - start)) s"

passed=0 failed=0 skipped=0 status=0
for bits in $bits_list; do
  echo "== tests $bits-bit ($(root_of "$bits") root)"
  start=$SECONDS
  tools/in-toolchain.sh "$(root_of "$bits")" tools/inside/test.sh "$bits" || status=1
  echo "== $bits-bit suite ran in $((SECONDS - start)) s"
  log=$(build_dir "$bits")/ctest.log
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" 2>/dev/null | tail -n 1)
  if [ -z "$summary" ]; then
    echo "no test summary for the $bits-bit suite"; status=1; continue
  fi
  total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$summary")
  bad=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$summary")
  skip=$(grep -cE '^[[:space:]]*[0-9]+ - .* \(Skipped\)' "$log" || true)
  passed=$((passed + total - bad - skip)); failed=$((failed + bad)); skipped=$((skipped + skip))
done
[ "$passed" -gt 0 ] || status=1
echo "total: $passed passed, $failed failed, $skipped skipped"
exit $status
