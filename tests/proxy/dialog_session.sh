#!/bin/sh
# dialog_session.sh prepare|run <wine-run> <prefix> [program arguments...]
# The credential dialog needs a Wine desktop on an X display: its tests get a prefix of their own whose
# Wine processes all start under one Xvfb display ("prepare" makes the prefix, whose server has none).
set -u
mode=$1 winerun=$2
export WINEPREFIX=$3
shift 3
if [ "$mode" = prepare ]; then
  "$winerun" cmd /c exit >/dev/null 2>&1
  exec timeout 60 wineserver -w
fi
timeout 60 wineserver -w
exec xvfb-run -a -s "-screen 0 1280x1024x24" sh -c '"$@"; rc=$?; timeout 30 wineserver -w; exit $rc' sh "$winerun" "$@"
