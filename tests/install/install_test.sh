#!/bin/sh
# Installation and packaging, tried from outside as a user would (exit 77: skipped).
#   prefix BUILD_DIR: installs the build into a temporary prefix, compiles every public header alone,
#       builds a program of one's own through pkg-config, moves packets through the installed orbserver.
#   deb SOURCE_DIR: builds the Debian package, checks the layout the programs look up and its units
#       (systemd-analyze), and sends a file through a ring with the unpacked programs.
set -eu
mode=$1 dir=$2
here=$(cd "$(dirname "$0")" && pwd)
need() { for t; do command -v $t >/dev/null || { echo "skipped: no $t"; exit 77; }; done; }
if [ "$mode" = prefix ]; then need pkg-config; else need dpkg-buildpackage dh dpkg-deb fakeroot; fi
tmp=$(mktemp -d "${TMPDIR:-/tmp}/ferrant-$mode.XXXXXX")
bg=  # a background process, killed at exit
cleanup() { [ -n "$bg" ] && kill "$bg" 2>/dev/null && { wait "$bg" 2>/dev/null || true; }; rm -rf "$tmp"; }
trap cleanup EXIT INT TERM
fail() { echo "${mode}_test: $*" >&2; exit 1; }
# await LOG WHAT COMMAND...: runs COMMAND every 0.1 s until it succeeds; fails (showing LOG) when $bg
# has died or after a minute.
await() {
    log=$1 what=$2 tries=0
    shift 2
    until "$@"; do
        [ $((tries += 1)) -le 600 ] && kill -0 "$bg" 2>/dev/null || { cat "$log" >&2; fail "$what"; }
        sleep 0.1
    done
}
exists() { for f in "$@"; do [ -e "$root/$f" ] || fail "$f is not installed"; done; }

if [ "$mode" = prefix ]; then
    root=$tmp/prefix
    cmake --install "$dir" --prefix "$root" >/dev/null
    exists bin/ferrant2 bin/orbserver bin/forbserver bin/orbstat data/pf/ferrant2.pf \
        share/man/man1/ferrant2.1 share/man/man5/pf.5 share/man/man8/orbserver.8 \
        lib/systemd/system/orbserver@.service lib/systemd/system/ferrant2-recv@.service
    # The .pc file names the configured prefix; --define-prefix takes the one it lies in.
    export PKG_CONFIG_PATH="$(dirname "$(find "$root" -name orb.pc)")"
    cflags=$(pkg-config --define-prefix --cflags orb)
    for h in $(cd "$root/include/ferrant2" && find . -name '*.h' | sort); do
        printf '#include "%s"\n' "${h#./}" | c++ -x c++ -fsyntax-only $cflags - ||
            fail "installed header $h does not compile alone"
    done
    c++ -o "$tmp/client" "$here/client.cc" $cflags $(pkg-config --define-prefix --libs orb) ||
        fail "client does not build against the installed tree"
    # Compiled-in root and run path name the configured prefix, not this one.
    export QUORVANE="$root" LD_LIBRARY_PATH="$(pkg-config --define-prefix --variable=libdir orb)"
    ldd "$tmp/client" | grep -q "liborb.so.0 => $root/" || fail "client does not load the installed liborb"
    "$root/bin/orbserver" -P 127.0.0.1:0 -s 1M -o "$tmp/port" "$tmp/ring" 2> "$tmp/server.log" &
    bg=$!
    await "$tmp/server.log" "orbserver did not start" test -s "$tmp/port"
    "$tmp/client" "$(cat "$tmp/port")" 3 > "$tmp/got"
    printf 'outside/x packet %d\n' 0 1 2 | diff - "$tmp/got" || fail "packets read back differ"
    echo "prefix_test: OK"
    exit 0
fi

JOBS=2 sh "$dir/scripts/deb.sh" "$tmp/out" > "$tmp/deb.log" 2>&1 ||
    { cat "$tmp/deb.log" >&2; fail "make deb failed"; }
deb=$(ls "$tmp"/out/ferrant2_*.deb)
root=$tmp/root
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$tmp/control"
# The root compiled into liborb holds bin/forbserver and data/pf, the latter
# the conffiles in /etc/ferrant2.
lib=$(dirname "$(find "$root/usr/lib" -name 'liborb.so.0')")
top=/usr/lib/ferrant2
grep -qaF "$top" "$lib/liborb.so.0" || fail "liborb does not look for its root in $top"
[ "$(readlink "$root$top/data/pf")" = /etc/ferrant2 ] || fail "$top/data/pf does not lead to /etc/ferrant2"
for f in ferrant2.pf orbserver.pf orbserver_names.pf elog.pf orbserver-main.pf; do
    grep -qx "/etc/ferrant2/$f" "$tmp/control/conffiles" || fail "/etc/ferrant2/$f is not a conffile"
done
exists usr/include/ferrant2/orb/orb.h usr/share/man/man1/ferrant2.1.gz \
    usr/share/man/man8/orbserver.8.gz
# systemd-analyze checks what the units name (programs, manual pages) in the
# unpacked root, beside the system's own units that they order against.
if command -v systemd-analyze >/dev/null && [ -d /lib/systemd/system ]; then
    cp -an /lib/systemd/system/. "$root/lib/systemd/system/"
    man=no; command -v man >/dev/null && man=yes
    MANPATH="$root/usr/share/man" systemd-analyze verify --man=$man --root="$root" orbserver@main.service \
        ferrant2-send@main.service ferrant2-recv@main.service > "$tmp/verify.log" 2>&1 ||
        { cat "$tmp/verify.log" >&2; fail "systemd-analyze verify failed"; }
    [ -s "$tmp/verify.log" ] && { cat "$tmp/verify.log" >&2; fail "systemd-analyze verify complained"; }
fi
# A file through a file-backed ring: forbserver is found under the root, the
# package's ferrant2.pf is read and the local one below overrides it.
export QUORVANE="$root$top" PFPATH="$root/etc/ferrant2:$tmp" LD_LIBRARY_PATH="$lib" PATH=/usr/bin:/bin
printf 'directory %s\nstarting_position oldest\n' "$tmp/in" > "$tmp/ferrant2.pf"
mkdir "$tmp/send"
head -c 300000 /dev/urandom > "$tmp/send/data.bin"
touch -d '1 hour ago' "$tmp/send/data.bin"
(cd "$tmp/send" && "$root/usr/bin/ferrant2" data.bin "$tmp/ring@s1M") 2> "$tmp/sender.log" ||
    { cat "$tmp/sender.log" >&2; fail "the unpacked sender failed"; }
"$root/usr/bin/ferrant2" -S "$tmp/state" "$tmp/ring@s1M" 2> "$tmp/receiver.log" &
bg=$!
await "$tmp/receiver.log" "data.bin did not arrive whole" cmp -s "$tmp/send/data.bin" "$tmp/in/data.bin"
echo "deb_test: OK"
