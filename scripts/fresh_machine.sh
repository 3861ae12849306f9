#!/usr/bin/env bash
# Makes the packages, and installs and uses them on a bare Debian 12 as a newcomer would: the
# examples by CMake and by pkg-config, the command, its man page. Leaves nothing behind. Needs root,
# mmdebstrap and the network.
set -euo pipefail

inside() {
  cd /root
  apt-get install -y -qq --no-install-recommends ./packages/*.deb
  cmake -S examples -B built >/dev/null
  cmake --build built >/dev/null
  mkdir by_pkg_config
  for example in build_image list_and_extract serve_ranges; do
    read -ra flags < <(pkg-config --cflags --libs capsule)
    c++ -std=c++20 "examples/$example.cpp" "${flags[@]}" -o "by_pkg_config/$example"
  done
  for bin in built by_pkg_config; do
    "$bin/build_image" "$bin.cap" /usr/include/linux 2>/dev/null
    mkdir "out_$bin"
    "$bin/list_and_extract" "$bin.cap" "out_$bin" >/dev/null
    diff -r /usr/include/linux "out_$bin/0"
    "$bin/serve_ranges" "$bin.cap" 0:/types.h "types_$bin"
    cmp /usr/include/linux/types.h "types_$bin"
  done
  capsule verify built.cap
  man capsule | grep -A 3 '^EXIT STATUS'
  apt-get purge -y -qq capsule libcapsule-dev libcapsule0
  echo "the packages work on a bare machine"
}

if [ "${1:-}" = inside ]; then
  inside
  exit
fi
cd "$(dirname "$0")/.."
scripts/package.sh
mmdebstrap --variant=apt --include=g++,cmake,make,pkg-config,man-db \
  --customize-hook='copy-in packages examples scripts /root' \
  --customize-hook='chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin /root/scripts/fresh_machine.sh inside' bookworm /dev/null
