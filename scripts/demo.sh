#!/bin/sh
# Sends a directory of sample files into a file-backed ring with ferrant2,
# receives them back with a second ferrant2, and checks every file and mode.
# Usage: sh scripts/demo.sh BUILD_DIR
set -eu

build=$(cd "${1:-build}" && pwd)
ferrant="$build/bin/ferrant2"
[ -x "$ferrant" ] || { echo "demo: $ferrant not built" >&2; exit 1; }
export QUORVANE="$build"

work=$(mktemp -d "${TMPDIR:-/tmp}/ferrant-demo.XXXXXX")
receiver=
server=
cleanup() {
    [ -n "$receiver" ] && kill "$receiver" 2>/dev/null && wait "$receiver" 2>/dev/null
    [ -n "$server" ] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

out="$work/outgoing"
in="$work/incoming"
mkdir -p "$out/reports/2026/november" "$out/empty dir" "$out/logs"
printf 'hello, ring\n' > "$out/hello.txt"
: > "$out/empty.dat"
head -c 1234567 /dev/urandom > "$out/reports/2026/november/big.bin"
seq 1 20000 > "$out/reports/numbers.txt"
printf 'spaces\n' > "$out/logs/name with spaces.log"
printf 'quote\n' > "$out/logs/it's;odd & strange.txt"
printf 'dash\n' > "$out/logs/ends-with-dash-"
printf 'secret\n' > "$out/logs/private.key"
chmod 600 "$out/logs/private.key"
chmod 755 "$out/hello.txt"
# Old enough to be taken at once: the sender waits for files to be quiet.
find "$out" -type f -exec touch -d '1 hour ago' {} +

cat > "$work/demo.pf" <<PF
directory $in
starting_position oldest
match
reject
preserve_directories yes
bytes_per_packet 60000
file_match
file_reject
test_freq 0.1
lag_trigger 0.5
lag_reset 0.2
wait_seconds 1
wait_match
wait_reject
use_orbputx no
PF

ring="$work/ring@s64M"
# An orbserver on the same ring file shows it at a glance while the demo runs.
"$build/bin/orbserver" -P 127.0.0.1:0 -H 127.0.0.1:0 -o "$work/port" -s 64M "$work/ring" 2> "$work/orbserver.log" &
server=$!
tries=0
while [ ! -s "$work/port" ] && kill -0 "$server" 2>/dev/null && [ $tries -lt 100 ]; do
    sleep 0.1; tries=$((tries + 1))
done
page=$(sed -n 's/.*status page at \(http[^ ]*\).*/\1/p' "$work/orbserver.log")
[ -n "$page" ] && echo "demo: the ring at a glance while the demo runs: $page"
echo "demo: sending $(find "$out" -type f | wc -l) files from $out"
(cd "$out" && "$ferrant" -p "$work/demo.pf" . "$ring") 2> "$work/sender.log" || {
    cat "$work/sender.log" >&2; echo "demo: sender failed" >&2; exit 1; }

echo "demo: receiving into $in"
"$ferrant" -p "$work/demo.pf" -S "$work/state" "$ring" 2> "$work/receiver.log" &
receiver=$!

want=$(find "$out" -type f | wc -l)
tries=0
while :; do
    have=$(grep -c '^ferrant2: received ' "$work/receiver.log" || true)
    [ "$have" -ge "$want" ] && break
    tries=$((tries + 1))
    if [ $tries -gt 600 ] || ! kill -0 "$receiver" 2>/dev/null; then
        cat "$work/receiver.log" >&2
        echo "demo: only $have of $want files arrived" >&2
        exit 1
    fi
    sleep 0.1
done
[ -n "$page" ] && curl -sf "${page}status.json" > "$work/status.json" 2>/dev/null &&
    echo "demo: $(grep -c '"srcname"' "$work/status.json") sources on the status page"
kill "$receiver"; wait "$receiver" 2>/dev/null || true
receiver=

bad=0
bytes=0
cd "$out"
find . -type f | while IFS= read -r f; do
    f=${f#./}
    if ! cmp -s "$f" "$in/$f"; then
        echo "demo: $f differs or is missing" >&2; echo x >> "$work/bad"
    elif [ "$(stat -c %a "$f")" != "$(stat -c %a "$in/$f")" ]; then
        echo "demo: $f has mode $(stat -c %a "$in/$f"), sent $(stat -c %a "$f")" >&2; echo x >> "$work/bad"
    fi
done
[ -f "$work/bad" ] && bad=$(wc -l < "$work/bad")
bytes=$(find . -type f -exec cat {} + | wc -c)
left=$(find "$in" -name '*-' ! -name 'ends-with-dash-' | wc -l)

echo "demo: $want files, $bytes bytes sent and received through $work/ring"
echo "demo: $((want - bad)) identical with their modes, $bad wrong, $left interim files left"
[ "$bad" -eq 0 ] && [ "$left" -eq 0 ] && echo "demo: OK" && exit 0
exit 1
