#!/usr/bin/env bash
# Installs what the tests need, builds, and runs every test: a release build and one with
# AddressSanitizer and UndefinedBehaviorSanitizer, or the presets given. `scripts/test.sh tsan` runs
# them under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -gt 0 ] || set -- release asan-ubsan
scripts/packages.sh g++ cmake ninja-build libgtest-dev libcli11-dev nlohmann-json3-dev libxxhash-dev \
  libssl-dev xz-utils python3 pkg-config dpkg-dev file man-db
for preset in "$@"; do
  cmake --preset "$preset" -DCAPSULE_WERROR=ON -DCAPSULE_TESTS=ON
  cmake --build --preset "$preset"
  ctest --preset "$preset" --no-tests=error -j "$(nproc)"
done
