#!/usr/bin/env bash
# Runs a command inside the deskwright toolchain root (see toolchain.sh), with
# the repository mounted at /src and a fresh tmpfs on /tmp. Every mount lives
# in a private mount namespace, so nothing outlives the command.
#
#   tools/in-toolchain.sh CMD [ARGS...]     (cwd inside: the same path below /src)
set -euo pipefail

ROOT=${DESKWRIGHT_TOOLCHAIN:-/opt/deskwright-toolchain}
REPO=$(cd "$(dirname "$0")/.." && pwd)

if [ ! -f "$ROOT/.deskwright-toolchain" ]; then
  echo "[in-toolchain] no toolchain at $ROOT; run tools/toolchain.sh first" >&2
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
    DESKWRIGHT_DISPLAY="${DESKWRIGHT_DISPLAY:-}" \
    bash -c "mkdir -p /tmp/home && cd /src/$rel && exec \"\$@\"" _ "$@"
' _ "$ROOT" "$REPO" "$rel" "$@"
