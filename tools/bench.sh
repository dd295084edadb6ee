#!/usr/bin/env bash
# Builds Tovrel optimised and runs its benchmarks (Google Benchmark). Each
# benchmark reports its figure beside a baseline measured in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh
dir=build/bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTOVREL_TESTS=OFF -DTOVREL_BENCH=ON > /dev/null
cmake --build "$dir" -j "$(nproc)"
for b in "$dir"/bench/*_bench; do
  echo "=== $(basename "$b")"
  "$b" "$@"
done
