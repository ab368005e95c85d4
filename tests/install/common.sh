# Sourced by the installation tests after setting $name: a temporary directory
# $tmp, removed at exit together with the background process $bg; fail; and
# await, which runs a command every 0.1 s until it succeeds and fails (showing
# the log named) when $bg has died or after a minute.
tmp=$(mktemp -d "${TMPDIR:-/tmp}/ferrant-$name.XXXXXX")
bg=
cleanup() {
    [ -n "$bg" ] && kill "$bg" 2>/dev/null && { wait "$bg" 2>/dev/null || true; }
    rm -rf "$tmp"
}
trap cleanup EXIT INT TERM
fail() { echo "$name: $*" >&2; exit 1; }
await() {  # await LOG WHAT COMMAND...
    log=$1 what=$2 tries=0
    shift 2
    until "$@"; do
        tries=$((tries + 1))
        [ $tries -le 600 ] && kill -0 "$bg" 2>/dev/null || { cat "$log" >&2; fail "$what"; }
        sleep 0.1
    done
}
