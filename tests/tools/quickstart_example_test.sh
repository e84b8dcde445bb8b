#!/bin/sh
# The README's example: its code block must be examples/quickstart/main.cpp word for word, and that
# program must build against the installed package and download a file from the qvdlm_nginx fixture
# under Wine, writing its log.
# Usage: quickstart_example_test.sh <source dir> <build dir> <www dir> <port>
set -eu
source_dir=$1 build_dir=$2 www=$3 port=$4
work=$build_dir/test-work/quickstart
rm -rf "$work"
mkdir -p "$work/run"

awk '/^```cpp$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source_dir/README.md" >"$work/readme.cpp"
diff -u "$source_dir/examples/quickstart/main.cpp" "$work/readme.cpp" ||
  { echo "README's example differs from examples/quickstart/main.cpp"; exit 1; }

cmake --install "$build_dir" --prefix "$work/install" >/dev/null
cmake -S "$source_dir/examples/quickstart" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  -DQvDLM_DIR="$work/install/lib/cmake/QvDLM" >/dev/null
cmake --build "$work/build" >/dev/null
[ -f "$work/build/QvDLMRes.dll" ] || { echo "QvDLMRes.dll was not copied beside the program"; exit 1; }

dest=$(printf 'Z:%s' "$work/dest" | tr / '\\')
url=http://localhost:$port/hello.txt
# The example keeps its request in the library's own store, where an earlier run may have left it: the
# installed qvdlm forgets it first, and afterwards must find it there.
"$build_dir/wine-run" "$work/install/bin/qvdlm.exe" remove "$url" >/dev/null 2>&1 || true
cd "$work/run"
rc=0
out=$("$build_dir/wine-run" "$work/build/quickstart.exe" "$url" "$dest" 2>&1) || rc=$?
echo "$out"
[ "$rc" = 0 ] || { echo "quickstart exit status $rc"; exit 1; }
echo "$out" | grep -q "state: download completed" || { echo "no completion event"; exit 1; }
cmp "$www/hello.txt" "$work/dest/hello.txt"
# The log is UTF-16 without a byte-order mark.
iconv -f UTF-16LE -t UTF-8 "$work/run/quickstart.log" | grep -q "=== Logging started ===" ||
  { echo "quickstart.log holds no log"; exit 1; }
"$build_dir/wine-run" "$work/install/bin/qvdlm.exe" remove "$url" | grep -q "removed $url; its files stay" ||
  { echo "qvdlm did not find the example's request in the library's store"; exit 1; }
cd / && rm -rf "$work"
