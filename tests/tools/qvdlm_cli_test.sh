#!/bin/sh
# qvdlm.exe under Wine against the rate-limited nginx of the qvdlm_nginx fixture: a package of three blocks
# is stopped midway, resumed from its checkpoint and compared with its source; then a plain
# file and a 404 in one run, Ctrl+C in a real console (tmux), list, and the proxy lookup (the proxy tests' loopback proxies). Whatever
# needs no server or no real process is in QvdlmCliTest.cpp: each start of qvdlm.exe under Wine costs seconds.
# Usage: qvdlm_cli_test.sh <build dir> <qvdlm.exe> <www dir> <nginx access log> <port> <proxy port base>
set -eu
build=$1 qvdlm=$2 www=$3 access=$4 port=$5 proxy_base=$6
run=$build/wine-run work=$build/test-work/qvdlm-cli src=$build/test-work/qvdlm-cli/src
rm -rf "$work" "$www/pkg" && mkdir -p "$src/data" "$src/docs/a/b"
win() { printf 'Z:%s' "$1" | tr / '\\'; }
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }
# q RC ARGS...: runs qvdlm, which must end with exit status RC; its output is left in $out.
q() { want=$1 rc=0 && shift && out=$("$run" "$qvdlm" "$@" 2>&1 </dev/null) || rc=$?
  printf '$ qvdlm %s\n%s\n[exit %s]\n' "$*" "$out" "$rc" >>"$work/transcript.log"
  [ "$rc" = "$want" ] || fail "qvdlm $*: exit status $rc, expected $want: $out"; }
# has PATTERN...: every pattern (grep) is in the last output.
has() { for p; do printf '%s\n' "$out" | grep -q -- "$p" || fail "no \"$p\" in: $out"; done; }
# rows: lines "RC|ARGS|PATTERN|...": runs qvdlm with the ARGS (split at spaces), checks RC and patterns.
rows() { while IFS='|' read -r want args pats; do set -f; q "$want" $args; IFS='|'; has $pats; unset IFS; set +f; done; }
store=$(win "$work/store/download.info") dest=$(win "$work/dest")

head -c 12000000 /dev/urandom >"$src/data/random.bin"
for i in $(seq 200); do echo "note $i" >"$src/docs/a/b/note$i.txt"; done
: >"$src/docs/empty.txt"
# The package: GNU tar's stream in stored LZMA2 chunks (compressing random data takes long), in 5 MiB blocks.
tar -C "$src" -cf "$work/pkg.tar" . && mkdir -p "$www/pkg" && python3 -c 'import sys; d = sys.stdin.buffer.read()
sys.stdout.buffer.write(b"\x10" + b"".join(bytes([1 if i == 0 else 2]) + (len(d[i:i + 65536]) - 1).to_bytes(2, "big")
  + d[i:i + 65536] for i in range(0, len(d), 65536)) + b"\0")' <"$work/pkg.tar" >"$work/pkg.lzma2"
uncsize=$(wc -c <"$work/pkg.tar") csize=$(wc -c <"$work/pkg.lzma2")
blocks=$(( (csize + 5242879) / 5242880 ))
split -b 5M -a 3 --numeric-suffixes=1 --additional-suffix="_00$blocks.tar.lzma2" "$work/pkg.lzma2" "$www/pkg/pkg_"
url=http://localhost:$port/pkg/pkg_001_00$blocks.tar.lzma2

# ---- stopped by the byte limit after a few checkpoints; resumed from the last one ----
q 3 get "$url" --dest "$dest" --store "$store" --save-interval 1M --size "$csize" --unpacked-size "$uncsize" --stop-after 7M
has "stopped; progress is kept" "pkg: stopped at [0-9.]*% (" "pkg  downloading  "
before=$(wc -l <"$access")
q 0 resume --store "$store"
has "resume $url ([1-9]" "pkg: completed" "files in $(printf '%s' "$dest" | sed 's/\\/\\\\/g')"
tail -n +$((before + 1)) "$access" >"$work/resume-access.log"
grep -q 'GET /pkg/pkg_00[0-9]_[0-9]*\.tar\.lzma2 .* range="bytes=[1-9][0-9]*-"' "$work/resume-access.log" ||
  fail "resume asked for no range past the start: $(cat "$work/resume-access.log")"
