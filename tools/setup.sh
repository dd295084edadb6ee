#!/usr/bin/env bash
# Installs what a job needs on a Debian machine, skipping what is already
# there. Needs root (or sudo) when anything is missing.
#
#   setup.sh demo   the main job (tools/demo.sh): the compiler, CMake and the
#                   library's own dependencies (zlib, libdeflate, libcurl's
#                   header), no more
#   setup.sh [test] everything the tests and benchmarks use besides: clang
#                   and LLVM's tools (the fuzzers, tovrel.lib, the MSVC-ABI
#                   check), mingw-w64 and wine, nginx, the benchmarks' peers,
#                   and libdeflate built for mingw-w64
set -euo pipefail
job=${1:-test}
case $job in
  demo|test) ;;
  *) echo "usage: setup.sh [demo|test]" >&2; exit 2 ;;
esac

packages=(cmake make g++ binutils zlib1g-dev libdeflate-dev libcurl4-openssl-dev)
if [ "$job" = test ]; then
  packages+=(clang libclang-rt-dev llvm lld googletest libgtest-dev
             libbenchmark-dev libsqlite3-dev liblmdb-dev libleveldb-dev
             nginx python3 nlohmann-json3-dev
             pkg-config g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 libz-mingw-w64-dev wine wine64
             dpkg-dev)
fi
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
missing=()
for p in "${packages[@]}"; do
  [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)" = "install ok installed" ] || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  # RUNLEVEL=1: packages that bring a service (nginx) do not start it.
  export DEBIAN_FRONTEND=noninteractive RUNLEVEL=1
  $sudo_cmd apt-get update -q
  $sudo_cmd apt-get install -y -q "${missing[@]}"
fi

# libdeflate for the Windows build, which links it into tovrel.dll: Debian
# has no mingw-w64 package of it, so the source of the very release that
# libdeflate-dev installed is fetched with `apt-get source`, through deb-src
# entries for this machine's own Debian suites (taken from its sources
# lists) in a folder of its own: the system's apt configuration, lists and
# cache stay as they are. Its Makefile builds the static library with
# mingw-w64 into a fixed prefix, where CMakeLists.txt looks for it
# (TOVREL_MINGW_LIBDEFLATE_PREFIX). Skipped when the prefix already holds
# that release.
[ "$job" = test ] || exit 0
mingw_libdeflate=/opt/x86_64-w64-mingw32-libdeflate
libdeflate_version=$(dpkg-query -W -f='${Version}' libdeflate-dev)
if [ "$(cat "$mingw_libdeflate/debian-version" 2> /dev/null || true)" != "$libdeflate_version" ]; then
  echo "building libdeflate $libdeflate_version for mingw-w64 into $mingw_libdeflate"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  mkdir -p "$work/parts" "$work/lists/partial" "$work/cache/archives/partial" "$work/source"
  : > "$work/none.list"
  codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
  # One-line entries (sources.list, *.list) and deb822 stanzas (*.sources)
  # of the machine's suites (bookworm, bookworm-updates, ...), as deb-src.
  for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$list" ] || continue
    grep -E "^deb[[:space:]].*[[:space:]]${codename}(-[a-z]+)?[[:space:]]" "$list" |
      sed 's/^deb[[:space:]]/deb-src /' >> "$work/parts/machine.list" || true
  done
  for list in /etc/apt/sources.list.d/*.sources; do
    [ -f "$list" ] || continue
    awk -v codename="$codename" 'BEGIN { RS = ""; ORS = "\n\n" }
      $0 ~ "(^|\n)Types:[^\n]*deb([ \t]|\n|$)" && $0 ~ "(^|\n)Suites:[^\n]*" codename &&
      $0 !~ "(^|\n)Enabled: *no" {
        sub(/(^|\n)Types:[^\n]*/, "\nTypes: deb-src"); sub(/^\n/, ""); print }' "$list" >> "$work/parts/machine.sources"
  done
  apt_source=(apt-get -q -o Dir::Etc::SourceList="$work/none.list" -o Dir::Etc::SourceParts="$work/parts"
              -o Dir::State::Lists="$work/lists" -o Dir::Cache="$work/cache" -o APT::Sandbox::User="$(id -un)")
  # A suite without source indices (another vendor's) fails the update but
  # not the fetch from Debian's: only the fetch decides.
  "${apt_source[@]}" update > "$work/update.log" 2>&1 || true
  (cd "$work/source" && "${apt_source[@]}" source "libdeflate=$libdeflate_version") > "$work/source.log" 2>&1 ||
    { cat "$work/update.log" "$work/source.log"; exit 1; }
  tree=$(find "$work/source" -mindepth 1 -maxdepth 1 -type d -name 'libdeflate-*')
  make -C "$tree" -j2 CC=x86_64-w64-mingw32-gcc-posix AR=x86_64-w64-mingw32-ar libdeflatestatic.lib \
    > "$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
  $sudo_cmd rm -rf "$mingw_libdeflate"
  $sudo_cmd install -D -m 644 "$tree/libdeflatestatic.lib" "$mingw_libdeflate/lib/libdeflate.a"
  $sudo_cmd install -D -m 644 "$tree/libdeflate.h" "$mingw_libdeflate/include/libdeflate.h"
  $sudo_cmd install -D -m 644 "$tree/COPYING" "$mingw_libdeflate/share/doc/libdeflate/COPYING"
  echo "$libdeflate_version" | $sudo_cmd tee "$mingw_libdeflate/debian-version" > /dev/null
fi
