#!/usr/bin/env bash
# Makes (once) the two Debian 13 roots that deskwright is built and tested in:
#
#   $DESKWRIGHT_TOOLCHAIN/amd64   the build root, from the signed archive:
#                                 MinGW-w64 (both word sizes), CMake, Ninja, a
#                                 JDK, GoogleTest, Boost headers, 64-bit Wine,
#                                 Xvfb. Everything that ships is built here.
#   $DESKWRIGHT_TOOLCHAIN/i386    the 32-bit runtime root: 32-bit Wine, Xvfb,
#                                 ctest and objdump. It only ever runs the
#                                 32-bit tests over a build tree made in the
#                                 amd64 root.
#
#   tools/toolchain.sh            make or refresh both roots (root only)
#   DESKWRIGHT_TOOLCHAIN=DIR ...  use another place than /opt/deskwright-toolchain
#
# Each root carries a stamp with its own recipe: a second run is a no-op, and
# a change of one recipe rebuilds only that root. A root is made in a
# ".partial" folder and renamed only when complete, so a half-made root never
# counts as made.
#
# The i386 root is made the signed way (debootstrap --arch=i386) when the
# archive allows it. Some mirrors serve the i386 half of trixie out of step
# with the signed Release file (the index's size or hash doesn't match); then,
# and only then, the root is made from the i386 index itself as a flat
# repository, which apt can't check against a signature. The output says so.
set -euo pipefail

BASE=${DESKWRIGHT_TOOLCHAIN:-/opt/deskwright-toolchain}
SUITE=trixie
AMD64_PACKAGES=(
  wine wine64 xvfb xauth
  g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-i686 binutils-mingw-w64-x86-64
  cmake ninja-build googletest libboost-dev
  openjdk-21-jdk-headless
  procps ca-certificates
)
I386_PACKAGES=(
  wine wine32 xvfb xauth
  cmake binutils-mingw-w64-i686
  procps
)
AMD64_RECIPE="v2 amd64 $SUITE ${AMD64_PACKAGES[*]}"
I386_RECIPE="v2 i386 $SUITE ${I386_PACKAGES[*]}"
STAMP_NAME=.deskwright-toolchain
TRIES=${DESKWRIGHT_TOOLCHAIN_TRIES:-3}
PAUSE=${DESKWRIGHT_TOOLCHAIN_PAUSE:-15}
# What apt and debootstrap print when an index doesn't match the Release
# file that describes it: not transient, so no point in trying again.
MISMATCH='Hash Sum mismatch|unexpected size|Size mismatch|Mirror sync in progress|[Cc]hecksum (mismatch|failed)|Invalid Release file| was corrupt'

log() { printf '[toolchain] %s\n' "$*" >&2; }

is_made() { [ -f "$1/$STAMP_NAME" ] && [ "$(cat "$1/$STAMP_NAME")" = "$2" ]; }

# The first layout was one multiarch root directly at $BASE: it goes.
if [ -f "$BASE/$STAMP_NAME" ] && [ ! -d "$BASE/amd64" ]; then
  old_layout=1
else
  old_layout=0
fi

if [ "$old_layout" = 0 ] && is_made "$BASE/amd64" "$AMD64_RECIPE" && is_made "$BASE/i386" "$I386_RECIPE"; then
  log "up to date at $BASE (amd64, i386)"
  exit 0
fi

if [ "$(id -u)" != 0 ]; then
  log "must run as root to make the roots below $BASE"
  exit 1
fi

refuse_if_mounted() {
  if grep -q " $1/" /proc/mounts; then
    log "something is still mounted below $1; refusing to remove it"
    exit 1
  fi
}

if [ "$old_layout" = 1 ]; then
  log "removing the single root of the earlier layout at $BASE"
  refuse_if_mounted "$BASE"
  rm -rf "$BASE"
fi
mkdir -p "$BASE"

