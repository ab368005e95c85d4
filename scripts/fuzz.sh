#!/bin/sh
# Runs every fuzz target in BUILD/fuzz for SECONDS each, from a scratch corpus
# seeded with tests/fuzz/corpus/<target>/ when present.
build=${1:-build-fuzz}; secs=${2:-60}
set -e
status=0
for f in "$build"/fuzz/*_fuzz; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  corpus=$(mktemp -d)
  [ -d "tests/fuzz/corpus/$name" ] && cp -r "tests/fuzz/corpus/$name"/. "$corpus"/
  echo "== $name: ${secs}s"
  if ! "$f" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz/$name-" "$corpus" 2>"$build/fuzz/$name.log"; then
    tail -n 40 "$build/fuzz/$name.log"; status=1
  else
    grep -E 'stat::number_of_executed_units|Done' "$build/fuzz/$name.log" | tail -n 2
  fi
  rm -rf "$corpus"
done
exit $status
