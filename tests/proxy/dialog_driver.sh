#!/bin/sh
# dialog_driver.sh <status file> <action>...
# Answers the proxy credential dialogs of the test program on the X display, one action per dialog, in
# order: "type:<user>:<password>" types both and presses Return, "cancel" presses Escape. Writes "ok" or
# the reason it gave up to the status file. Bounded: about 30 s of waiting per dialog.
status=$1
shift
title='^Connect to 127\.0\.0\.1$'
for action in "$@"; do
  win=""
  i=0
  while [ $i -lt 300 ]; do
    win=$(xdotool search --onlyvisible --name "$title" 2>/dev/null | head -n 1)
    [ -n "$win" ] && break
    sleep 0.1
    i=$((i + 1))
  done
  if [ -z "$win" ]; then
    printf 'no dialog for %s\n' "$action" >"$status"
    exit 1
  fi
  timeout 5 xdotool windowfocus --sync "$win" 2>/dev/null
  sleep 0.5
  case $action in
  cancel)
    xdotool key Escape
    ;;
  type:*)
    rest=${action#type:}
    user=${rest%%:*}
    password=${rest#*:}
    xdotool type --delay 40 "$user"
    xdotool key Tab
    xdotool type --delay 40 "$password"
    xdotool key Return
    ;;
  *)
    printf 'unknown action %s\n' "$action" >"$status"
    exit 2
    ;;
  esac
  # The next action belongs to the next dialog: let this one go (Wine may reuse its X window for
  # the next one, so waiting for the window to vanish is bounded).
  i=0
  while [ $i -lt 20 ] && xdotool search --onlyvisible --name "$title" 2>/dev/null | grep -qx "$win"; do
    sleep 0.1
    i=$((i + 1))
  done
done
printf 'ok\n' >"$status"
