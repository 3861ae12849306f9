#!/usr/bin/env bash
# The shared library needs the standard library and POSIX, nothing else. Usage: needs.sh LIBRARY
set -euo pipefail
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
grep -qx 'libstdc++\.so\.[0-9]*' <<<"$needed"
if grep -vxE '(libstdc\+\+|libgcc_s|libm|libc|ld-linux[-a-z0-9_]*)\.so\.[0-9]+' <<<"$needed"; then
  echo "is needed, and should not be" >&2
  exit 1
fi
readelf -d "$1" | grep -q 'SONAME.*\[libcapsule\.so\.[0-9]*\]'
