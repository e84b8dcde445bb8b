#!/bin/sh
# dialog_driver.sh <status file> <action>...: answers the proxy credential dialogs on the X display, one
# action per dialog in order ("type:<user>:<password>" types both and presses Return, "cancel" presses
# Escape), then writes "ok", or why it gave up, to the status file. At most about 30 s per dialog.
status=$1
shift
title='^Connect to 127\.0\.0\.1$'
for action in "$@"; do
  i=0
  until win=$(xdotool search --onlyvisible --name "$title" 2>/dev/null | head -n 1) && [ -n "$win" ]; do
    i=$((i + 1))
    [ $i -gt 300 ] && { printf 'no dialog for %s\n' "$action" >"$status"; exit 1; }
    sleep 0.1
  done
  timeout 5 xdotool windowfocus --sync "$win" 2>/dev/null
  sleep 0.5
  case $action in
  cancel) xdotool key Escape ;;
  type:*) rest=${action#type:}
    xdotool type --delay 40 "${rest%%:*}" && xdotool key Tab && xdotool type --delay 40 "${rest#*:}" && xdotool key Return ;;
  esac
  # The next action is for the next dialog (Wine may reuse the X window, so this wait is bounded).
  i=0
  while [ $i -lt 20 ] && xdotool search --onlyvisible --name "$title" 2>/dev/null | grep -qx "$win"; do
    sleep 0.1
    i=$((i + 1))
  done
done
printf 'ok\n' >"$status"
