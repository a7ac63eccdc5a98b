#!/usr/bin/env bash
# Runs a command inside one of the deskwright toolchain roots (see
# toolchain.sh), with the repository mounted at /src and a fresh tmpfs on
# /tmp. Every mount lives in a private mount namespace, so nothing outlives
# the command.
#
#   tools/in-toolchain.sh amd64 CMD [ARGS...]   the build root (builds, the
#                                                64-bit tests)
#   tools/in-toolchain.sh i386 CMD [ARGS...]    the 32-bit runtime root (the
#                                                32-bit tests only)
#
# The working directory inside is the caller's place below /src. Both roots
# see the repository, and so the build trees, at the same path.
set -euo pipefail

BASE=${DESKWRIGHT_TOOLCHAIN:-/opt/deskwright-toolchain}
REPO=$(cd "$(dirname "$0")/.." && pwd)

case "${1:-}" in
  amd64|i386) ROOT=$BASE/$1; shift ;;
  *) echo "usage: in-toolchain.sh amd64|i386 [CMD ARGS...]" >&2; exit 2 ;;
esac
if [ ! -f "$ROOT/.deskwright-toolchain" ]; then
  echo "[in-toolchain] no toolchain root at $ROOT; run tools/toolchain.sh first" >&2
  exit 1
fi
[ $# -gt 0 ] || set -- bash

# Keep the relative place of the caller inside the repository.
rel=.
case "$PWD/" in "$REPO"/*) rel=${PWD#"$REPO"}; rel=.${rel} ;; esac
exec unshare --mount --propagation private -- bash -c '
  set -e
  root=$1 repo=$2 rel=$3; shift 3
  mount -t proc proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs -o size=8g tmpfs "$root/tmp"
  mkdir -p "$root/src"
  mount --bind "$repo" "$root/src"
  exec chroot "$root" env -i \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/tmp/home LANG=C.UTF-8 TERM="${TERM:-dumb}" \
    CI="${CI:-}" DESKWRIGHT_IN_TOOLCHAIN=1 DESKWRIGHT_BUILD_DIR="${DESKWRIGHT_BUILD_DIR:-}" \
    DESKWRIGHT_DISPLAY="${DESKWRIGHT_DISPLAY:-}" CTEST_ARGS="${CTEST_ARGS:-}" \
    DESKWRIGHT_FUZZ_CALLS="${DESKWRIGHT_FUZZ_CALLS:-}" DESKWRIGHT_FUZZ_SEED="${DESKWRIGHT_FUZZ_SEED:-}" \
    DESKWRIGHT_SOAK_ROUNDS="${DESKWRIGHT_SOAK_ROUNDS:-}" \
    bash -c "mkdir -p /tmp/home && cd /src/$rel && exec \"\$@\"" _ "$@"
' _ "$ROOT" "$REPO" "$rel" "$@"
