#!/usr/bin/env bash
# Situations in which a cache must keep serving, tried from outside with a
# tovrel tool binary, as a user meets them: a full disk, a folder the user
# cannot write, damaged files opened by a host, maintenance on damaged
# files, and last-use times read under other time zones. Prints one line of
# counts per situation, so that two builds of the tool can be compared.
#
#   tools/serving_figures.sh TOVREL [COPIES [VERIFIER]]
#
# TOVREL: the tool binary; COPIES: damaged copies per kind (50); VERIFIER:
# the tool whose verify commands judge what maintenance left (TOVREL), so
# that an older tool is judged by a newer one's checks. Run as
# root on Linux: it mounts small tmpfs file systems and runs a host as the
# user nobody. Leaves nothing behind.
set -u
[ $# -ge 1 ] || { echo "usage: $0 TOVREL [COPIES [VERIFIER]]" >&2; exit 3; }
[ "$(id -u)" = 0 ] || { echo "$0: run as root (tmpfs mounts, user nobody)" >&2; exit 3; }
copies=${2:-50}
work=$(mktemp -d /tmp/serving.XXXXXX)
chmod 755 "$work"
cp "$1" "$work/tovrel" && chmod 755 "$work/tovrel"
tool="$work/tovrel"
verifier=${3:-$tool}
cleanup() { umount "$work/disk" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

hits() { sed -n 's/^run [0-9]* ([^)]*): \([0-9,]*\) hits.*/\1/p' | tr -d ,; }

# A cache of the demo's 2,000 effects, made once.
"$tool" demo "$work/made" > /dev/null || { echo "the demo's cold run failed" >&2; exit 1; }
file=norvaneFxoCache.dat

# 1. A full disk: the cache file on a tmpfs left with FREE bytes, a host's
# warm run; counts the effects found and whether the file changed.
full_disk() {
  local free=$1 size
  mkdir -p "$work/disk"
  size=$(( $(stat -c %s "$work/made/$file") + 1048576 ))
  mount -t tmpfs -o size=$size tmpfs "$work/disk"
  mkdir "$work/disk/fx" && cp "$work/made/$file" "$work/disk/fx/"
  # tmpfs counts whole pages, and a file's own blocks: fill, then give back
  # a page at a time until FREE bytes are free.
  local avail=$(df -B1 --output=avail "$work/disk" | tail -1)
  dd if=/dev/zero of="$work/disk/filler" bs=4096 count=$(( avail / 4096 )) status=none 2>/dev/null
  while [ "$(df -B1 --output=avail "$work/disk" | tail -1)" -lt "$free" ]; do
    truncate -s -4096 "$work/disk/filler"
  done
  local found before=$(df -B1 --output=avail "$work/disk" | tail -1)
  found=$("$tool" demo "$work/disk/fx" 2>/dev/null | hits)
  local same=changed
  cmp -s "$work/made/$file" "$work/disk/fx/$file" && same=unchanged
  echo "full disk, $before bytes free: ${found:-0} of 2000 effects found, file $same"
  umount "$work/disk"
}
for free in 0 4096 32768; do full_disk $free; done

# 2. A folder the user cannot write (0555, the file 0644, both the user's):
# half the effects taken out first, so the host's run saves while it searches.
mkdir "$work/ro" && cp "$work/made/$file" "$work/ro/"
"$tool" effects trim "$work/ro" --max-size 7M > /dev/null
stored=$("$tool" effects stats "$work/ro" --json | sed -n 's/.*"effects": *\([0-9]*\).*/\1/p' | head -1)
chown -R nobody "$work/ro" && chmod 0644 "$work/ro/$file" && chmod 0555 "$work/ro"
found=$(runuser -u nobody -- "$tool" demo "$work/ro" 2>/dev/null | hits)
echo "folder 0555 as nobody: ${found:-0} of $stored stored effects found"

# 3 and 4 need a smaller cache: 52 effects put one by one, by VERIFIER,
# so that every tool compared meets the same file and the same damage.
mkdir "$work/src" "$work/small"
for i in $(seq 1 52); do
  # The same bytes on every run (so that two tools meet the same damage).
  head -c $(( 600 + i * 173 )) /dev/zero |
    openssl enc -aes-128-ctr -nosalt -K 000102030405060708090a0b0c0d0e0f -iv "$(printf '%032x' $i)" | base64 > "$work/src/e$i"
  "$verifier" effects put "$work/small" "fx/e$i" "$work/src/e$i" $([ $((i % 9)) = 0 ] && echo --permanent) > /dev/null
done
good="$work/small/$file"
length=$(stat -c %s "$good")

# A damaged copy of the small cache in folder $1: kind cut, flip (1 to 16
# bytes anywhere) or table, seed $3.
damage() {
  local dest=$1 kind=$2 seed=$3
  rm -rf "$dest" && mkdir "$dest" && cp "$good" "$dest/$file"
  RANDOM=$seed
  if [ "$kind" = cut ]; then
    truncate -s $(( (RANDOM * 32768 + RANDOM) % length )) "$dest/$file"
  elif [ "$kind" = table ]; then
    # One byte of the first page (the package's tables) made a space.
    printf ' ' | dd of="$dest/$file" bs=1 seek=$(( RANDOM % 8192 )) conv=notrunc status=none
  else
    # RANDOM is read in this shell only: a subshell would seed its own.
    local n=$(( 1 + RANDOM % 16 )) k byte at
    for (( k = 0; k < n; ++k )); do
      byte=$(( 1 + RANDOM % 255 )) at=$(( (RANDOM * 32768 + RANDOM) % length ))
      printf "$(printf '\\x%02x' $byte)" | dd of="$dest/$file" bs=1 seek=$at conv=notrunc status=none
    done
  fi
}

# 3. Damaged copies opened by a host (a put, then every name searched):
# effects found with their stored bytes, wrong bytes, copies left empty.
for kind in cut flip table; do
  found=0 wrong=0 empty=0
  for c in $(seq 1 "$copies"); do
    damage "$work/d" $kind $c
    echo x > "$work/x"
    "$tool" effects put "$work/d" probe "$work/x" > /dev/null 2>&1
    n=0
    for i in $(seq 1 52); do
      if "$tool" effects get "$work/d" "fx/e$i" -o "$work/got" > /dev/null 2>&1; then
        if cmp -s "$work/got" "$work/src/e$i"; then n=$((n + 1)); else wrong=$((wrong + 1)); fi
      fi
    done
    found=$((found + n)); [ $n = 0 ] && empty=$((empty + 1))
  done
  echo "damaged ($kind), opened by a host: $found of $((copies * 52)) effects found over $copies copies, $empty copies with none, $wrong wrong bytes"
done

# 4. Maintenance on damaged copies: crashes (a signal), and runs that said
# success yet left problems the damaged input did not have.
problems() {
  { "$verifier" package verify "$1/$file"; "$verifier" effects verify "$1"; } 2>&1 | sed "s#$1#F#g" |
    grep -vE ': [0-9,]+ problems?$|no problem found' | sort -u
}
crashes=0 spoiled=0 runs=0
for c in $(seq 1 "$copies"); do
  for kind in cut flip table; do
    damage "$work/d" $kind $((c + 1000))
    before=$(problems "$work/d")
    for cmd in "effects compact D" "package compact D/$file" "effects trim D --max-size 100K" \
        "effects clear D --keep-permanent" "effects remove D fx/e7" "effects merge D S" "effects merge S D" \
        "effects stats D --zero" "effects verify D" "package verify D/$file" "effects list D" "effects get D fx/e3 -o G"; do
      rm -rf "$work/S" "$work/G" && cp -r "$work/small" "$work/S"
      cp "$work/d/$file" "$work/D.keep" 2>/dev/null
      set -- $(echo "$cmd" | sed "s#D#$work/d#g; s#S\\b#$work/S#g; s#G\$#$work/G#")
      "$tool" "$@" > /dev/null 2>&1
      status=$?
      runs=$((runs + 1))
      [ $status -ge 128 ] && crashes=$((crashes + 1))
      if [ $status = 0 ]; then
        case "$cmd" in *"merge S D"*) target="$work/S"; base=$(problems "$work/small") ;; *) target="$work/d"; base=$before ;; esac
        [ -n "$(comm -13 <(echo "$base") <(problems "$target"))" ] && spoiled=$((spoiled + 1))
      fi
      cp "$work/D.keep" "$work/d/$file" 2>/dev/null
    done
  done
