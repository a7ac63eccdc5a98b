#!/usr/bin/env bash
# Inside the amd64 root: build both architectures and gather the output
# folder: out/win32 and out/win64 (the DLL, the smoke program and the target
# program that it drives), the Java host classes and their jar.
set -euo pipefail
cd "$(dirname "$0")/../.."
tools/build.sh all
rm -rf out && mkdir -p out/win32 out/win64
cp build/32/bin/deskwright.dll build/32/bin/smoke.exe build/32/bin/target.exe out/win32/
cp build/64/bin/deskwright.dll build/64/bin/smoke.exe build/64/bin/target.exe out/win64/
cp -r build/32/classes out/classes
(cd out/classes && jar cf ../deskwright-host.jar .)
echo "== out/"
find out -maxdepth 2 -type f | sort
