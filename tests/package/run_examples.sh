#!/usr/bin/env bash
# Runs the three example programs in BIN on a real folder and compares what comes out of the image.
# Usage: run_examples.sh BIN
set -euo pipefail
bin=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p in/empty more
cp -r /usr/include/linux in/linux
find in ! -type f ! -type d -delete
cat in/linux/*.h >"in/all of it.txt"
cp "$bin/serve_ranges" more/

"$bin/build_image" a.cap in more 2>progress | grep -qE '^[0-9]+ files, [0-9]+ bytes, in an image'
grep -q '0:/linux/types.h$' progress
"$bin/list_and_extract" a.cap >list
(cd in && find . -type f -printf '%10s  /0/%P\n' -o -mindepth 1 -printf '         0  /0/%P/\n'
 cd ../more && find . -type f -printf '%10s  /1/%P\n') | sort >expected
sort list | diff expected -
"$bin/list_and_extract" a.cap out >/dev/null
diff -r in out/0
diff -r more out/1
"$bin/serve_ranges" a.cap "0:/all of it.txt" copy
cmp "in/all of it.txt" copy

# What cannot be done is said so.
for wrong in "build_image b.cap nothing" "list_and_extract copy" "serve_ranges a.cap 0:/linux c" \
  "serve_ranges a.cap 0:/nothing c"; do
  read -ra arguments <<<"$wrong"
  if "$bin/${arguments[0]}" "${arguments[@]:1}" >/dev/null 2>talk || [ ! -s talk ]; then
    echo "$wrong: no failure, or no word about it" >&2
    exit 1
  fi
done
