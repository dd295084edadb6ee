#!/usr/bin/env bash
# Profiles one phase of the library in the effect cache benchmark with
# perf: the save (cache every effect, then ForceSaveToFile) or the cold
# search (a new cache object looks up every name). perf records with DWARF
# call graphs only while the phase runs (PerfPhase in the benchmark
# switches it on and off through perf's control fifo), over the Release
# build, and the top entries by self time and by time with children are
# printed. The recording stays in build/profiles/PHASE.data for perf report.
# Usage: tools/bench-profile.sh save|search [entries]
set -euo pipefail
cd "$(dirname "$0")/.."
phase=${1:-}
entries=${2:-12}
case "$phase" in
  save) filter='^BM_EffectCacheSaveOnly/' ;;
  search) filter='^BM_EffectCacheSearchOnly/' ;;
  *) echo "usage: $0 save|search [entries]" >&2; exit 2 ;;
esac
bash tools/setup.sh
command -v perf > /dev/null || { [ "$(id -u)" -eq 0 ] && DEBIAN_FRONTEND=noninteractive apt-get install -y -q linux-perf > /dev/null; }
dir=build/bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTOVREL_TESTS=OFF -DTOVREL_BENCH=ON > /dev/null
cmake --build "$dir" -j "$(nproc)" --target effectcache_bench > /dev/null
mkdir -p build/profiles
data=build/profiles/$phase.data
fifos=$(mktemp -d)
trap 'rm -rf "$fifos"' EXIT
mkfifo "$fifos/ctl" "$fifos/ack"
echo "load:$(uptime | sed 's/.*load average://')"
TOVREL_PERF_PHASE=$phase TOVREL_PERF_CTL=$fifos/ctl TOVREL_PERF_ACK=$fifos/ack \
  perf record -q -F 999 --call-graph dwarf -D -1 --control "fifo:$fifos/ctl,$fifos/ack" -o "$data" -- \
  "$dir/bench/effectcache_bench" --benchmark_filter="$filter" --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true
# Top entries of `perf report` in one of its modes. By self time, the
# addresses of a library without symbols (zlib's internal functions in
# Debian's build) are summed into one entry for that library; with
# children, such addresses are left out (their sums would count a sample
# once per frame), and so are the frames of the benchmark harness.
top() {
  perf report -i "$data" --stdio "$1" --no-inline -g none -F "$2",dso,sym 2> /dev/null |
    awk -v columns="$3" '
      /^#/ || NF == 0 { next }
      {
        symbol = ""
        for (f = columns + 3; f <= NF; f++) symbol = symbol (symbol == "" ? "" : " ") $f
        if (symbol ~ /^0x[0-9a-f]+$/) {
          if (columns > 1) next
          symbol = "(functions without symbols)"
        }
        if (columns > 1 && ($(columns + 1) ~ /^libbenchmark/ || symbol ~ /^(_start|main|__libc_start|benchmark::|Tovrel::\(anonymous namespace\)::BM_)/)) next
        key = $(columns + 1) " " symbol
        for (c = 1; c <= columns; c++) { sub(/%$/, "", $c); sum[key, c] += $c }
        keys[key] = 1
      }
      END {
        for (k in keys) {
          line = ""
          for (c = 1; c <= columns; c++) line = line sprintf("%7.2f%% ", sum[k, c])
          print line " " k
        }
      }' | sort -rn | head -n "$entries"
}
echo "=== $phase: shared objects, by self time"
perf report -i "$data" --stdio --no-children -g none --sort dso 2> /dev/null | grep -v -e '^#' -e '^$'
echo "=== $phase: top $entries by self time (self, object, function)"
top --no-children overhead 1
echo "=== $phase: top $entries by time with children (children, self, object, function)"
top --children overhead_children,overhead 2
