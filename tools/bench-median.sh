#!/usr/bin/env bash
# Builds the effect cache benchmark optimised, runs its combined benchmark
# (save and cold search beside compress2, uncompress, libdeflate, SQLite,
# LMDB and LevelDB, the peers decoding with zlib and with libdeflate) N times, 5 unless told, and prints every counter of every run
# with its median: the figures of the README table. The load before each
# run is printed too: the machine may be shared.
# Usage: tools/bench-median.sh [N [benchmark options...]]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
[ $# -gt 0 ] && shift
if ! [[ "$runs" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $0 [N [benchmark options...]]" >&2
  exit 2
fi
bash tools/setup.sh
dir=build/bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTOVREL_TESTS=OFF -DTOVREL_BENCH=ON > /dev/null
cmake --build "$dir" -j "$(nproc)" --target effectcache_bench > /dev/null
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for i in $(seq "$runs"); do
  echo "run $i of $runs, load:$(uptime | sed 's/.*load average://')"
  if ! "$dir/bench/effectcache_bench" --benchmark_filter='^BM_EffectCacheSaveAndSearch/' \
      --benchmark_out="$out/$i.csv" --benchmark_out_format=csv "$@" > "$out/$i.log" 2>&1; then
    cat "$out/$i.log" >&2
    exit 1
  fi
done
# Each CSV holds a header line (name, ..., error_message, then the counters)
# and one line of figures.
awk -F, -v runs="$runs" '
  FNR == 1 { run++ }
  /^name,/ { for (c = 11; c <= NF; c++) { gsub(/"/, "", $c); name[c] = $c }; last = NF; next }
  /^"BM_/ { for (c = 11; c <= last; c++) value[c, run] = $c }
  END {
    printf "%-22s", "counter"
    for (r = 1; r <= runs; r++) printf " %10s", "run " r
    printf " %10s\n", "median"
    for (c = 11; c <= last; c++) {
      n = 0
      for (r = 1; r <= runs; r++) if ((c, r) in value) sorted[++n] = value[c, r] + 0
      for (i = 2; i <= n; i++) {
        v = sorted[i]
        for (j = i - 1; j >= 1 && sorted[j] > v; j--) sorted[j + 1] = sorted[j]
        sorted[j + 1] = v
      }
      median = n % 2 ? sorted[(n + 1) / 2] : (sorted[n / 2] + sorted[n / 2 + 1]) / 2
      printf "%-22s", name[c]
      for (r = 1; r <= runs; r++) printf " %10.4g", value[c, r]
      printf " %10.4g\n", median
    }
  }' $(for i in $(seq "$runs"); do echo "$out/$i.csv"; done)
