#!/bin/sh
# qvdlm.exe under Wine against the rate-limited nginx of the qvdlm_nginx fixture: a package of three blocks
# made by qvpack is stopped midway, resumed from its checkpoint and compared with its source; then every
# exit status with the library's texts, Ctrl+C, and the proxy lookup (the proxy tests' loopback proxies).
# Usage: qvdlm_cli_test.sh <build dir> <qvdlm.exe> <qvpack.exe> <www dir> <nginx access log> <port> <proxy port base>
set -eu
build=$1 qvdlm=$2 qvpack=$3 www=$4 access=$5 port=$6 proxy_base=$7
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
store=$(win "$work/store/download.info") dest=$(win "$work/dest") bad=$(win "$work/bad")

head -c 12000000 /dev/urandom >"$src/data/random.bin"
for i in $(seq 200); do echo "note $i" >"$src/docs/a/b/note$i.txt"; done
: >"$src/docs/empty.txt"
"$run" "$qvpack" "$(win "$src")" "$(win "$www/pkg")" --name pkg --block-size 5M --dict 1M --level 1 \
  --base-url "http://localhost:$port/pkg" | tr -d '\r' >"$work/qvpack.log"
eval "$(sed -n 's/^url \(http[^ ]*\)$/url=\1/p; s/^\(un\)*compressed size \([0-9]*\)$/\1csize=\2/p' "$work/qvpack.log")"
[ -n "${url:-}" ] && [ -n "${csize:-}" ] && [ -n "${uncsize:-}" ] || fail "qvpack gave no URL or sizes"

# ---- stopped by the byte limit after a few checkpoints; resumed from the last one ----
rows <<EOF
3|get $url --dest $dest --store $store --save-interval 1M --size $csize --unpacked-size $uncsize --stop-after 7M|stopped; progress is kept|pkg: stopped at|pkg  .*download play
0|list --store $store|^$url|pkg; download paused; [0-9.]*[1-9][0-9.]*% (
EOF
before=$(wc -l <"$access")
q 0 resume --store "$store"
has "resume $url ([1-9]" "pkg: download completed" "files in $(printf '%s' "$dest" | sed 's/\\/\\\\/g')"
tail -n +$((before + 1)) "$access" >"$work/resume-access.log"
grep -q 'GET /pkg/pkg_00[0-9]_[0-9]*\.tar\.lzma2 .* range="bytes=[1-9][0-9]*-"' "$work/resume-access.log" ||
  fail "resume asked for no range past the start: $(cat "$work/resume-access.log")"
grep -q 'GET /pkg/pkg_001_[0-9]*\.tar\.lzma2 .* range="bytes=0-"' "$work/resume-access.log" &&
  fail "resume fetched the first block from its start again: $(cat "$work/resume-access.log")"
diff -r "$src" "$work/dest" || fail "the unpacked tree differs from its source"

# ---- exit statuses: 0 done, 1 failed (with the library's texts), 2 bad command line ----
token=$(python3 -c 'import hashlib, struct; u, k = b"http://localhost/p.tar.lzma2", b"secret"
print(u.decode() + "?1060_" + hashlib.md5(k + hashlib.md5(struct.pack("<I", 1060) + u + k).digest()).hexdigest())')
rows <<EOF
0|get http://localhost:$port/x.bin --file hello.txt --dest $(win "$work/plain") --store $store --name greeting --log $(win "$work/get.log") --timeout 60|greeting: download completed|files in .*plain\\\\hello.txt
0|list --store $store|pkg; download completed|greeting; download completed
0|resume --store $store|pkg: completed earlier
1|get $url --dest $dest --store $store|already stored
1|remove http://localhost:$port/ --store $store|names more than one stored download
0|remove http://localhost:$port/pkg/ --store $store|removed $url; its files stay
1|remove http://localhost:$port/nothing --store $store|no stored download has the ID
1|get ftp://localhost/x --store $store|not an http:// or https:// URL
1|get http://localhost:$port/missing.bin --dest $bad --store $store|missing.bin: open failure|HTTP status: 404
1|get http://127.0.0.1:$port/hello.txt --dest $bad --store $store|open failure|validateUrlDomain failed for URL: http://127.0.0.1:$port/hello.txt
0|token http://localhost/p.tar.lzma2 --key 736563726574 --start 1000 --lifetime 60|^$token\$
1|token http://localhost/a?b=1 --key 6b --param abcd|code -101
2|token http://localhost/a --key 6b0|even number
2|token http://localhost/a --key 6b00|zero byte
2|get http://localhost/x --max-active 999|--max-active
0|help|qvdlm resume
EOF
cmp "$www/hello.txt" "$work/plain/hello.txt" && [ -s "$work/get.log" ] || fail "no hello.txt or no log"
[ -f "$work/dest/data/random.bin" ] || fail "remove deleted completed files"

# ---- Ctrl+C (Wine turns SIGINT to the process group into a console event); remove deletes what is left ----
setsid "$run" "$qvdlm" get "$url" --dest "$(win "$work/dest2")" --store "$store" >"$work/sigint.log" 2>&1 </dev/null &
pid=$! i=0 rc=0
until grep -q " [1-9][0-9.]* MiB of .*download play" "$work/sigint.log" || [ $i -ge 200 ]; do sleep 0.1; i=$((i + 1)); done
kill -INT "-$pid"
wait "$pid" || rc=$?
out=$(cat "$work/sigint.log")
[ "$rc" = 3 ] || fail "Ctrl+C: exit status $rc, expected 3: $out"
has "stopped; progress is kept"
ls -d "$work/dest2"/QV_* >/dev/null 2>&1 || fail "no working folder left after Ctrl+C"
q 0 remove "$url" --store "$store"
has "partial files deleted"
ls -d "$work/dest2"/QV_* >/dev/null 2>&1 && fail "remove left the working folder behind"

# ---- proxy lookup: what the library finds, never a password ----
export http_proxy="http://127.0.0.1:$((proxy_base + 14))"
q 0 proxy "http://localhost:$((proxy_base + 13))/page"
has PM_STATUS_OK "server 127.0.0.1 port $((proxy_base + 14))" "authentication none"
export http_proxy="http://127.0.0.1:$((proxy_base + 12))"
q 1 proxy "http://localhost:$((proxy_base + 13))/page"
has PM_STATUS_SILENT_MODE_ERROR "authentication Basic"
printf '%s\n' "$out" | grep -q S3cret && fail "the proxy lookup printed a password"
rm -rf "$work" "$www/pkg"
