# Shared by the scripts in tools/ (sourced): which word sizes a command names,
# which toolchain root runs each, and where its build tree lies.

# bits_of all|32|64: the word sizes, or a usage line and failure.
bits_of() {
  case "$1" in
    all) echo "32 64" ;;
    32|64) echo "$1" ;;
    *) echo "usage: $(basename "$0") [32|64]" >&2; return 2 ;;
  esac
}

# root_of BITS: 32-bit Wine lives in the i386 root, everything else in amd64.
root_of() { if [ "$1" = 32 ]; then echo i386; else echo amd64; fi; }

# build_dir BITS: relative to the repository, which both roots mount at the
# same path (/tmp is a fresh tmpfs for every entry into a root).
build_dir() { echo "${DESKWRIGHT_BUILD_DIR:-build}/$1"; }

case "${DESKWRIGHT_BUILD_DIR:-}" in
  /*) echo "DESKWRIGHT_BUILD_DIR must be a folder relative to the repository" >&2; exit 2 ;;
esac
