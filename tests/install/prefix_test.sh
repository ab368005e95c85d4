#!/bin/sh
# Installs the build into a temporary prefix, checks that every public header
# compiles alone, builds a reader and a writer of one's own against the
# installed tree through pkg-config, and moves packets between them through the
# installed orbserver.
# Usage: sh prefix_test.sh BUILD_DIR      (exit 77: skipped)
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
command -v pkg-config >/dev/null || { echo "skipped: no pkg-config"; exit 77; }
name=prefix_test
. "$here/common.sh"

p=$tmp/prefix
cmake --install "$build" --prefix "$p" >/dev/null
for f in bin/ferrant2 bin/orbserver bin/forbserver bin/orbstat data/pf/ferrant2.pf \
         share/man/man1/ferrant2.1 share/man/man5/pf.5 share/man/man8/orbserver.8 \
         lib/systemd/system/orbserver@.service lib/systemd/system/ferrant2-recv@.service; do
    [ -e "$p/$f" ] || fail "$f not installed"
done

# The .pc file names the configured prefix; --define-prefix takes the one it lies in.
pc=$(dirname "$(find "$p" -name orb.pc)")
export PKG_CONFIG_PATH="$pc"
cflags=$(pkg-config --define-prefix --cflags orb)
for h in $(cd "$p/include/ferrant2" && find . -name '*.h' | sort); do
    printf '#include "%s"\n' "${h#./}" | c++ -x c++ -fsyntax-only $cflags - ||
        fail "installed header $h does not compile alone"
done
c++ -o "$tmp/client" "$here/client.cc" $cflags $(pkg-config --define-prefix --libs orb) ||
    fail "client does not build against the installed tree"

# Compiled-in root and run path name the configured prefix, not this one.
export QUORVANE="$p" LD_LIBRARY_PATH="$(pkg-config --define-prefix --variable=libdir orb)"
ldd "$tmp/client" | grep -q "liborb.so.0 => $p/" || fail "client does not load the installed liborb"
"$p/bin/orbserver" -P 127.0.0.1:0 -s 1M -o "$tmp/port" "$tmp/ring" 2> "$tmp/server.log" &
bg=$!
await "$tmp/server.log" "orbserver did not start" test -s "$tmp/port"
addr=$(cat "$tmp/port")
"$tmp/client" w "$addr" 3
"$tmp/client" r "$addr" 3 > "$tmp/got"
printf 'outside/xfer %d packet %d\n' 0 0 1 1 2 2 > "$tmp/want"
diff "$tmp/want" "$tmp/got" || fail "packets read back differ from those written"
echo "prefix_test: OK"
