#!/bin/sh
# dialog_driver.sh <status file> <action>...: answers the proxy credential dialogs on the X display, one action per
# dialog ("type:<user>:<password>" types both, then Return; "cancel": Escape); writes "ok" or why it gave up. ~30 s each.
status=$1
shift
title='^Connect to 127\.0\.0\.1$'
for action in "$@"; do
  i=0
  until win=$(xdotool search --onlyvisible --name "$title" 2>/dev/null | head -n 1) && [ -n "$win" ]; do
    i=$((i + 1)) && [ $i -le 300 ] || { echo "no dialog for $action" >"$status"; exit 1; }
    sleep 0.1
  done
  timeout 5 xdotool windowfocus --sync "$win" 2>/dev/null
  sleep 0.5
  rest=${action#type:}
  [ "$action" = cancel ] && xdotool key Escape
  [ "$rest" != "$action" ] && xdotool type --delay 40 "${rest%%:*}" && xdotool key Tab &&
    xdotool type --delay 40 "${rest#*:}" && xdotool key Return
  # The next action is for the next dialog (Wine may reuse the X window, so this wait is bounded).
  for i in $(seq 20); do xdotool search --onlyvisible --name "$title" 2>/dev/null | grep -qx "$win" || break; sleep 0.1; done
done
echo ok >"$status"
