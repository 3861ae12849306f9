#!/usr/bin/env bash
# Takes large inputs through the command and prints what they cost: 10,000 and 100,000 small files,
# and one file of 1,500,000,000 bytes. Needs 5 GB of disk. Too slow for the test suite.
# Usage: scripts/big_trees.sh [COMMAND]
set -euo pipefail
cd "$(dirname "$0")/.."
capsule=$(readlink -f "${1:-build/release/cli/capsule}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# Seconds and peak memory of a command, under a name.
measure() {
  local name=$1
  shift
  python3 - "$name" "$@" <<'PYTHON'
import resource, subprocess, sys, time
begin = time.monotonic()
status = subprocess.call(sys.argv[2:], stdout=subprocess.DEVNULL)
seconds = time.monotonic() - begin
peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss / 1024
print(f"{sys.argv[1]:32} {seconds:8.2f} s {peak:8.1f} MiB")
sys.exit(status)
PYTHON
}

for files in 10000 100000; do
  python3 - "in$files" "$files" <<'PYTHON'
import os, sys
root, files = sys.argv[1], int(sys.argv[2])
for i in range(files):
    folder = f"{root}/d{i // 1000}/e{i // 20}"
    if i % 20 == 0:
        os.makedirs(folder)
    with open(f"{folder}/file{i}.txt", "w") as file:
        file.write(f"contents of file {i}\n" * (i % 40))
PYTHON
  mkdir "out$files"
  measure "create, $files files" "$capsule" -q create "i$files" "in$files"
  measure "list -R, $files files" "$capsule" list -R "i$files"
  measure "extract, $files files" "$capsule" -q extract "i$files" -C "out$files"
  diff -r "in$files" "out$files"
  rm -rf "in$files" "out$files" "i$files"
done

mkdir in out
python3 - <<'PYTHON'
import random
random.seed(1)
words = ["%x" % random.getrandbits(40) for _ in range(5000)]
left = 1500000000
with open("in/big", "wb") as file:
    while left > 0:
        piece = (" ".join(random.choices(words, k=100000)) + "\n").encode()[:left]
        file.write(piece)
        left -= len(piece)
PYTHON
measure "create -1, 1.5 GB" "$capsule" -q create -1 image in
measure "cat --offset, 1.5 GB" "$capsule" cat image big --offset 1499999000
measure "extract, 1.5 GB" "$capsule" -q extract image -C out
cmp in/big out/big
echo "everything came back as it went in"
