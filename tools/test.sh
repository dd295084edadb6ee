#!/usr/bin/env bash
# Builds Tovrel with warnings as errors and runs every test: Linux (Release),
# Linux under AddressSanitizer and UndefinedBehaviorSanitizer (Debug), the
# Windows cross-build under wine (Debug), and a minute of fuzzing
# (tools/fuzz.sh). The Linux and Windows builds are also installed and used
# from another project by their CTest test "install".
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh

jobs=$(nproc)
export WINEDEBUG=-all
export CTEST_OUTPUT_ON_FAILURE=1

run() {  # name, build type, cmake arguments...
  local dir="build/$1" type=$2; shift 2
  echo "=== $dir ($type)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DTOVREL_WERROR=ON "$@" > "$dir.configure.log" 2>&1 || {
    cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest -j "$jobs") | tee "$dir.ctest.log"
  passed=$((passed + $(grep -oE 'tests failed out of [0-9]+' "$dir.ctest.log" | grep -oE '[0-9]+$')))
}

passed=0

mkdir -p build
run linux Release
run sanitize Debug -DTOVREL_SANITIZE=ON
wine wineboot --init > /dev/null 2>&1 || true
# The Windows tests cannot start Linux programs: the Linux test program
# serves nginx and the fault server for them while they run.
servers=$(mktemp -d)
build/linux/effectcache_tests --tovrel-child=remote_servers "$servers" > "$servers/log" 2>&1 &
for _ in $(seq 1 100); do [ -f "$servers/urls" ] && break; sleep 0.1; done
if [ -f "$servers/urls" ]; then
  read -r TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL < "$servers/urls"
  export TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL
else
  echo "no test servers for the Windows run:"; cat "$servers/log"; exit 1
fi
run windows Debug -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
touch "$servers/stop"
unset TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL
echo "=== fuzzing (full output in build/fuzz.log)"
if ! bash tools/fuzz.sh > build/fuzz.log 2>&1; then
  tail -80 build/fuzz.log
  echo "fuzzing found a problem"
  exit 1
fi
grep -E '^(--- fuzzing|Done )' build/fuzz.log
passed=$((passed + $(grep -c '^Done ' build/fuzz.log)))
echo "all test runs passed"
echo "summary: $passed passed, 0 failed"
