#!/usr/bin/env bash
# Runs every fuzz target of build/fuzz for a fixed time each:
#   scripts/fuzz.sh [seconds per target, 30 by default]
# A target starts from its checked-in corpus (tests/fuzz/corpus/NAME) and
# adds what it finds to a scratch folder. An input that crashes, leaks or
# breaks a property is written into the checked-in corpus, where the replay
# tests of every build keep it, and fails the run.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
targets=(spec text format status asio_registry dsound_names)
rc=0
for name in "${targets[@]}"; do
  program=$root/build/fuzz/bin/quillon_fuzz_$name
  corpus=$root/tests/fuzz/corpus/$name
  scratch=$root/build/fuzz/found/$name
  mkdir -p "$scratch"
  log=$root/build/fuzz/$name.log
  echo "-- $name"
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
      "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$corpus/regression-" "$scratch" "$corpus" >"$log" 2>&1; then
    # The last status line: executions, coverage and features.
    grep -E '^#[0-9]+' "$log" | tail -n 1
    grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' "$log"
  else
    echo "fuzz: $name failed; the input is in $corpus, the log follows"
    tail -n 60 "$log"
    rc=1
  fi
done
exit $rc