grep -q 'GET /pkg/pkg_001_[0-9]*\.tar\.lzma2 .* range="bytes=0-"' "$work/resume-access.log" &&
  fail "resume fetched the first block from its start again: $(cat "$work/resume-access.log")"
diff -r "$src" "$work/dest" || fail "the unpacked tree differs from its source"

# ---- a plain file completes, a URL answers 404, a package lacks its last block (other failures:
# QvdlmCliTest.cpp) ----
for b in 1 2; do cp "$www/pkg/pkg_00${b}_00$blocks.tar.lzma2" "$www/pkg/gap_00${b}_00$blocks.tar.lzma2"; done
rows <<EOF
6|get http://localhost:$port/hello.txt http://localhost:$port/missing.bin http://localhost:$port/pkg/gap_001_00$blocks.tar.lzma2 --dest $(win "$work/plain") --store $store --log $(win "$work/get.log")|hello.txt: completed|files in .*plain\\\\hello.txt|missing.bin: 404 Not Found|gap: failed: block $blocks of $blocks: http://[^ ]*/gap_00${blocks}_00$blocks.tar.lzma2: 404 Not Found
EOF
cmp "$www/hello.txt" "$work/plain/hello.txt" && [ -s "$work/get.log" ] || fail "no hello.txt or no log"

# ---- Ctrl+C in a console of 60 columns (tmux): the completed package is fetched again and stopped; the
# line is redrawn from its start with the name kept, the "^C" the terminal echoed is gone ----
tmux="tmux -L qvdlm-test-$$" name=a-rather-long-package-name-for-narrow-consoles i=0
trap '$tmux kill-server 2>/dev/null || true' EXIT
$tmux new-session -d -x 60 -y 12 "trap true INT; '$run' '$qvdlm' get $url --name $name --dest '$(win "$work/dest2")' \
  --store '$store' --size $csize --save-interval 1M; echo EXIT \$?; sleep 60"
until $tmux capture-pane -p | grep -q 'B/s' || [ $i -ge 300 ]; do sleep 0.2; i=$((i + 1)); done
$tmux send-keys C-c
until $tmux capture-pane -p | grep -q '^EXIT' || [ $i -ge 600 ]; do sleep 0.2; i=$((i + 1)); done
out=$($tmux capture-pane -p) && $tmux kill-server
printf '%s\n' "$out" >>"$work/transcript.log"
has "^a-rather[^ ]*\.\.\.[^ ]*les  stopped  ~*[0-9.]*%  .* MiB$" "^stopped; progress is kept" "^EXIT 3"
printf '%s\n' "$out" | grep -q '\^C' && fail "the echoed ^C is still on the screen: $out"
ls -d "$work/dest2"/QV_* >/dev/null 2>&1 || fail "no working folder left after Ctrl+C"
q 0 list --store "$store"
has "^$url" "$name; stopped at [0-9.]*[1-9][0-9.]*% (" "hello.txt; completed, 13 B" "files in .*plain\\\\hello.txt"

# ---- proxy lookup: what the library finds, never a password ----
export http_proxy="http://127.0.0.1:$((proxy_base + 12))"
q 1 proxy "http://localhost:$((proxy_base + 13))/page"
has PM_STATUS_SILENT_MODE_ERROR "server 127.0.0.1 port $((proxy_base + 12))" "authentication Basic"
printf '%s\n' "$out" | grep -q S3cret && fail "the proxy lookup printed a password"
rm -rf "$work" "$www/pkg"
