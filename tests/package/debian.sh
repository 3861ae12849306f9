#!/usr/bin/env bash
# Makes the Debian packages, unpacks them as one would install them, and looks at what they hold.
# Usage: debian.sh BUILD WORK
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$2
rm -rf "$work"
mkdir -p "$work"
ln -s "$here/../../scripts" "$work/scripts"
cd "$work"
CAPSULE_BUILD=$1 scripts/package.sh >/dev/null
field() { dpkg-deb -f packages/"$1"_*.deb "$2"; }
version=$(field libcapsule0 Version)

field libcapsule0 Depends | grep -q 'libstdc++6'
field capsule Depends | grep -q 'libc6'
[ "$(field libcapsule-dev Depends)" = "libcapsule0 (= $version)" ]
for package in libcapsule0 libcapsule-dev capsule; do
  dpkg-deb -x packages/"${package}"_*.deb "$package"
  [ -s "$package/usr/share/doc/$package/copyright" ]
  (cd "$package" && find . -type f -o -type l) | sort >"$package.list"
done
# Every file is in one package, and each in the one that needs it.
[ -z "$(cat ./*.list | sort | uniq -d)" ]
grep -v share/doc libcapsule0.list | sed 's/.*libcapsule\.so\.0.*//' | tr -d '\n' | cmp - /dev/null
grep -v share/doc capsule.list | tr '\n' ' ' | grep -qx './usr/bin/capsule ./usr/share/man/man1/capsule.1 '
dpkg-deb -e packages/libcapsule0_*.deb control
grep -q ldconfig control/postinst
grep -qx 'libcapsule 0 libcapsule0.*' control/shlibs
[ "$(capsule/usr/bin/capsule --version)" = "capsule $version" ]
man --warnings -l capsule/usr/share/man/man1/capsule.1 2>&1 >page | cmp - /dev/null
grep -q 'EXIT STATUS' page
