#!/bin/sh
# proxy_servers.sh start|stop <pid file> <port base>
# Starts the loopback proxies and origin of the proxy tests, or stops exactly the process it started.
set -eu
action=$1
pidfile=$2
base=${3:-18600}
here=$(dirname "$0")

case $action in
start)
  if [ -f "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; then
    kill "$(cat "$pidfile")" 2>/dev/null || true
    sleep 0.5
  fi
  log=${pidfile%.pid}.log
  python3 "$here/proxy_servers.py" "$base" >"$log" 2>&1 &
  echo $! >"$pidfile"
  # Ready when it says so; give up after about ten seconds.
  i=0
  while [ $i -lt 100 ]; do
    if grep -qx "proxy servers listening" "$log" 2>/dev/null; then
      exit 0
    fi
    if ! kill -0 "$(cat "$pidfile")" 2>/dev/null; then
      cat "$log" >&2
      exit 1
    fi
    sleep 0.1
    i=$((i + 1))
  done
  echo "proxy servers did not start" >&2
  kill "$(cat "$pidfile")" 2>/dev/null || true
  exit 1
  ;;
stop)
  if [ -f "$pidfile" ]; then
    pid=$(cat "$pidfile")
    kill "$pid" 2>/dev/null || true
    i=0
    while kill -0 "$pid" 2>/dev/null && [ $i -lt 50 ]; do
      sleep 0.1
      i=$((i + 1))
    done
    kill -9 "$pid" 2>/dev/null || true
    rm -f "$pidfile"
  fi
  ;;
*)
  echo "usage: $0 start|stop <pid file> <port base>" >&2
  exit 2
  ;;
esac
