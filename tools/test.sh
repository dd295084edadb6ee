#!/usr/bin/env bash
# Builds Tovrel and runs every test: Linux, Linux under AddressSanitizer and
# UndefinedBehaviorSanitizer, the Windows cross-build under wine, and a
# minute of fuzzing (tools/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh

jobs=$(nproc)
export WINEDEBUG=-all
export CTEST_OUTPUT_ON_FAILURE=1

run() {  # name, cmake arguments...
  local dir="build/$1"; shift
  echo "=== $dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug "$@" > "$dir.configure.log" 2>&1 || {
    cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest -j "$jobs")
}

mkdir -p build
run linux
run sanitize -DTOVREL_SANITIZE=ON
wine wineboot --init > /dev/null 2>&1 || true
run windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
echo "=== fuzzing"
bash tools/fuzz.sh
echo "all test runs passed"
