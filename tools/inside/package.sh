#!/usr/bin/env bash
# Inside the amd64 root: build both architectures and gather the output
# folder: out/win32 and out/win64 (the DLL, the classic back end's client
# library, the smoke program and the target program that it drives), the
# Java host classes and their jar.
set -euo pipefail
cd "$(dirname "$0")/../.."
tools/build.sh all
rm -rf out && mkdir -p out/win32 out/win64
for bits in 32 64; do
  cp "build/$bits/bin/deskwright.dll" "build/$bits/bin/tolvawinclient.dll" "build/$bits/bin/smoke.exe" \
     "build/$bits/bin/target.exe" "out/win$bits/"
done
cp -r build/32/classes out/classes
(cd out/classes && jar cf ../deskwright-host.jar .)
echo "== out/"
find out -maxdepth 2 -type f | sort
