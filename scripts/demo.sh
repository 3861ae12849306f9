#!/usr/bin/env bash
# Builds the command and runs its main job on a real folder: create an image, list it, extract it,
# compare with the source. Usage: scripts/demo.sh [FOLDER]
# CAPSULE_BUILD: a build folder to take instead of building one.
set -euo pipefail
cd "$(dirname "$0")/.."
folder=$(readlink -f "${1:-/usr/include}")
scripts/packages.sh g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libxxhash-dev
if [ -z "${CAPSULE_BUILD:-}" ]; then
  CAPSULE_BUILD=$PWD/build/release
  cmake --preset release -DCAPSULE_TESTS=OFF
  cmake --build --preset release
fi
capsule=$CAPSULE_BUILD/cli/capsule

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/out" "$work/expected"
# Links and special files do not go into an image, so they are left out of the comparison too.
cp -a "$folder/." "$work/expected/"
find "$work/expected" ! -type f ! -type d -delete

time "$capsule" create "$work/demo.cap" "$folder"
"$capsule" info "$work/demo.cap"
"$capsule" list "$work/demo.cap" | head -n 10
time "$capsule" extract "$work/demo.cap" -C "$work/out"
diff -r "$work/expected" "$work/out"
echo "$folder and what came out of the image are equal"
