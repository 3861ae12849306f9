#!/usr/bin/env bash
# Makes NTFS volumes like those beside this script, packed with xz:
#   make_volume.sh tree OUT.xz   folders, an emptied folder whose index keeps old names, a folder of
#                                hundreds of files, a file in pieces. Needs root and FUSE, because it
#                                fills the volume through a mount.
#   make_volume.sh flat OUT.xz   the root folder alone. Needs neither, and gives no short names.
# Needs the packages ntfs-3g and xz-utils, and attr for the first kind. Contents repeat from run to run; times and serial numbers
# do not, so a new volume differs from the old one in bytes.
set -euo pipefail
kind=$1 out=$2
export PATH=$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
trap 'mountpoint -q "$work/mnt" && umount "$work/mnt"; rm -rf "$work"' EXIT

# content LENGTH SEED: text that repeats itself here and there.
content() {
  awk -v length_wanted="$1" -v seed="$2" 'BEGIN {
    srand(seed)
    while (done < length_wanted) {
      line = sprintf("line %d of %d: %d\n", ++n, seed, int(rand() * 1000))
      if (done + length(line) > length_wanted) line = substr(line, 1, length_wanted - done)
      printf "%s", line
      done += length(line)
    }
  }'
}

# noise LENGTH SEED: bytes that do not compress.
noise() {
  content 4000000 "$2" | gzip -9n | head -c "$1" || true
}

# short_name NAME PATH: a second name for what was made through the mount without one.
short_name() {
  setfattr -h -n system.ntfs_dos_name -v "$1" "$2"
}

make_tree() {
  truncate -s 8M "$work/volume"
  mkntfs -qq -F -p 0 -s 512 -H 255 -S 63 -c 512 -L TREE "$work/volume"
  mkdir "$work/mnt"
  ntfs-3g "$work/volume" "$work/mnt"
  local top=$work/mnt i
  mkdir -p "$top/Documents/Sub One/Deep/Deeper" "$top/EMPTY" "$top/many"
  content 300 1 >"$top/Documents/a long file name.text"
  content 123 2 >"$top/Documents/after.txt"
  content 20000 3 >"$top/Documents/thirteen.char"
  content 33000 4 >"$top/Documents/Sub One/posix only name.data"
  content 700 5 >"$top/Documents/Sub One/SHORT.TXT"
  noise 16384 6 >"$top/Documents/Sub One/Deep/Deeper/leaf.bin"
  for ((i = 0; i < 300; i++)); do
    content $((10 + i)) "$i" >"$top/many/entry number $(printf %04d "$i") with a longish name.bin"
  done
  short_name ALONGF~1.TEX "$top/Documents/a long file name.text"
  short_name THIRTE~1.CHA "$top/Documents/thirteen.char"
  short_name SUBONE~1 "$top/Documents/Sub One"
  # Fill the volume with small files, take out every third, and let one file have the gaps.
  for ((i = 0; i < 400; i++)); do head -c 8192 /dev/zero >"$top/EMPTY/filler $i" || break; done 2>/dev/null
  head -c 8M /dev/zero >"$top/EMPTY/rest" 2>/dev/null || true
  for ((i = 0; i < 400; i += 3)); do rm -f "$top/EMPTY/filler $i"; done
  sync
  noise 106820 7 >"$top/fragmented.bin"
  rm -f "$top/EMPTY"/*
  umount "$work/mnt"
}

make_flat() {
  truncate -s 16M "$work/volume"
  mkntfs -qq -F -p 0 -s 512 -H 255 -S 63 -c 1024 -L FLAT "$work/volume"
  put() {
    cat >"$work/file"
    ntfscp -q "$work/volume" "$work/file" "$1"
  }
  : | put empty.dat
  content 100 1 | put resident.txt
  content 400 2 | put resident2.bin
  content 5000 3 | put mid.txt
  noise 16384 4 | put exact.bin
  content 16385 5 | put exact1.bin
  noise 70000 6 | put large.bin
  content 150001 7 | put large2.txt
  local i
  for ((i = 0; i < 90; i++)); do
    content $((40 + i)) "$i" | put "child file number $(printf %03d "$i").txt"
  done
}

case $kind in
  tree) make_tree ;;
  flat) make_flat ;;
  *) echo "usage: $0 tree|flat OUT.xz" >&2; exit 2 ;;
esac
xz -9 -T1 -c "$work/volume" >"$out"
