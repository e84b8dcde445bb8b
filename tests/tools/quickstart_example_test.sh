#!/bin/sh
# The README's example is examples/quickstart/main.cpp word for word; built against the installed package
# it downloads a file from the qvdlm_nginx fixture under Wine and writes its log; the installed qvdlm then
# finds its request in the library's own store. Usage: quickstart_example_test.sh <source> <build> <www> <port>
set -eu
source_dir=$1 build_dir=$2 www=$3 url=http://localhost:$4/hello.txt
work=$build_dir/test-work/quickstart run=$build_dir/wine-run
fail() { printf 'FAIL: %s\n' "$*"; exit 1; }
rm -rf "$work" && mkdir -p "$work/run" && cd "$work/run"
awk '/^```cpp$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source_dir/README.md" >readme.cpp
diff -u "$source_dir/examples/quickstart/main.cpp" readme.cpp || fail "README's example differs from main.cpp"
cmake --install "$build_dir" --prefix "$work/install" >/dev/null
cmake -S "$source_dir/examples/quickstart" -B "$work/build" -G Ninja -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/mingw-w64-x86_64.cmake" -DQvDLM_DIR="$work/install/lib/cmake/QvDLM" >/dev/null
cmake --build "$work/build" >/dev/null
[ -f "$work/build/QvDLMRes.dll" ] || fail "QvDLMRes.dll was not copied beside the program"
"$run" "$work/install/bin/qvdlm.exe" remove "$url" >/dev/null 2>&1 || true # left by an earlier run
out=$("$run" "$work/build/quickstart.exe" "$url" "$(printf 'Z:%s' "$work/dest" | tr / '\\')" 2>&1) || fail "$out"
printf "%s\n" "$out" | grep -q "state: download completed" || fail "no completion event: $out"
cmp "$www/hello.txt" "$work/dest/hello.txt"
iconv -f UTF-16LE -t UTF-8 quickstart.log | grep -q "=== Logging started ===" || fail "no UTF-16 log without BOM"
"$run" "$work/install/bin/qvdlm.exe" remove "$url" | grep -q "removed $url; its files stay" ||
  fail "qvdlm did not find the example's request in the library's store"
cd / && rm -rf "$work"
