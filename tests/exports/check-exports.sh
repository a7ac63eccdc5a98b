#!/usr/bin/env bash
# Compares the export table of the built deskwright.dll with the names that a
# Java VM looks up for the natives that javac declared in its -h header, plus
# JNI_OnLoad and the rundll32 entry EnableScreenReader. A 32-bit VM looks up
# "_Name@N" with N the bytes of the stdcall arguments (JNIEnv*, jobject and
# each parameter: 8 for jlong and jdouble, 4 for everything else); a 64-bit VM
# the plain name.
#
#   check-exports.sh OBJDUMP DLL JNI_HEADER BITS
set -euo pipefail
objdump=$1 dll=$2 header=$3 bits=$4

expected=$(mktemp) actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT

tr -d '\n' <"$header" | sed 's/;/;\n/g' | awk -v bits="$bits" '
  /JNIEXPORT/ && /JNICALL/ {
    line = $0
    sub(/.*JNICALL[ \t]*/, "", line)
    name = line; sub(/[ \t]*\(.*/, "", name)
    args = line; sub(/^[^(]*\(/, "", args); sub(/\).*/, "", args)
    n = split(args, parts, ",")
    bytes = 0
    for (i = 1; i <= n; i++) {
      t = parts[i]; gsub(/[ \t*]/, "", t)
      bytes += (t == "jlong" || t == "jdouble") ? 8 : 4
    }
    if (bits == 32) printf "_%s@%d\n", name, bytes; else print name
  }' >"$expected"
if [ "$bits" = 32 ]; then
  printf '%s\n' _JNI_OnLoad@8 EnableScreenReader >>"$expected"
else
  printf '%s\n' JNI_OnLoad EnableScreenReader >>"$expected"
fi
sort -o "$expected" "$expected"

"$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
  awk '/^\t\[/ { print $NF }' | sort >"$actual"

natives=$(grep -c 'Java_' "$expected" || true)
if ! diff -u "$expected" "$actual"; then
  echo "export table differs from the natives of the Java classes (- expected, + built)"
  exit 1
fi
echo "exports match: $(wc -l <"$actual") names, $natives natives ($bits-bit)"
