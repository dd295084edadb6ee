#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs the
# package target for FUZZ_SECONDS (60) seconds from the committed seed
# corpus, with leak detection and a one-second limit per input. Any crash,
# leak or slow input fails. "tools/fuzz.sh corpus" rewrites the seed
# corpus with the library's own packages instead.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${FUZZ_BUILD_DIR:-build/fuzz}
mkdir -p "$(dirname "$dir")"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTOVREL_FUZZ=ON -DTOVREL_TESTS=OFF > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j "${FUZZ_JOBS:-$(nproc)}" --target package_fuzz package_corpus
if [ "${1:-}" = corpus ]; then
  rm -rf fuzz/corpus/package
  "$dir/fuzz/package_corpus" fuzz/corpus/package
  exit 0
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$dir/fuzz/package_fuzz" -max_total_time="${FUZZ_SECONDS:-60}" -timeout=1 -detect_leaks=1 \
  -print_final_stats=1 "$work" fuzz/corpus/package
