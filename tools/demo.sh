#!/usr/bin/env bash
# The main job: builds the tovrel tool optimised and runs its demo twice on
# a fresh effect cache folder, as a host application would run twice: the
# first run (cold) compiles and caches every shader effect, the second
# (warm) finds every one in the cache. Each run prints its hits, misses,
# bytes, compression ratio and wall time; the second its speed-up.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/setup.sh demo
dir=build/demo
mkdir -p build
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DTOVREL_TESTS=OFF > "$dir.configure.log" 2>&1 || {
  cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target tovrel_tool > "$dir.build.log" 2>&1 || {
  cat "$dir.build.log"; exit 1; }
folder="$dir/fxcache"
rm -rf "$folder"
"$dir/tovrel" demo "$folder"
echo
"$dir/tovrel" demo "$folder"
echo
echo "The tool is $dir/tovrel; to call it as README's examples do:"
echo "  export PATH=\"$PWD/$dir:\$PATH\""
