#!/bin/sh
# dialog_session.sh prepare <wine-run> <prefix>
# dialog_session.sh run <wine-run> <prefix> <program> [arguments...]
# The credential dialog needs a Wine desktop on an X display, so its tests get a prefix of their own
# whose Wine processes all start under one Xvfb display.
set -u
mode=$1
winerun=$2
WINEPREFIX=$3
export WINEPREFIX
shift 3

case $mode in
prepare)
  "$winerun" cmd /c exit >/dev/null 2>&1
  # The server that made the prefix has no display; it must be gone before the tests start.
  timeout 60 wineserver -w
  ;;
run)
  timeout 60 wineserver -w
  exec xvfb-run -a -s "-screen 0 1280x1024x24" sh -c '"$@"; rc=$?; timeout 30 wineserver -w; exit $rc' sh \
    "$winerun" "$@"
  ;;
*)
  echo "usage: $0 prepare|run <wine-run> <prefix> [program arguments...]" >&2
  exit 2
  ;;
esac
