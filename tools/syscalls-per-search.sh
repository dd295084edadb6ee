#!/usr/bin/env bash
# Counts the system calls of a search of a cache file that no other
# process changes: the parallel search benchmark's child process searches
# the 3,000 effects of its workload under strace, and the calls it makes
# between its last look at the start file and the opening of its report
# are the search phase's. Prints them by name, and per search.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build/bench
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTOVREL_TESTS=OFF -DTOVREL_BENCH=ON > /dev/null
cmake --build "$dir" -j "$(nproc)" --target parallel_search_bench > /dev/null
bench="$dir/bench/parallel_search_bench"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/cache"
"$bench" --save-cache "$work/cache"
touch "$work/start"
strace -f -qq -o "$work/trace" "$bench" --search-child "$work/cache" 1 "$work/start" "$work/out"
start=$(grep -n "$work/start" "$work/trace" | tail -1 | cut -d: -f1)
end=$(grep -n "openat(.*$work/out\"" "$work/trace" | head -1 | cut -d: -f1)
searches=3000
sed -n "$((start + 1)),$((end - 1))p" "$work/trace" | sed -E 's/^[0-9]+ +//; s/\(.*//' | sort | uniq -c | sort -rn |
  awk -v n=$searches '{ total += $1; printf "%8d %-16s %.2f per search\n", $1, $2, $1 / n } END { printf "%8d %-16s %.2f per search\n", total, "all", total / n }'
