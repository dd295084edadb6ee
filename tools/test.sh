#!/usr/bin/env bash
# Builds Tovrel with warnings as errors and runs every test: Linux (Release),
# Linux under AddressSanitizer and UndefinedBehaviorSanitizer (Debug), the
# Windows cross-build under wine (Debug), and a minute of fuzzing
# (tools/fuzz.sh). The Linux and Windows builds are also installed and used
# from another project by their CTest test "install".
#
# Every test must run: a test case that skips fails the run unless
# tests/expected-skips.txt lists it for its system, with the reason, and a
# listed case that runs fails it too (tools/skips.py reads the reports the
# test programs write to build/*/test-results). CI=true makes a test whose
# servers or mounts cannot be had fail instead of skipping.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh

jobs=$(nproc)
export WINEDEBUG=-all
export CTEST_OUTPUT_ON_FAILURE=1
export CI=true

run() {  # name, system (linux or windows), build type, cmake arguments...
  local dir="build/$1" system=$2 type=$3; shift 3
  echo "=== $dir ($type)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DTOVREL_WERROR=ON "$@" > "$dir.configure.log" 2>&1 || {
    cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" -j "$jobs"
  rm -rf "$dir/test-results"
  (cd "$dir" && ctest -j "$jobs") | tee "$dir.ctest.log"
  passed=$((passed + $(grep -oE 'tests failed out of [0-9]+' "$dir.ctest.log" | grep -oE '[0-9]+$')))
  check_skips "$dir" "$system"
}

check_skips() {  # build folder, system
  local programs
  programs=$(cd "$1" && ctest -N | sed -nE 's/^ *Test +#[0-9]+: ([a-z_]+_tests)$/\1/p')
  python3 tools/skips.py "$2" "$1/test-results" tests/expected-skips.txt $programs | tee "$1.skips.log"
  skipped=$((skipped + $(sed -n 's/^skipped: //p' "$1.skips.log")))
}

# The tests of code that runs on several threads, under ThreadSanitizer:
# only the programs that hold them are built, and only those tests run.
tsan() {
  local dir=build/tsan
  echo "=== $dir (RelWithDebInfo, ThreadSanitizer)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVREL_WERROR=ON -DTOVREL_TSAN=ON > "$dir.configure.log" 2>&1 || {
    cat "$dir.configure.log"; exit 1; }
  cmake --build "$dir" -j "$jobs" --target platform_tests package_tests effectcache_tests capi_tests
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  "$dir/platform_tests" --gtest_brief=1 --gtest_filter='ReaderWriterLockTest.*:PositionalFileHandleTest.ReadAt*:MemoryFileSystemTest.ReadAt*'
  "$dir/package_tests" --gtest_brief=1 --gtest_filter='DirectStreamReaderTest.*'
  "$dir/effectcache_tests" --gtest_brief=1 \
    --gtest_filter='EffectCacheParallelTest.*:CacheFileLockTest.*:EffectCacheBackgroundTest.*:SearchSnapshotTest.*:EffectSaveWorkerTest.*:ScratchPoolTest.*:LibdeflateInflaterTest.*:ParallelJobsTest.*:EffectRemoteSyncTest.*:EffectRemoteStoreServerTest.*'
  # Host threads caching and searching while the worker saves.
  TOVREL_EFFECT_CACHE_BACKGROUND_SAVING=1 "$dir/effectcache_tests" --gtest_brief=1 \
    --gtest_filter='EffectCacheParallelTest.Threads*:EffectCacheParallelTest.Searches*'
  # The C interface's handles, found and closed from many threads.
  "$dir/capi_tests" --gtest_brief=1 --gtest_filter='CEffectCacheApiTest.Threads*:CHandleRegistryTest.*'
  unset TSAN_OPTIONS
  passed=$((passed + 5))
}

passed=0
skipped=0

mkdir -p build
run linux linux Release
run sanitize linux Debug -DTOVREL_SANITIZE=ON
tsan
# One wine server and its services for the whole Windows run, started here
# with their output going nowhere: otherwise the first test program starts
# them, they inherit that program's output, and ctest waits for them to end
# (after the last Windows program) before it counts that program as ended.
wineserver -p > /dev/null 2>&1 < /dev/null || true
wine wineboot --init > /dev/null 2>&1 < /dev/null || true
# The Windows tests cannot start Linux programs: the Linux test program
# serves nginx, the fault server and the team server for them while they
# run.
servers=$(mktemp -d)
build/linux/effectcache_tests --tovrel-child=remote_servers "$servers" > "$servers/log" 2>&1 &
for _ in $(seq 1 100); do [ -f "$servers/urls" ] && break; sleep 0.1; done
if [ -f "$servers/urls" ]; then
  { read -r TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL; read -r TOVREL_TEST_TEAM; } < "$servers/urls"
  export TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL TOVREL_TEST_TEAM
else
  echo "no test servers for the Windows run:"; cat "$servers/log"; exit 1
fi
# The toolchain by its full path: a build folder configured again keeps the
# path as given, and the install check configures another project with it.
run windows windows Debug -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake"
touch "$servers/stop"
wineserver -k > /dev/null 2>&1 || true
unset TOVREL_TEST_NGINX_URL TOVREL_TEST_FAULT_URL TOVREL_TEST_TEAM
echo "=== fuzzing (full output in build/fuzz.log)"
if ! bash tools/fuzz.sh > build/fuzz.log 2>&1; then
  tail -80 build/fuzz.log
  echo "fuzzing found a problem"
  exit 1
fi
grep -E '^(--- fuzzing|Done )' build/fuzz.log
passed=$((passed + $(grep -c '^Done ' build/fuzz.log)))
echo "all test runs passed"
echo "summary: $passed passed, 0 failed, $skipped skipped (each listed in tests/expected-skips.txt)"
