#!/usr/bin/env bash
# Checks format and lint of the library and the command. Slow: clang-tidy reads every source.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/packages.sh g++ cmake ninja-build clang-format clang-tidy libgtest-dev libcli11-dev \
  nlohmann-json3-dev libxxhash-dev python3
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
cmake --preset debug
git ls-files 'capsule/*.cpp' 'cli/*.cpp' | xargs -P "$(nproc)" -n 4 clang-tidy -quiet -p build/debug \
  --extra-arg=-Wno-unknown-warning-option
