#!/usr/bin/env bash
# Makes the benchmark's input from files of this machine: text, executables, mixed, zeros, random,
# 64 MiB each, into the directory given. Files that are there already stay.
set -euo pipefail
target=${1:?usage: make_corpus.sh DIRECTORY}
size=$((64 * 1024 * 1024))
mkdir -p "$target"

# What find gives, joined in order of names and repeated until it fills the size.
fill() {
  local name=$1
  shift
  [ -s "$target/$name" ] && return
  local once
  once=$(mktemp)
  "$@" | LC_ALL=C sort -z | xargs -0 cat 2>/dev/null | head -c "$size" >"$once" || true
  [ -s "$once" ] || { echo "make_corpus.sh: nothing found for $name" >&2; exit 1; }
  while [ "$(stat -c %s "$once")" -lt "$size" ]; do
    cat "$once" "$once" | head -c "$size" >"$once.more" || true
    mv "$once.more" "$once"
  done
  mv "$once" "$target/$name"
}

texts() {
  find /usr/include /usr/share -type f -readable -size +1k \
    \( -name '*.h' -o -name '*.txt' -o -name '*.py' -o -name '*.pl' -o -name '*.pm' \
    -o -name '*.html' -o -name '*.xml' -o -name 'copyright' -o -name '*.md' \) -print0
}
executables() {
  find /usr/bin /usr/lib -type f -readable -size +8k \
    \( -perm -u+x -o -name '*.so.*' -o -name '*.so' \) -print0
}
mixed() {
  find /usr/share /usr/lib /etc /usr/bin -type f -readable -size +1k -size -400k -print0 |
    LC_ALL=C sort -z | awk 'BEGIN { RS = "\0"; ORS = "\0" } NR % 7 == 3'
}

fill text texts
fill executables executables
fill mixed mixed
[ -s "$target/zeros" ] || head -c "$size" /dev/zero >"$target/zeros"
[ -s "$target/random" ] || openssl enc -aes-128-ctr -nosalt -K 0 -iv 0 </dev/zero 2>/dev/null |
  head -c "$size" >"$target/random" || true
