#!/usr/bin/env bash
# Runs the crash tests at every file call of their workloads instead of a
# sample, over more seeds (CRASH_SEEDS, 10 by default), and the child
# process crashes at every call too, on the Linux build; the same for the
# transient faults (a failed call, no descriptor, no memory at every point
# of the effect cache's workload); the searches side by side with writers
# killed (PARALLEL_KILLS writer processes, 300 by default) and with a
# writer's power cut at every call, also under ThreadSanitizer; prints what
# was run. CI runs a bounded sample of the same tests.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
dir=build/crash
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target package_tests effectcache_tests
export TOVREL_CRASH_EXHAUSTIVE=1 TOVREL_CRASH_SEEDS=${CRASH_SEEDS:-10} TOVREL_PARALLEL_KILLS=${PARALLEL_KILLS:-300}
for t in package effectcache; do
  filter=$([ "$t" = package ] && echo 'PackageCrash*' || echo 'EffectCacheCrash*:EffectCacheKill*:EffectCacheTransientFaults*:EffectCacheParallel*')
  "$dir/${t}_tests" --gtest_filter="$filter" --gtest_output="xml:$dir/$t-crash.xml"
  grep -oE 'name="[a-z0-9_]+" value="[0-9]+"' "$dir/$t-crash.xml" | sed 's/name="//; s/" value="/ = /; s/"$//'
done
tsan=build/tsan
cmake -S . -B "$tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVREL_TSAN=ON > "$tsan.configure.log" 2>&1 || {
  cat "$tsan.configure.log"; exit 1; }
cmake --build "$tsan" -j "$(nproc)" --target effectcache_tests
TSAN_OPTIONS="halt_on_error=1" "$tsan/effectcache_tests" --gtest_filter='EffectCacheParallel*' \
  --gtest_output="xml:$tsan/parallel-crash.xml"
grep -oE 'name="[a-z0-9_]+" value="[0-9]+"' "$tsan/parallel-crash.xml" | sed 's/name="//; s/" value="/ = /; s/"$//'
