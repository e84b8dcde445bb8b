#!/bin/sh
# qvdlm.exe under Wine against the rate-limited nginx of the qvdlm_nginx fixture: a package made by
# qvpack is fetched, stopped midway (by the byte limit and by a real SIGINT, which Wine turns into
# Ctrl+C), resumed from its checkpoint and compared with its source; list, remove, refused URLs and
# tokens are checked on the way. Every run uses a request store of its own.
# The proxy command is run against the loopback proxies of the proxy tests' fixture.
# Usage: qvdlm_cli_test.sh <build dir> <qvdlm.exe> <qvpack.exe> <www dir> <nginx access log> <port>
#        <port base of the proxy fixture>
set -eu
build=$1 qvdlm=$2 qvpack=$3 www=$4 access=$5 port=$6 proxy_base=$7
run=$build/wine-run
work=$build/test-work/qvdlm-cli
rm -rf "$work" "$www/pkg"
mkdir -p "$work"

win() { printf 'Z:%s' "$1" | tr / '\\'; }
fail() { echo "FAIL: $*"; exit 1; }
store=$(win "$work/store/download.info")

# q ARGS...: runs qvdlm; its output lands in $out, its exit status in $rc.
q() {
  rc=0
  out=$("$run" "$qvdlm" "$@" 2>&1) || rc=$?
  printf '$ qvdlm %s\n%s\n[exit %s]\n' "$*" "$out" "$rc" >>"$work/transcript.log"
}
expect_rc() { [ "$rc" = "$1" ] || { printf '%s\n' "$out"; fail "$2: exit status $rc, expected $1"; }; }
expect_out() { printf '%s\n' "$out" | grep -q -- "$1" || { printf '%s\n' "$out"; fail "$2: no \"$1\" in the output"; }; }
reject_out() { printf '%s\n' "$out" | grep -q -- "$1" && { printf '%s\n' "$out"; fail "$2: \"$1\" in the output"; }; return 0; }

# ---- a package of about 12 MB in blocks of 5 MiB ----
src=$work/src
mkdir -p "$src/data" "$src/docs/a/b"
head -c 12000000 /dev/urandom >"$src/data/random.bin"
i=0
while [ $i -lt 200 ]; do printf 'note %d\n' $i >"$src/docs/a/b/note$i.txt"; i=$((i + 1)); done
: >"$src/docs/empty.txt"
"$run" "$qvpack" "$(win "$src")" "$(win "$www/pkg")" --name pkg --block-size 5M --dict 1M --level 1 \
  --base-url "http://localhost:$port/pkg" >"$work/qvpack.log"
url=$(sed -n 's/^url //p' "$work/qvpack.log" | tr -d '\r')
csize=$(sed -n 's/^compressed size //p' "$work/qvpack.log" | tr -d '\r')
usize=$(sed -n 's/^uncompressed size //p' "$work/qvpack.log" | tr -d '\r')
[ -n "$url" ] && [ -n "$csize" ] || fail "qvpack gave no URL or size"
echo "package $url, $csize bytes"

# ---- get, stopped by the byte limit after a few checkpoints ----
dest=$work/dest
q get "$url" --dest "$(win "$dest")" --store "$store" --save-interval 1M --size "$csize" \
  --unpacked-size "$usize" --stop-after 7M
expect_rc 3 "interrupted get"
expect_out "stopped; progress is kept" "interrupted get"
expect_out "pkg: stopped at" "interrupted get"
expect_out "pkg  .*download play" "progress line"

q list --store "$store"
expect_rc 0 "list after stop"
expect_out "^$url" "list after stop"
expect_out "pkg; download paused; [0-9.]*% (" "list after stop"
reject_out " 0.0% (" "list after stop (no checkpoint recorded)"

q get "$url" --dest "$(win "$dest")" --store "$store"
expect_rc 1 "second get of a stored download"
expect_out "already stored" "second get of a stored download"

# ---- resume: must continue from the checkpoint, not from the start ----
before=$(wc -l <"$access")
q resume --store "$store"
expect_rc 0 "resume"
expect_out "resume $url ([1-9]" "resume"
expect_out "pkg: download completed" "resume"
expect_out "files in $(win "$dest" | sed 's/\\/\\\\/g')" "resume"
tail -n +$((before + 1)) "$access" >"$work/resume-access.log"
grep -q 'GET /pkg/pkg_00[0-9]_[0-9]*\.tar\.lzma2 .* range="bytes=[1-9][0-9]*-"' "$work/resume-access.log" ||
  { cat "$work/resume-access.log"; fail "resume asked for no range past the start"; }
grep -q 'GET /pkg/pkg_001_[0-9]*\.tar\.lzma2 .* range="bytes=0-"' "$work/resume-access.log" &&
  { cat "$work/resume-access.log"; fail "resume fetched the first block from its start again"; }
diff -r "$src" "$dest" || fail "the unpacked tree differs from its source"

q list --store "$store"
expect_out "pkg; download completed" "list after resume"

