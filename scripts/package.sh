#!/usr/bin/env bash
# Builds the Debian packages libcapsule0, libcapsule-dev and capsule into the folder `packages`.
# CAPSULE_BUILD: a build folder to take instead of building one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/packages.sh g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libxxhash-dev dpkg-dev file
if [ -z "${CAPSULE_BUILD:-}" ]; then
  CAPSULE_BUILD=build/package
  cmake --preset release -B "$CAPSULE_BUILD" -DCAPSULE_TESTS=OFF
  cmake --build "$CAPSULE_BUILD"
fi
cpack --config "$CAPSULE_BUILD/CPackConfig.cmake" -B packages
rm -rf packages/_CPack_Packages
