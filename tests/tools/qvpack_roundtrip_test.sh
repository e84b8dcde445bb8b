#!/bin/sh
# qvpack.exe under Wine: GNU xz and tar must read its packages back into identical trees, one of an empty
# folder with the defaults and one of a varied tree in 1 MiB blocks, with a dictionary of odd property byte.
# Usage: qvpack_roundtrip_test.sh <build dir> <qvpack.exe>
set -eu
build=$1 qvpack=$2 work=$1/test-work/qvpack
rm -rf "$work" && mkdir -p "$work/empty" "$work/tree/many" "$work/tree/hollow" && cd "$work"
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }
deep=tree/long # past 255 characters: GNU long names
for i in 1 2 3 4 5 6; do deep="$deep/$(printf 'd%.0s' $(seq 40))_$i"; done
mkdir -p "$deep" && echo deep >"$deep/$(printf 'f%.0s' $(seq 120)).txt"
for i in $(seq 400); do echo "file $i" >"tree/many/f$i.txt"; done
head -c 6000000 /dev/urandom >tree/random.bin && head -c 512 /dev/urandom >tree/many/512.bin
head -c 1024 /dev/urandom >tree/many/1024.bin && : >tree/many/empty.txt && chmod 444 tree/many/f1.txt

# check TREE PROPERTY-BYTE [qvpack options]: packs TREE, unpacks it with xz (with the dictionary size the
# property byte gives) and tar, compares.
check() {
  tree=$1 prop=$2 && shift 2
  "$build/wine-run" "$qvpack" "$tree" "out-$tree" "$@" >"$tree.out" && tr -d '\r' <"$tree.out" >"$tree.log"
  cat "out-$tree"/*.tar.lzma2 >"$tree.pkg"
  [ "$(od -An -tx1 -N1 "$tree.pkg" | tr -d ' ')" = "$prop" ] || fail "$tree: property byte is not $prop"
  grep -qx "compressed size $(stat -c %s "$tree.pkg")" "$tree.log" || fail "$tree: compressed size misreported"
  p=$(printf %d "0x$prop")
  tail -c +2 "$tree.pkg" | xz -d --format=raw --lzma2=dict=$(((2 | (p & 1)) << (p / 2 + 11))) >"$tree.tar"
  grep -qx "uncompressed size $(stat -c %s "$tree.tar")" "$tree.log" || fail "$tree: tar size misreported"
  mkdir "x-$tree" && tar -xf "$tree.tar" -C "x-$tree"
  diff -r "$tree" "x-$tree" || fail "$tree: the extracted tree differs"
}
check empty 00 # the encoder shrinks the dictionary to the input
check tree 13 --block-size 1M --dict 3M --level 1
# One file without numbers; numbered blocks with the count last.
n=$(ls out-tree | wc -l)
[ "$(ls out-empty)" = empty.tar.lzma2 ] && [ "$n" -gt 1 ] || fail "names $(ls out-empty), $n blocks"
[ "$(ls out-tree)" = "$(seq -f "tree_%03g_$(printf %03d "$n").tar.lzma2" "$n")" ] || { ls out-tree; fail "block names"; }
cd / && rm -rf "$work"
