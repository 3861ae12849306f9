#!/usr/bin/env bash
# Checks format and lint of the library and the command: of all sources, or only of those that
# changed since a commit and those that include them. The format is always checked of all.
#
#   scripts/lint.sh                 everything (some ten minutes on two cores), as every night
#   scripts/lint.sh COMMIT          what changed since COMMIT; everything when there is no such commit
#   scripts/lint.sh COMMIT MOST     the same, MOST sources at most, those that changed first
set -euo pipefail
cd "$(dirname "$0")/.."
most=${2:-1000000}
scripts/packages.sh g++ cmake ninja-build git clang-format clang-tidy libgtest-dev libcli11-dev \
  nlohmann-json3-dev libxxhash-dev python3
mkdir -p build
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
cmake --preset debug > build/lint.log 2>&1 || { cat build/lint.log; exit 1; }
scripts/users_of.py "${@:1:1}" > build/lint.users
grep -E '^(capsule|cli)/.*\.cpp$' build/lint.users > build/lint.all || true
head -n "$most" build/lint.all > build/lint.files
echo "lint: $(wc -l < build/lint.files) of $(wc -l < build/lint.all) sources"
xargs -r -a build/lint.files -P "$(nproc)" -n 1 clang-tidy -quiet -p build/debug \
  --extra-arg=-Wno-unknown-warning-option
