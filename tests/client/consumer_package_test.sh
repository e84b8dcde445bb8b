#!/bin/sh
# Installs the built tree, builds examples/consumer against it with find_package(QvDLM) and runs it
# under Wine: the installed package alone must be enough for a client.
set -eu
source_dir=$1
build_dir=$2
work=$build_dir/test-work/consumer
rm -rf "$work"
cmake --install "$build_dir" --prefix "$work/install" >/dev/null
cmake -S "$source_dir/examples/consumer" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/mingw-w64-x86_64.cmake" \
  -DQvDLM_DIR="$work/install/lib/cmake/QvDLM" >/dev/null
cmake --build "$work/build" >/dev/null
for f in bin/QvDLM.dll bin/LZMA.dll lib/QvDLM.dll.a include/qvdlm/QvDLM.h lib/cmake/QvDLM/QvDLMConfig.cmake; do
  [ -f "$work/install/$f" ] || { echo "missing from the installed tree: $f"; exit 1; }
done
out=$("$build_dir/wine-run" "$work/build/consumer.exe")
echo "$out"
echo "$out" | grep -q "token url: http://localhost/pkg.tar.lzma2?1060_"
echo "$out" | grep -q "state name: download play; error code: 1"
