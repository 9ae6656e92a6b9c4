#!/usr/bin/env bash
# Runs every fuzz target of a build directory for a bounded time each, starting from its committed seeds
# (tests/fuzz/corpus/<target>), and prints executions and coverage per target. New inputs go to a working corpus
# in the build directory, never into the committed one; a crash, a sanitizer report, a leak or a time-out
# leaves its input in <build>/findings and makes the script fail at the end, after every target has run.
# Usage: run-fuzzers.sh <build dir> [seconds per target] [target ...]
set -uo pipefail
build=$(realpath "${1:?build directory}")
seconds=${2:-60}
shift $(( $# > 1 ? 2 : 1 ))
here=$(cd "$(dirname "$0")" && pwd)
findings="$build/findings"
mkdir -p "$findings"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for binary in "$build"/tests/fuzz/fuzz_*; do
    [ -x "$binary" ] && targets+=("$(basename "$binary")")
  done
fi

failed=()
printf '%-22s %12s %8s %8s %s\n' target executions cov ft result
for target in "${targets[@]}"; do
  seeds="$here/corpus/$target"
  work="$build/corpus/$target"
  mkdir -p "$work"
  log="$build/$target.log"
  # -rss_limit_mb: an input that makes a parser hold a gigabyte is a finding; -timeout: so is one second of work
  # on a small input (the server's target waits for its answer over a socket, so it gets more).
  timeout_s=10
  [ "$target" = fuzz_server_http ] && timeout_s=20
  # FUZZ_SEED fixes libFuzzer's random choices, so that a landing is judged by the same mutations each time
  # (CI); without it every run explores anew.
  seed_option=()
  [ -n "${FUZZ_SEED:-}" ] && seed_option=(-seed="$FUZZ_SEED")
  "$build/tests/fuzz/$target" "$work" "$seeds" "${seed_option[@]}" -max_total_time="$seconds" -timeout="$timeout_s" \
    -rss_limit_mb=2048 -max_len=65536 -print_final_stats=1 -artifact_prefix="$findings/$target-" \
    >"$log" 2>&1
  status=$?
  execs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  cov=$(grep -oE '(DONE|INITED|pulse|NEW|REDUCE) +cov: [0-9]+' "$log" | tail -1 | awk '{print $NF}')
  ft=$(grep -oE 'ft: [0-9]+' "$log" | tail -1 | awk '{print $2}')
  result=ok
  if [ $status -ne 0 ]; then
    result="FAILED (exit $status, see $log)"
    failed+=("$target")
  fi
  printf '%-22s %12s %8s %8s %s\n' "$target" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$result"
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: findings in ${failed[*]}; their inputs are in $findings" >&2
  for target in "${failed[@]}"; do
    grep -m1 -A12 -E '^==[0-9]+==ERROR|runtime error|deadly signal|Timeout|out-of-memory' "$build/$target.log" >&2
  done
  exit 1
fi
