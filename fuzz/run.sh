#!/usr/bin/env bash
# usage: run.sh DIRECTORY_OF_FUZZERS SECONDS: each fuzzer in turn, from its seeds. New inputs are kept
# below build/fuzz-corpus, so that the next run goes on from them.
set -euo pipefail
programs=$1 seconds=$2
cd "$(dirname "$0")/.."
for seeds in fuzz/seeds/*/; do
  name=$(basename "$seeds")
  found=build/fuzz-corpus/$name
  mkdir -p "$found"
  echo "== $name, ${seconds} s"
  log=build/fuzz-$name.log
  "$programs/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="build/fuzz-$name-" "$found" "$seeds" > "$log" 2>&1 \
    || { tail -60 "$log"; exit 1; }
  grep -E 'DONE|stat::(number_of_executed|slowest|peak)' "$log"
done
