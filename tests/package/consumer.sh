#!/usr/bin/env bash
# Installs the library into a folder and uses it from there as hosts do: by find_package and by
# pkg-config, the shared library and the static one.
# Usage: consumer.sh BUILD WORK COMPILER
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$here/../..
build=$1 work=$2 compiler=$3
rm -rf "$work"
mkdir -p "$work/in"
echo hello >"$work/in/file"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libraries=$(dirname "$(find "$work/prefix" -name libcapsule.so)")
(cd "$work/prefix/include" && find capsule -name '*.h' | sort) >"$work/headers"
sed 's/.*/#include <&>/' "$work/headers" >"$work/all_headers.h"

# A host may include any header first. Those that come first in their own source file have shown it.
while read -r header; do
  first=$(grep -m 1 '^#include' "$root/${header%.h}.cpp" 2>/dev/null || true)
  [ "$first" = "#include \"$header\"" ] || echo "#include <$header>"
done <"$work/headers" >"$work/first"
export compiler work
xargs -P "$(nproc)" -I{} sh -c \
  'echo "{}" | "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Werror \
     -I "$work/prefix/include" -x c++ - || exit 255' <"$work/first"

expect() {
  local said
  said=$("$1" "$work")
  [ "$said" = 11111 ] || { echo "$1 said $said" >&2; exit 1; }
  [ "$(ldd "$1" | grep -c libcapsule.so)" -eq "$2" ] || { echo "$1 is not linked as asked" >&2; exit 1; }
}

for linkage in shared static; do
  cmake -S "$here/consumer" -B "$work/$linkage" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCONSUMER_LINKAGE="$linkage" -DCONSUMER_HEADERS="$work" >/dev/null
  cmake --build "$work/$linkage" >/dev/null
  expect "$work/$linkage/consumer" "$([ $linkage = shared ] && echo 1 || echo 0)"
done

export PKG_CONFIG_PATH=$libraries/pkgconfig
read -ra flags < <(pkg-config --cflags --libs capsule)
"$compiler" -std=c++20 -I "$work" "$here/consumer/consumer.cpp" "${flags[@]}" \
  -Wl,-rpath,"$libraries" -o "$work/by_pkg_config"
expect "$work/by_pkg_config" 1

# Whatever functions that are defined in a header call must be exported.
"$compiler" -std=c++20 -fkeep-inline-functions -I "$work" "${flags[@]}" \
  -c "$here/consumer/consumer.cpp" -o "$work/all_inline.o"
nm -u "$work/all_inline.o" | grep -oE '_Z(N|NK|TVN|TIN)7capsule.*' | sort >"$work/called"
nm -D --defined-only "$libraries/libcapsule.so" | sed 's/.* //; s/@.*//' | sort >"$work/exported"
[ -s "$work/called" ]
hidden=$(comm -23 "$work/called" "$work/exported")
[ -z "$hidden" ] || { echo "called by headers, not exported:" "$hidden" >&2; exit 1; }
