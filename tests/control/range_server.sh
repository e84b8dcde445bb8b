#!/usr/bin/env bash
# Starts or stops the test file server of the download tests, by the process id it wrote.
# usage: range_server.sh start PORT WORKDIR | stop WORKDIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
case "$1" in
start)
  port=$2 work=$3
  mkdir -p "$work/www-control"
  python3 "$here/make_packages.py" "$work"
  rm -f "$work/range-server.pid" "$work/range-server.log"
  nohup python3 "$here/range_server.py" "$port" "$work/www-control" "$work/range-server.log" "$work/range-server.pid" \
    >"$work/range-server.out" 2>&1 &
  for _ in $(seq 1 100); do
    if [ -s "$work/range-server.pid" ] && python3 -c "import socket,sys; socket.create_connection(('127.0.0.1', $port), 0.2)" 2>/dev/null; then
      exit 0
    fi
    sleep 0.1
  done
  echo "range server did not start on port $port" >&2
  exit 1
  ;;
stop)
  work=$2
  if [ -s "$work/range-server.pid" ]; then
    kill "$(cat "$work/range-server.pid")" 2>/dev/null || true
    rm -f "$work/range-server.pid"
  fi
  ;;
esac
