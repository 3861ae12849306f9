#!/usr/bin/env bash
# Checks format and lint of the library and the command: of all sources, or only of those that
# changed since a commit and those that include them.
#
#   scripts/lint.sh            everything (half an hour)
#   scripts/lint.sh COMMIT     what changed since COMMIT; everything when there is no such commit
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/packages.sh g++ cmake ninja-build git clang-format clang-tidy libgtest-dev libcli11-dev \
  nlohmann-json3-dev libxxhash-dev python3
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
cmake --preset debug > build/lint.log 2>&1 || { cat build/lint.log; exit 1; }
scripts/users_of.py "$@" | grep -E '^(capsule|cli)/.*\.cpp$' > build/lint.files || true
echo "lint: $(wc -l < build/lint.files) sources"
xargs -r -a build/lint.files -P "$(nproc)" -n 1 clang-tidy -quiet -p build/debug \
  --extra-arg=-Wno-unknown-warning-option