done
echo "maintenance on $((copies * 3)) damaged copies, 12 commands each: $crashes crashes of $runs runs, $spoiled successes that left new problems"

# 5. Last-use times under time zones: an effect used seconds ago under
# EST5, trimmed as older than an hour under JST-9; a merge of the same name
# written under JST-9 and two seconds later under EST5.
mkdir "$work/tz" "$work/tzA" "$work/tzB"
echo old > "$work/old"; echo new > "$work/new"
TZ=EST5 "$tool" effects put "$work/tz" recent "$work/old" > /dev/null
TZ=JST-9 "$tool" effects trim "$work/tz" --older-than 1h > /dev/null
left=$("$tool" effects get "$work/tz" recent -o "$work/left" > /dev/null 2>&1 && cat "$work/left")
TZ=JST-9 "$tool" effects put "$work/tzA" shared "$work/old" > /dev/null
sleep 2
TZ=EST5 "$tool" effects put "$work/tzB" shared "$work/new" > /dev/null
TZ=UTC0 "$tool" effects merge "$work/tzA" "$work/tzB" > /dev/null
kept=$("$tool" effects get "$work/tzA" shared -o "$work/kept" > /dev/null 2>&1 && cat "$work/kept")
echo "time zones: an effect used seconds ago $([ "$left" = old ] && echo kept || echo trimmed) by trim --older-than 1h; merge kept the $([ "$kept" = new ] && echo newer || echo older) copy"
