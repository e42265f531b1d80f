#!/usr/bin/env bash
# Runs every fuzz target of a CAMFETCH_FUZZ build for a bounded time on a scratch copy of
# its committed seed corpus (tests/fuzz/corpus/<target>/), and prints one line per target.
set -euo pipefail
build=${1:-build-fuzz}
seconds=${2:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
findings="$build/findings"
mkdir -p "$findings"
status=0
for target in "$build"/tests/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  [ -d "$root/tests/fuzz/corpus/$name" ] && cp -r "$root/tests/fuzz/corpus/$name/." "$work/"
  log="$findings/$name.log"
  if "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
       -artifact_prefix="$findings/$name-" -print_final_stats=1 "$work" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
    echo "fuzz $name: ${runs} runs in ${seconds}s, no finding"
  else
    echo "fuzz $name: FINDING (see $log and $findings/$name-*)"
    tail -30 "$log"
    status=1
  fi
  rm -rf "$work"
done
exit $status
