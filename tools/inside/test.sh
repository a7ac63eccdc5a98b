#!/usr/bin/env bash
# Inside the toolchain root: build and run the suites, then one closing line
# with the totals. Fails if any test failed or none ran.
set -uo pipefail
cd "$(dirname "$0")/../.."
which=${1:-all}
case "$which" in all) bits_list="32 64" ;; 32|64) bits_list=$which ;; *) echo "usage: test.sh [32|64]" >&2; exit 2 ;; esac

passed=0 failed=0 skipped=0 status=0
for bits in $bits_list; do
  echo "== build $bits-bit"
  if ! tools/build.sh "$bits"; then
    echo "build of the $bits-bit driver failed"; exit 1
  fi
  echo "== tests $bits-bit"
  dir=${DESKWRIGHT_BUILD_DIR:-build}/$bits
  log=$dir/ctest.log
  (cd "$dir" && ctest --output-on-failure -j2 --timeout 300 ${CTEST_ARGS:-}) 2>&1 | tee "$log"
  [ "${PIPESTATUS[0]}" = 0 ] || status=1
  summary=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
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
