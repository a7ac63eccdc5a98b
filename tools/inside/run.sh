#!/usr/bin/env bash
# Inside the toolchain root: build, gather the output folder, run the smoke
# session of each architecture.
set -euo pipefail
cd "$(dirname "$0")/../.."
tools/build.sh all
rm -rf out && mkdir -p out/win32 out/win64
cp build/32/bin/deskwright.dll build/32/bin/smoke.exe out/win32/
cp build/64/bin/deskwright.dll build/64/bin/smoke.exe out/win64/
cp -r build/32/classes out/classes
(cd out/classes && jar cf ../deskwright-host.jar .)
echo "== out/"
find out -maxdepth 2 -type f | sort
for bits in 32 64; do
  echo
  echo "== smoke session, $bits-bit driver"
  tests/wine/suite.sh setup "$bits" >/dev/null
  tests/wine/suite.sh run "$bits" "out/win$bits/smoke.exe" || status=$?
  tests/wine/suite.sh cleanup "$bits"
  [ "${status:-0}" = 0 ] || exit "$status"
done
