#!/usr/bin/env bash
# Runs the Windows test executables of one suite (32 or 64 bits) under Wine,
# on an Xvfb display and in a Wine prefix of that suite's own, both in /tmp.
#
#   suite.sh setup BITS [EXE]    start the display and make a fresh prefix
#                                (EXE: the test target, kept running hidden)
#   suite.sh run BITS EXE ARGS   run one test executable
#   suite.sh cleanup BITS        stop Wine and the display
set -u
cmd=$1 bits=$2; shift 2
# Several suites may run at once, each in its own /tmp but all in one network
# namespace, where an X server also listens on an abstract socket that every
# client tries first: a second server with the same number would lose its
# clients to the first. So the display server takes the first number that is
# free everywhere, unless DESKWRIGHT_DISPLAY names one.
export WINEPREFIX=/tmp/deskwright-wine-$bits
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
state=/tmp/deskwright-suite-$bits
[ -s "$state/display" ] && export DISPLAY=:$(cat "$state/display")

case "$cmd" in
setup)
  mkdir -p "$state"
  if [ -f "$state/xvfb.pid" ] && kill -0 "$(cat "$state/xvfb.pid")" 2>/dev/null; then :; else
    rm -f "$state/display"
    if [ -n "${DESKWRIGHT_DISPLAY:-}" ]; then
      rm -f "/tmp/.X$DESKWRIGHT_DISPLAY-lock"
      echo "$DESKWRIGHT_DISPLAY" >"$state/display"
      Xvfb ":$DESKWRIGHT_DISPLAY" -screen 0 1280x1024x24 -nolisten tcp >"$state/xvfb.log" 2>&1 &
    else
      exec {chosen}>"$state/display"
      Xvfb -displayfd "$chosen" -screen 0 1280x1024x24 -nolisten tcp >"$state/xvfb.log" 2>&1 &
      exec {chosen}>&-
    fi
    echo $! >"$state/xvfb.pid"
    for _ in $(seq 100); do
      [ -s "$state/display" ] && [ -e "/tmp/.X11-unix/X$(cat "$state/display")" ] && break
      sleep 0.1
    done
    [ -s "$state/display" ] || { echo "no display server"; cat "$state/xvfb.log"; exit 1; }
    export DISPLAY=:$(cat "$state/display")
  fi
  # A setup again (a repeated run) first ends the Wine of the last one: its
  # server and services would outlive the prefix they lost.
  if [ -d "$WINEPREFIX" ]; then
    [ -f "$state/keep-alive.pid" ] && kill "$(cat "$state/keep-alive.pid")" 2>/dev/null
    wineserver -k </dev/null >/dev/null 2>&1
    wineserver -w </dev/null >/dev/null 2>&1
  fi
  rm -rf "$WINEPREFIX"
  wineboot -i >"$state/wineboot.log" 2>&1 || { cat "$state/wineboot.log"; exit 1; }
  wineserver -w </dev/null >/dev/null 2>&1
  # Keep one server alive for the whole suite, so that each test starts fast,
  # and let a first process start Wine's own services under it now: started
  # by a test, they would inherit its output and hold it open.
  wineserver -p </dev/null >/dev/null 2>&1
  wine cmd /c exit </dev/null >/dev/null 2>&1
  # Likewise the desktop process that the first window of the prefix brings
  # up, and that ends again soon after the last window process has: a
  # program with a hidden window (suite.sh setup BITS EXE) starts it now and
  # keeps it for the whole suite; cleanup ends both.
  if [ -n "${1:-}" ]; then
    wine "$1" --hidden keep-alive </dev/null >"$state/keep-alive.log" 2>&1 &
    echo $! >"$state/keep-alive.pid"
    for _ in $(seq 200); do grep -q '^window' "$state/keep-alive.log" && break; sleep 0.1; done
  fi
  echo "wine prefix $WINEPREFIX on display $DISPLAY"
  ;;
run)
  exe=$1; shift
  exec wine "$exe" "$@"
  ;;
cleanup)
  [ -f "$state/keep-alive.pid" ] && kill "$(cat "$state/keep-alive.pid")" 2>/dev/null
  wineserver -k 2>/dev/null
  [ -f "$state/xvfb.pid" ] && kill "$(cat "$state/xvfb.pid")" 2>/dev/null
  rm -rf "$state"
  exit 0
  ;;
*)
  echo "usage: suite.sh setup|run|cleanup BITS ..." >&2; exit 2 ;;
esac
