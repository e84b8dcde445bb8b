#!/bin/sh
# qvpack.exe (run under Wine) on several trees; GNU tar and xz must read its output back identically.
set -eu
build_dir=$1
qvpack=$2
work=$build_dir/test-work/qvpack
rm -rf "$work"
mkdir -p "$work"
cd "$work"

make_trees() {
  mkdir -p empty
  mkdir -p huge && head -c 24000000 /dev/urandom > huge/one.bin
  deep=long
  i=0
  while [ $i -lt 6 ]; do deep="$deep/$(printf 'd%.0s' $(seq 1 40))_$i"; i=$((i + 1)); done
  mkdir -p "$deep" && echo deep > "$deep/$(printf 'f%.0s' $(seq 1 120)).txt"
  mkdir -p many && i=0
  while [ $i -lt 400 ]; do printf 'file %d\n' $i > "many/f$i.txt"; i=$((i + 1)); done
  head -c 512 /dev/urandom > many/exactly512.bin && head -c 1024 /dev/urandom > many/exactly1024.bin
  : > many/empty.txt
  chmod 444 many/f1.txt
}

check() { # tree block-size dict [qvpack options]
  tree=$1 block=$2 dict=$3
  shift 3
  out=out-$tree
  if [ "$block" = 0 ]; then
    "$build_dir/wine-run" "$qvpack" "$tree" "$out" --dict "$dict" "$@" > "$tree.log"
  else
    "$build_dir/wine-run" "$qvpack" "$tree" "$out" --dict "$dict" --block-size "$block" "$@" > "$tree.log"
  fi
  cat "$out"/*.tar.lzma2 > "$tree.pkg"
  size=$(stat -c %s "$tree.pkg")
  grep -q "compressed size $size" "$tree.log" || { echo "$tree: compressed size not reported as $size"; exit 1; }
  tail -c +2 "$tree.pkg" | xz -d --format=raw --lzma2=dict="$dict" > "$tree.tar"
  grep -q "uncompressed size $(stat -c %s "$tree.tar")" "$tree.log" || { echo "$tree: tar size differs"; exit 1; }
  mkdir -p "x-$tree"
  tar -xf "$tree.tar" -C "x-$tree"
  diff -r "$tree" "x-$tree" || { echo "$tree: extracted tree differs"; exit 1; }
  echo "$tree: ok ($(ls "$out" | wc -l) files)"
}

make_trees
check empty 0 64KiB
check huge 5MiB 8MiB --level 1
check long 0 1MiB
check many 100KiB 64KiB
# Numbered block names with the count last.
ls out-huge | grep -qx 'huge_001_005.tar.lzma2' || { ls out-huge; exit 1; }
ls out-huge | grep -qx 'huge_005_005.tar.lzma2'
cd / && rm -rf "$work"
