#!/usr/bin/env bash
# Compares the names a built Tovrel library exports with the list checked in
# for its system, so that any change of the exported surface is a change of
# that list, made on purpose.
#
#   check.sh linux   libtovrel.so NM        (the dynamic symbols it defines)
#   check.sh windows tovrel.dll   OBJDUMP   (the names in its export table)
#
# A list holds one name per line, sorted: the mangled name, a tab, and the
# name demangled. The list of this run is written to exports-SYSTEM.txt in
# the current folder; copying it over tests/exports/SYSTEM.txt accepts it.
set -euo pipefail
system=$1 library=$2 lister=$3
expected="$(cd "$(dirname "$0")" && pwd)/$system.txt"
actual="$PWD/exports-$system.txt"

case $system in
  linux) names=$("$lister" -D --defined-only --format=posix "$library" | cut -d' ' -f1) ;;
  windows) names=$("$lister" -p "$library" |
             sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^\t\[ *[0-9]*\] //p') ;;
  *) echo "unknown system: $system" >&2; exit 2 ;;
esac
names=$(LC_ALL=C sort -u <<< "$names")
paste <(echo "$names") <(echo "$names" | c++filt) > "$actual"

if [ ! -s "$actual" ]; then
  echo "no exported names found in $library" >&2
  exit 1
fi
if ! diff -u "$expected" "$actual"; then
  echo "the names $library exports differ from $expected (- expected, + built);"
  echo "if the change is meant, copy $actual over it"
  exit 1
fi
echo "$library exports the $(wc -l < "$actual") names of $expected"