host_tools=()
command -v debootstrap >/dev/null 2>&1 || host_tools+=(debootstrap)
command -v mmdebstrap >/dev/null 2>&1 || host_tools+=(mmdebstrap)
if [ ${#host_tools[@]} -gt 0 ]; then
  log "installing ${host_tools[*]} on this machine"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${host_tools[@]}" >/dev/null
fi

# retry LOG CMD...: runs CMD up to $TRIES times with a pause between tries,
# its output in LOG. Returns 0, or 3 at once when the output shows an index
# that doesn't match its Release file, or 1 when every try failed.
retry() {
  local out=$1; shift
  local try
  for try in $(seq "$TRIES"); do
    if "$@" >"$out" 2>&1; then return 0; fi
    if grep -qE "$MISMATCH" "$out"; then return 3; fi
    if [ "$try" -lt "$TRIES" ]; then
      log "failed (try $try of $TRIES): $(grep -E '^(E|W):' "$out" | tail -n 1 || true); again in $PAUSE s"
      sleep "$PAUSE"
    fi
  done
  return 1
}

in_root() {
  local r=$1; shift
  unshare --mount --propagation private -- bash -c '
    set -e
    r=$1; shift
    mount -t proc proc "$r/proc"
    mount --rbind /dev "$r/dev"
    mount -t tmpfs tmpfs "$r/tmp"
    exec chroot "$r" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive "$@"
  ' _ "$r" "$@"
}

no_services() {
  cat >"$1/usr/sbin/policy-rc.d" <<'P'
#!/bin/sh
exit 101
P
  chmod +x "$1/usr/sbin/policy-rc.d"
}

# The archive address the amd64 root was made from, as its own sources list
# holds it (debootstrap's default mirror: no address is written down here).
mirror_of_amd64() {
  awk '$1 == "deb" { for (i = 2; i <= NF; i++) if ($i ~ /^[a-z]+:\/\//) { print $i; exit } }' \
    "$BASE/amd64/etc/apt/sources.list"
}

fail_with() { log "$1"; tail -n 30 "$2" >&2; exit 1; }

# debootstrap_root ARCH DIR PACKAGES...: the signed way. Returns 3 on an index
# that doesn't match its Release file, exits on any other failure.
debootstrap_root() {
  local arch=$1 dir=$2; shift 2
  local status=0
  rm -rf "$dir"; mkdir -p "$dir"
  log "debootstrap --arch=$arch $SUITE (signed archive)"
  retry "$dir.log" debootstrap --arch="$arch" --variant=minbase "$SUITE" "$dir" || status=$?
  if [ "$status" = 3 ]; then return 3; fi
  [ "$status" = 0 ] || fail_with "debootstrap --arch=$arch failed" "$dir.log"
  # Only the main suite: the indexes of updates and security are not needed.
  rm -f "$dir/etc/apt/sources.list.d/"*
  no_services "$dir"
  log "installing packages into the $arch root"
  retry "$dir.log" in_root "$dir" apt-get update -qq || status=$?
  if [ "$status" = 3 ]; then return 3; fi
  [ "$status" = 0 ] || fail_with "apt-get update in the $arch root failed" "$dir.log"
  retry "$dir.log" in_root "$dir" apt-get install -y -qq --no-install-recommends "$@" ||
    fail_with "installing packages into the $arch root failed" "$dir.log"
  in_root "$dir" apt-get clean
  rm -f "$dir.log"
}

# flat_i386_root DIR PACKAGES...: the i386 root from the i386 index of the
# mirror as a flat repository, which carries no signature of its own.
flat_i386_root() {
  local dir=$1; shift
  local mirror list
  mirror=$(mirror_of_amd64)
  [ -n "$mirror" ] || { log "no archive address in $BASE/amd64/etc/apt/sources.list"; exit 1; }
  list=$(IFS=,; echo "$*")
  rm -rf "$dir"; mkdir -p "$dir"
  log "mmdebstrap --arch=i386 from the flat index dists/$SUITE/main/binary-i386/ (UNSIGNED: packages are checked against that index only)"
  retry "$dir.log" mmdebstrap --arch=i386 --variant=apt \
      --aptopt='Acquire::AllowInsecureRepositories "true"' \
      --include="$list" "$SUITE" "$dir" \
      "deb [trusted=yes] ${mirror%/} dists/$SUITE/main/binary-i386/" ||
    fail_with "mmdebstrap of the i386 root failed" "$dir.log"
  no_services "$dir"
  in_root "$dir" apt-get clean
  rm -f "$dir.log"
}

finish_root() {
  local dir=$1 final=$2 recipe=$3 how=$4
  echo "$recipe" >"$dir/$STAMP_NAME"
  echo "$how" >"$dir/.deskwright-source"
  refuse_if_mounted "$final"
  rm -rf "$final"
  mv "$dir" "$final"
}

# --- amd64: the build root ------------------------------------------------------
if ! is_made "$BASE/amd64" "$AMD64_RECIPE"; then
  start=$(date +%s)
  tmp="$BASE/amd64.partial"
  debootstrap_root amd64 "$tmp" "${AMD64_PACKAGES[@]}" ||
    fail_with "the signed amd64 archive doesn't match its Release file; no build root can be made from it" "$tmp.log"
  finish_root "$tmp" "$BASE/amd64" "$AMD64_RECIPE" signed
  log "amd64 root ready at $BASE/amd64 in $(( $(date +%s) - start )) s, $(du -sh "$BASE/amd64" | cut -f1)"
fi

# --- i386: the 32-bit runtime root ----------------------------------------------
if ! is_made "$BASE/i386" "$I386_RECIPE"; then
  start=$(date +%s)
  tmp="$BASE/i386.partial"
  how=signed
  status=0
  debootstrap_root i386 "$tmp" "${I386_PACKAGES[@]}" || status=$?
  if [ "$status" = 3 ]; then
    log "the signed i386 archive doesn't match its Release file:"
    grep -E "$MISMATCH" "$tmp.log" | head -n 3 | sed 's/^/[toolchain]   /' >&2
    log "falling back to the flat i386 index: this root only runs the 32-bit tests"
    rm -f "$tmp.log"
    flat_i386_root "$tmp" "${I386_PACKAGES[@]}"
    how=flat-unsigned
  fi
  finish_root "$tmp" "$BASE/i386" "$I386_RECIPE" "$how"
  log "i386 root ($how) ready at $BASE/i386 in $(( $(date +%s) - start )) s, $(du -sh "$BASE/i386" | cut -f1)"
fi
