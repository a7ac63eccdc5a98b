#!/usr/bin/env bash
# Inside a toolchain root: run one Windows program of a built tree under the
# Wine of that word size, on a display and in a prefix of its own.
#
#   inside/wine-run.sh 32|64 EXE [ARGS...]
set -uo pipefail
cd "$(dirname "$0")/../.."
case "${1:-}" in 32|64) bits=$1 ;; *) echo "usage: inside/wine-run.sh 32|64 EXE [ARGS...]" >&2; exit 2 ;; esac
shift
tests/wine/suite.sh setup "$bits" >/dev/null || exit 1
tests/wine/suite.sh run "$bits" "$@"
status=$?
tests/wine/suite.sh cleanup "$bits"
exit $status
