#!/usr/bin/env bash
# Makes (once) the Debian 13 root that holds everything deskwright is built
# and tested with: Wine 10 (32- and 64-bit), MinGW-w64, CMake, Ninja, a JDK,
# GoogleTest sources, Boost headers and Xvfb.
#
#   tools/toolchain.sh            make or refresh the root (root only)
#   DESKWRIGHT_TOOLCHAIN=DIR ...  use another place than /opt/deskwright-toolchain
#
# A stamp file with the recipe's version makes a second run a no-op; a change
# of the recipe below rebuilds the root from scratch.
set -euo pipefail

ROOT=${DESKWRIGHT_TOOLCHAIN:-/opt/deskwright-toolchain}
MIRROR=http://deb.debian.org/debian
SUITE=trixie
PACKAGES=(
  wine wine32:i386 wine64 xvfb xauth
  g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-i686 binutils-mingw-w64-x86-64
  cmake ninja-build googletest libboost-dev
  openjdk-21-jdk-headless
  procps ca-certificates
)
RECIPE="v1 $SUITE ${PACKAGES[*]}"
STAMP="$ROOT/.deskwright-toolchain"

log() { printf '[toolchain] %s\n' "$*" >&2; }

if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$RECIPE" ]; then
  log "up to date at $ROOT"
  exit 0
fi

if [ "$(id -u)" != 0 ]; then
  log "must run as root to make $ROOT"
  exit 1
fi

if ! command -v debootstrap >/dev/null 2>&1; then
  log "installing debootstrap"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq debootstrap >/dev/null
fi

start=$(date +%s)
if [ -e "$ROOT" ]; then
  log "recipe changed: removing the old root"
  # Mounts are only ever made in private namespaces, but be safe.
  if grep -q " $ROOT/" /proc/mounts; then
    log "something is still mounted below $ROOT; refusing to remove it"
    exit 1
  fi
  rm -rf "$ROOT"
fi
tmp="$ROOT.partial"
rm -rf "$tmp"
mkdir -p "$tmp"

log "debootstrap $SUITE into $tmp"
debootstrap --variant=minbase "$SUITE" "$tmp" "$MIRROR" >"$tmp.debootstrap.log" 2>&1 || {
  tail -n 30 "$tmp.debootstrap.log" >&2; exit 1; }
rm -f "$tmp.debootstrap.log"

# Only the main suite: the i386 indexes of updates and security don't download here.
echo "deb $MIRROR $SUITE main" >"$tmp/etc/apt/sources.list"
rm -f "$tmp/etc/apt/sources.list.d/"*

cat >"$tmp/usr/sbin/policy-rc.d" <<'P'
#!/bin/sh
exit 101
P
chmod +x "$tmp/usr/sbin/policy-rc.d"

in_root() {
  unshare --mount --propagation private -- bash -c '
    set -e
    r=$1; shift
    mount -t proc proc "$r/proc"
    mount --rbind /dev "$r/dev"
    mount -t tmpfs tmpfs "$r/tmp"
    exec chroot "$r" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive "$@"
  ' _ "$tmp" "$@"
}

log "installing packages"
in_root dpkg --add-architecture i386
in_root apt-get update -qq
in_root apt-get install -y -qq --no-install-recommends "${PACKAGES[@]}" >"$ROOT.apt.log" 2>&1 || {
  tail -n 40 "$ROOT.apt.log" >&2; exit 1; }
rm -f "$ROOT.apt.log"
in_root apt-get clean

echo "$RECIPE" >"$tmp/.deskwright-toolchain"
mv "$tmp" "$ROOT"
log "ready at $ROOT in $(( $(date +%s) - start )) s"