q resume --store "$store"
expect_rc 0 "resume with nothing left"
expect_out "completed earlier" "resume with nothing left"

# ---- remove by a prefix of the ID ----
q remove "http://localhost:$port/pkg/" --store "$store"
expect_rc 0 "remove"
expect_out "removed $url; its files stay" "remove"
q list --store "$store"
expect_out "no stored downloads" "list after remove"
[ -f "$dest/data/random.bin" ] || fail "remove deleted completed files"
q remove "http://localhost:$port/nothing" --store "$store"
expect_rc 1 "remove of an unknown ID"
expect_out "no stored download has the ID" "remove of an unknown ID"

# ---- a plain file ----
q get "http://localhost:$port/hello.txt" --dest "$(win "$work/plain")" --store "$store"
expect_rc 0 "plain get"
expect_out "files in .*plain\\\\hello.txt" "plain get"
cmp "$www/hello.txt" "$work/plain/hello.txt" || fail "plain file differs"

# ---- refused URLs, with the library's texts ----
q get "http://localhost:$port/missing.bin" --dest "$(win "$work/bad")" --store "$store"
expect_rc 1 "missing file"
expect_out "missing.bin: open failure" "missing file"
expect_out "HTTP status: 404" "missing file"

q get "http://127.0.0.1:$port/hello.txt" --dest "$(win "$work/bad")" --store "$store"
expect_rc 1 "untrusted host"
expect_out "open failure" "untrusted host"
expect_out "validateUrlDomain failed for URL: http://127.0.0.1:$port/hello.txt" "untrusted host"

q get "ftp://localhost/x" --store "$store"
expect_rc 1 "not an HTTP URL"
expect_out "not an http:// or https:// URL" "not an HTTP URL"
q get "http://localhost/x" --max-active 999
expect_rc 2 "bad option value"

# ---- Ctrl+C: Wine turns SIGINT to the process group into a console control event ----
: >"$work/sigint.log"
setsid "$run" "$qvdlm" get "$url" --dest "$(win "$work/dest2")" --store "$store" --save-interval 1M \
  >"$work/sigint.log" 2>&1 </dev/null &
pid=$!
i=0
until grep -q " [1-9][0-9.]* MiB of .*download play" "$work/sigint.log" || [ $i -ge 200 ]; do sleep 0.1; i=$((i + 1)); done
kill -INT "-$pid"
rc=0
wait "$pid" || rc=$?
out=$(cat "$work/sigint.log")
printf '$ qvdlm get %s (SIGINT)\n%s\n[exit %s]\n' "$url" "$out" "$rc" >>"$work/transcript.log"
expect_rc 3 "Ctrl+C"
expect_out "stopped; progress is kept" "Ctrl+C"
ls -d "$work/dest2"/QV_* >/dev/null 2>&1 || fail "no working folder left after Ctrl+C"

q remove "$url" --store "$store"
expect_rc 0 "remove of a stopped download"
expect_out "partial files deleted" "remove of a stopped download"
ls -d "$work/dest2"/QV_* >/dev/null 2>&1 && fail "remove left the working folder behind"

# ---- tokens, checked against an independent MD5 ----
q token "http://localhost/pkg.tar.lzma2" --key 736563726574 --start 1000 --lifetime 60
expect_rc 0 "token"
want=$(python3 -c '
import hashlib, struct
url, key = b"http://localhost/pkg.tar.lzma2", b"secret"
inner = hashlib.md5(struct.pack("<I", 1060) + url + key).digest()
print("http://localhost/pkg.tar.lzma2?1060_" + hashlib.md5(key + inner).hexdigest())')
[ "$out" = "$want" ] || fail "token URL $out, expected $want"
q token "http://localhost/a?b=1" --key 6b --param abcd
expect_rc 1 "token with a short parameter name"
expect_out "code -101" "token with a short parameter name"
q token "http://localhost/a" --key 6b0
expect_rc 2 "token with an odd key"

# ---- proxy lookup: what the library finds, never a password ----
export http_proxy="http://127.0.0.1:$((proxy_base + 14))"
q proxy "http://localhost:$((proxy_base + 13))/page"
expect_rc 0 "proxy without authentication"
expect_out "PM_STATUS_OK" "proxy without authentication"
expect_out "server 127.0.0.1 port $((proxy_base + 14))" "proxy without authentication"
expect_out "authentication none" "proxy without authentication"
export http_proxy="http://127.0.0.1:$((proxy_base + 12))"
q proxy "http://localhost:$((proxy_base + 13))/page"
expect_rc 1 "proxy asking for Basic credentials"
expect_out "PM_STATUS_SILENT_MODE_ERROR" "proxy asking for Basic credentials"
expect_out "authentication Basic" "proxy asking for Basic credentials"
reject_out "S3cret" "proxy asking for Basic credentials"
unset http_proxy

rm -rf "$work" "$www/pkg"
echo "qvdlm end to end: ok"
