#!/bin/sh
# Builds the Debian package (lintian must report no errors), unpacks it into a
# temporary root, checks that its layout is the one the programs look up,
# verifies its units with systemd-analyze, and sends a file through a ring and
# receives it with the unpacked programs.
# Usage: sh deb_test.sh SOURCE_DIR      (exit 77: skipped)
set -eu
src=$1
here=$(cd "$(dirname "$0")" && pwd)
for t in dpkg-buildpackage dh dpkg-deb fakeroot; do
    command -v $t >/dev/null || { echo "skipped: no $t (debhelper, dpkg-dev, fakeroot)"; exit 77; }
done
name=deb_test
. "$here/common.sh"

JOBS=2 sh "$src/scripts/deb.sh" "$tmp/out" > "$tmp/deb.log" 2>&1 || { cat "$tmp/deb.log" >&2; fail "make deb failed"; }
deb=$(ls "$tmp"/out/ferrant2_*.deb)
r=$tmp/root
dpkg-deb -x "$deb" "$r"
dpkg-deb -e "$deb" "$tmp/control"

# The root compiled into liborb holds bin/forbserver and data/pf, the latter
# the conffiles in /etc/ferrant2.
lib=$(dirname "$(find "$r/usr/lib" -name 'liborb.so.0')")
root=/usr/lib/ferrant2
grep -qaF "$root" "$lib/liborb.so.0" || fail "liborb does not look for its root in $root"
[ -x "$r$root/bin/forbserver" ] || fail "$root/bin/forbserver is missing"
[ "$(readlink "$r$root/data/pf")" = /etc/ferrant2 ] || fail "$root/data/pf does not lead to /etc/ferrant2"
for f in ferrant2.pf orbserver.pf orbserver_names.pf elog.pf orbserver-main.pf; do
    grep -qx "/etc/ferrant2/$f" "$tmp/control/conffiles" || fail "/etc/ferrant2/$f is not a conffile"
done
for f in usr/include/ferrant2/orb/orb.h usr/share/man/man1/ferrant2.1.gz usr/share/man/man8/orbserver.8.gz; do
    [ -e "$r/$f" ] || fail "$f is not in the package"
done

# systemd-analyze checks what the units name (programs, manual pages) in the
# unpacked root, beside the system's own units that they order against.
if command -v systemd-analyze >/dev/null && [ -d /lib/systemd/system ]; then
    cp -an /lib/systemd/system/. "$r/lib/systemd/system/"
    man=no; command -v man >/dev/null && man=yes
    MANPATH="$r/usr/share/man" systemd-analyze verify --man=$man --root="$r" \
        orbserver@main.service ferrant2-send@main.service ferrant2-recv@main.service > "$tmp/verify.log" 2>&1 ||
        { cat "$tmp/verify.log" >&2; fail "systemd-analyze verify failed"; }
    [ -s "$tmp/verify.log" ] && { cat "$tmp/verify.log" >&2; fail "systemd-analyze verify complained"; }
fi

# A file through a file-backed ring: forbserver is found under the root, the
# package's ferrant2.pf is read and the local one below overrides it.
export QUORVANE="$r$root" PFPATH="$r/etc/ferrant2:$tmp" LD_LIBRARY_PATH="$lib" PATH=/usr/bin:/bin
printf 'directory %s\nstarting_position oldest\n' "$tmp/in" > "$tmp/ferrant2.pf"
mkdir "$tmp/send"
head -c 300000 /dev/urandom > "$tmp/send/data.bin"
touch -d '1 hour ago' "$tmp/send/data.bin"
ring="$tmp/ring@s1M"
(cd "$tmp/send" && "$r/usr/bin/ferrant2" data.bin "$ring") 2> "$tmp/sender.log" ||
    { cat "$tmp/sender.log" >&2; fail "the unpacked sender failed"; }
"$r/usr/bin/ferrant2" -S "$tmp/state" "$ring" 2> "$tmp/receiver.log" &
bg=$!
await "$tmp/receiver.log" "data.bin did not arrive whole" cmp -s "$tmp/send/data.bin" "$tmp/in/data.bin"
echo "deb_test: OK"
