#!/bin/sh
# Runs every benchmark program and prints their rows as one table.
build=${1:-build-release}
echo "| figure | measured | reference | ratio | bar |"
echo "|---|---|---|---|---|"
for b in "$build"/bench/*_bench; do
  [ -x "$b" ] || continue
  "$b" 2>"$b.log" | grep '^|' || echo "| $(basename "$b") | failed, see $b.log | | | |"
done
