#!/usr/bin/env bash
# Installs a built Tovrel into a prefix of its own and uses it from there as
# a host developer would:
#
#   check.sh linux   BUILD_DIR C++_COMPILER WERROR
#   check.sh windows BUILD_DIR TOOLCHAIN_FILE WERROR
#
# Both: the headers installed are exactly those of headers.txt, and the
# program of tests/consumer, built as a project of its own that finds the
# library with find_package(Tovrel), runs (and compiles every installed
# header on its own on the way); so does the C program of tests/capi,
# built as C99 through Tovrel::tovrel_c.
# Linux: the program runs against the prefix's libtovrel.so, and is built
# a second time with nothing but `pkg-config --cflags --libs tovrel`; the
# C program too, and the C header compiles as C++.
# Windows: the import library names tovrel.dll; the DLL and the tool import
# system DLLs only (this is what proves that no zlib1.dll is needed: wine
# has a zlib1.dll of its own, and its own parts need it, so it cannot be
# switched off); the program is cross-built against the prefix's import
# library and run under wine in a folder that holds only it and tovrel.dll,
# with an empty WINEPATH. The C program is also built for Microsoft's ABI
# with clang and lld-link against the installed tovrel.lib and kernel32
# alone, and run the same way.
# Everything happens in BUILD_DIR/install-check.
set -euo pipefail
system=$1 build=$(cd "$2" && pwd) third=$3 werror=$4
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$build/install-check
prefix=$work/prefix
rm -rf "$work"
mkdir -p "$work/run"

fail() { echo "FAILED: $*"; exit 1; }
step() { echo "--- $*"; }
quiet() {  # runs a command, showing its output only when it fails
  local log=$work/step.log
  "$@" > "$log" 2>&1 || { cat "$log"; fail "$*"; }
}

step "install into $prefix"
quiet cmake --install "$build" --prefix "$prefix"
(cd "$prefix" && find . -mindepth 1 | sed 's|^\./||' | LC_ALL=C sort) > "$work/installed.txt"
sed 's/^/  /' "$work/installed.txt"

step "installed headers"
(cd "$prefix" && find include -type f | LC_ALL=C sort) > "$work/headers.txt"
diff -u "$source_dir/tests/install/headers.txt" "$work/headers.txt" ||
  fail "the installed headers differ from tests/install/headers.txt (- expected, + installed)"

consumer_args=(-S "$source_dir/tests/consumer" -B "$work/cmake" -DTOVREL_WERROR="$werror")
expect_passed() {  # output of a consumer run
  grep -qx "consumer: all checks passed" <<< "$1" || { echo "$1"; fail "the consumer's checks"; }
}
expect_c_passed() {  # output of a C check program run
  grep -qx "capi check: all passed" <<< "$1" || { echo "$1"; fail "the C program's checks"; }
}

