#!/bin/sh
# Builds the Debian package from a copy of the source tree (dpkg-buildpackage
# writes beside the tree it builds, so the copy keeps the checkout clean),
# then checks it with lintian, which must report no errors.
# Usage: sh scripts/deb.sh OUT_DIR     (the .deb lands in OUT_DIR)
set -eu

src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "${1:?usage: deb.sh OUT_DIR}"
out=$(cd "$1" && pwd)
stage="$out/stage"
rm -rf "$stage"
mkdir -p "$stage/ferrant2"
tar -C "$src" --exclude=./.git --exclude='./build' --exclude='./build-*' -cf - . |
    tar -C "$stage/ferrant2" -xf -

# A make above this one must not lend its jobs or flags to debian/rules.
unset MAKEFLAGS MFLAGS MAKELEVEL
(cd "$stage/ferrant2" && dpkg-buildpackage -b -us -uc -j"${JOBS:-2}") > "$out/build.log" 2>&1 || {
    tail -40 "$out/build.log" >&2; echo "deb: dpkg-buildpackage failed; log in $out/build.log" >&2; exit 1; }
mv "$stage"/*.deb "$out/"
rm -rf "$stage"

deb=$(ls "$out"/ferrant2_*.deb)
if command -v lintian >/dev/null; then
    lintian "$deb" > "$out/lintian.log" 2>&1 || true
    cat "$out/lintian.log"
    if grep -q '^E:' "$out/lintian.log"; then echo "deb: lintian reports errors" >&2; exit 1; fi
fi
echo "deb: $deb"
