#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each
# (package files, effect cache files, remote store answers, call programs
# of the C interface, maintenance operations on effect cache files) for
# FUZZ_SECONDS (60) seconds from its committed seed corpus, with leak
# detection and a one-second limit per input. Any crash, leak or slow
# input fails. "tools/fuzz.sh corpus"
# rewrites the seed files that the library itself makes instead; the
# inputs that longer campaigns found (minimised, named found-*) stay.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${FUZZ_BUILD_DIR:-build/fuzz}
mkdir -p "$(dirname "$dir")"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTOVREL_FUZZ=ON -DTOVREL_TESTS=OFF -DTOVREL_WERROR=ON > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
targets=(package effectcache remoteobject capi)
# The maintenance target runs every maintenance operation on the effect
# cache target's seeds (their last byte picks the operation).
fuzzed=("${targets[@]}" maintenance)
corpus_of() { if [ "$1" = maintenance ]; then echo effectcache; else echo "$1"; fi; }
for t in "${targets[@]}"; do
  cmake --build "$dir" -j "${FUZZ_JOBS:-$(nproc)}" --target "${t}_fuzz" "${t}_corpus"
done
cmake --build "$dir" -j "${FUZZ_JOBS:-$(nproc)}" --target maintenance_fuzz
if [ "${1:-}" = corpus ]; then
  for t in "${targets[@]}"; do
    mkdir -p "fuzz/corpus/$t"
    find "fuzz/corpus/$t" -type f ! -name 'found-*' -delete
    "$dir/fuzz/${t}_corpus" "fuzz/corpus/$t"
  done
  exit 0
fi
for t in "${fuzzed[@]}"; do
  work=$(mktemp -d)
  echo "--- fuzzing $t"
  "$dir/fuzz/${t}_fuzz" -max_total_time="${FUZZ_SECONDS:-60}" -timeout=1 -detect_leaks=1 \
    -print_final_stats=1 "$work" "fuzz/corpus/$(corpus_of "$t")"
  rm -rf "$work"
done