if [ "$system" = linux ]; then
  step "consumer through find_package(Tovrel)"
  quiet cmake "${consumer_args[@]}" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$third"
  quiet cmake --build "$work/cmake" -j 2
  # ldd's whole output is taken first: a grep -q that stops reading at its
  # match would end ldd with SIGPIPE, and pipefail would call that a failure.
  loads=$(ldd "$work/cmake/tovrel_consumer")
  grep -q "=> $prefix/lib/libtovrel.so" <<< "$loads" ||
    { echo "$loads"; fail "the consumer does not load the installed libtovrel.so"; }
  expect_passed "$(cd "$work/run" && "$work/cmake/tovrel_consumer" cmake-consumer.dat)"

  step "consumer through pkg-config"
  export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  read -r -a flags <<< "$(pkg-config --cflags --libs tovrel)"
  echo "  pkg-config --cflags --libs tovrel: ${flags[*]}"
  warnings=(-Wall -Wextra)
  [ "$werror" = ON ] && warnings+=(-Werror)
  quiet "$third" -std=c++17 "${warnings[@]}" "$source_dir/tests/consumer/consumer.cpp" "${flags[@]}" \
    -o "$work/pkg-config-consumer"
  expect_passed "$(cd "$work/run" && LD_LIBRARY_PATH=$prefix/lib "$work/pkg-config-consumer" pc-consumer.dat)"

  step "C program through find_package(Tovrel) and Tovrel::tovrel_c"
  quiet cmake -S "$source_dir/tests/capi" -B "$work/capi-cmake" -DTOVREL_WERROR="$werror" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER=gcc
  quiet cmake --build "$work/capi-cmake" -j 2
  expect_c_passed "$(mkdir -p "$work/capi-cmake-run" && cd "$work/capi-cmake-run" && "$work/capi-cmake/capi_check")"

  step "C program through pkg-config, as C99"
  read -r -a cflags <<< "$(pkg-config --cflags --libs tovrel)"
  quiet gcc -std=c99 -pedantic "${warnings[@]}" "$source_dir/tests/capi/capi_check.c" "${cflags[@]}" \
    -o "$work/pkg-config-capi"
  mkdir -p "$work/capi-pc-run"
  expect_c_passed "$(cd "$work/capi-pc-run" && LD_LIBRARY_PATH=$prefix/lib "$work/pkg-config-capi")"

  step "README's C example"
  awk '/^## From C and other languages/ { section = 1 } section && /^```c$/ { code = 1; next }
       code && /^```$/ { exit } code { print }' "$source_dir/README.md" > "$work/readme-example.c"
  [ -s "$work/readme-example.c" ] || fail "README has no C example under \"From C and other languages\""
  quiet gcc -std=c99 -pedantic "${warnings[@]}" "$work/readme-example.c" "${cflags[@]}" -o "$work/readme-example"
  mkdir -p "$work/readme-run"
  first=$(cd "$work/readme-run" && LD_LIBRARY_PATH=$prefix/lib "$work/readme-example") || fail "README's example: $first"
  second=$(cd "$work/readme-run" && LD_LIBRARY_PATH=$prefix/lib "$work/readme-example") || fail "README's example: $second"
  grep -qx "1 effects, [0-9]* bytes stored (Tovrel $(pkg-config --modversion tovrel))" <<< "$first" ||
    fail "README's example printed \"$first\""
  grep -qx "found shaders/glass.fx: 8 bytes" <<< "$second" || fail "README's example, run again, printed \"$second\""
  echo "  $second"

  step "the C header as C++"
  quiet "$third" -x c++ -std=c++17 -pedantic "${warnings[@]}" -fsyntax-only -I"$prefix/include" \
    "$prefix/include/tovrel/tovrel_c.h"

  step "installed tool"
  version=$("$prefix/bin/tovrel" --version)
  [ "$version" = "tovrel $(pkg-config --modversion tovrel)" ] || fail "tovrel --version printed \"$version\""
  echo "  $version"
  echo "install check passed"
  exit 0
fi

mingw=x86_64-w64-mingw32
wine=$(command -v wine64 || command -v wine)
export WINEDEBUG=-all
system_dlls='^(kernel32|msvcrt|ucrtbase|api-ms-win-[a-z0-9-]+|shell32|user32|advapi32|ws2_32|bcrypt|crypt32|ntdll|winhttp)\.dll$'
imports() { "$mingw-objdump" -p "$1" | sed -n 's/^\tDLL Name: //p'; }

step "import library"
named=$("$mingw-dlltool" --identify "$prefix/lib/libtovrel.dll.a")
[ "$named" = tovrel.dll ] || fail "lib/libtovrel.dll.a imports from \"$named\", not tovrel.dll"
echo "  lib/libtovrel.dll.a names $named"

step "imports of the DLL and the tool"
for file in bin/tovrel.dll bin/tovrel.exe; do
  dlls=$(imports "$prefix/$file")
  echo "  $file: $(echo $dlls)"
  others=$(grep -viE "$system_dlls" <<< "$dlls" || true)
  [ -z "$others" ] || fail "$file imports DLLs that are not the system's: $(echo $others)"
done
[ -z "$(find "$prefix" -iname zlib1.dll)" ] || fail "a zlib1.dll was installed"

step "consumer through find_package(Tovrel), cross-built"
# The toolchain confines find_package to the mingw folders, so the package
# folder is named directly.
quiet cmake "${consumer_args[@]}" -DCMAKE_TOOLCHAIN_FILE="$third" -DTovrel_DIR="$prefix/lib/cmake/Tovrel"
quiet cmake --build "$work/cmake" -j 2
dlls=$(imports "$work/cmake/tovrel_consumer.exe")
grep -qx tovrel.dll <<< "$dlls" || fail "the consumer does not import tovrel.dll"
others=$(grep -vx tovrel.dll <<< "$dlls" | grep -viE "$system_dlls" || true)
[ -z "$others" ] || fail "the consumer imports $(echo $others)"

step "consumer under wine, beside tovrel.dll alone"
cp "$work/cmake/tovrel_consumer.exe" "$prefix/bin/tovrel.dll" "$work/run/"
[ -z "$(find "$work/run" -iname zlib1.dll)" ] || fail "a zlib1.dll lies beside the consumer"
output=$(cd "$work/run" && WINEPATH= "$wine" tovrel_consumer.exe wine-consumer.dat) ||
  { echo "$output"; fail "the consumer under wine"; }
expect_passed "$(tr -d '\r' <<< "$output")"

step "C program of Microsoft's ABI (clang, lld-link, tovrel.lib and kernel32 only) under wine"
# No MSVC runtime is needed by a program that calls only the C interface
# and kernel32; kernel32's import library is made here from the three
# functions the program calls.
[ -f "$prefix/lib/tovrel.lib" ] || fail "lib/tovrel.lib was not installed"
msvc=$work/msvc
mkdir -p "$msvc/run"
printf 'LIBRARY kernel32.dll\nEXPORTS\n  GetStdHandle\n  WriteFile\n  ExitProcess\n' > "$msvc/kernel32.def"
quiet llvm-dlltool -m i386:x86-64 -d "$msvc/kernel32.def" -l "$msvc/kernel32.lib"
c_warnings=(-Wall -Wextra -pedantic)
[ "$werror" = ON ] && c_warnings+=(-Werror)
quiet clang --target=x86_64-pc-windows-msvc -ffreestanding -DTOVREL_CHECK_NO_CRT -std=c99 "${c_warnings[@]}" -I"$prefix/include" \
  -c "$source_dir/tests/capi/capi_check.c" -o "$msvc/capi_check.obj"
quiet lld-link -nologo -nodefaultlib -entry:mainCRTStartup -subsystem:console "$msvc/capi_check.obj" \
  "$prefix/lib/tovrel.lib" "$msvc/kernel32.lib" -out:"$msvc/run/capi_check.exe"
dlls=$(imports "$msvc/run/capi_check.exe")
echo "  capi_check.exe imports: $(echo $dlls)"
[ "$(LC_ALL=C sort <<< "${dlls,,}" | tr '\n' ' ')" = "kernel32.dll tovrel.dll " ] ||
  fail "capi_check.exe imports more than kernel32.dll and tovrel.dll"
cp "$prefix/bin/tovrel.dll" "$msvc/run/"
output=$(cd "$msvc/run" && WINEPATH= "$wine" capi_check.exe) || { echo "$output"; fail "capi_check.exe under wine"; }
expect_c_passed "$(tr -d '\r' <<< "$output")"
[ -f "$msvc/run/norvaneFxoCache.dat" ] || fail "capi_check.exe left no cache file beside it"

step "C program through find_package(Tovrel) and Tovrel::tovrel_c, cross-built with mingw-w64"
quiet cmake -S "$source_dir/tests/capi" -B "$work/capi-cmake" -DTOVREL_WERROR="$werror" \
  -DCMAKE_TOOLCHAIN_FILE="$third" -DTovrel_DIR="$prefix/lib/cmake/Tovrel"
quiet cmake --build "$work/capi-cmake" -j 2
mkdir -p "$work/capi-run"
cp "$work/capi-cmake/capi_check.exe" "$prefix/bin/tovrel.dll" "$work/capi-run/"
output=$(cd "$work/capi-run" && WINEPATH= "$wine" capi_check.exe) || { echo "$output"; fail "the mingw C program"; }
expect_c_passed "$(tr -d '\r' <<< "$output")"

step "installed tool under wine"
version=$(cd "$work/run" && WINEPATH= "$wine" "$prefix/bin/tovrel.exe" --version | tr -d '\r')
grep -qx "tovrel [0-9]*\.[0-9]*\.[0-9]*" <<< "$version" || fail "tovrel --version printed \"$version\""
echo "  $version"
echo "install check passed"
