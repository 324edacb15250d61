#!/usr/bin/env bash
# Runs every libFuzzer harness of a fuzzing build, two at a time, and fails on
# any finding. New inputs the fuzzers find go to BUILD_DIR/fuzz-corpus (the
# seed corpus in the repository is only read); crashing inputs go to
# BUILD_DIR/fuzz-findings/<harness>/, and each finding is printed with the
# command that reproduces it.
#
#   scripts/run-fuzzers.sh BUILD_DIR SECONDS [TOTAL_BUDGET]
#
# SECONDS is the time per harness. With TOTAL_BUDGET, the time per harness
# shrinks when needed so that all harnesses together take at most that long.
set -uo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS_PER_HARNESS [TOTAL_BUDGET_SECONDS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd) || exit 2
seconds=$2
budget=${3:-0}
parallel=2
source_dir=$(cd "$(dirname "$0")/.." && pwd)
seed_root="$source_dir/tests/fuzz/corpus"

harnesses=()
for program in "$build_dir"/tests/fuzz/fuzz_*; do
  [ -x "$program" ] && harnesses+=("$(basename "$program")")
done
if [ ${#harnesses[@]} -eq 0 ]; then
  echo "no fuzz harnesses in $build_dir/tests/fuzz" >&2
  exit 2
fi

# Harnesses run $parallel at a time, so rounds = ceil(count / parallel).
if [ "$budget" -gt 0 ]; then
  rounds=$(( (${#harnesses[@]} + parallel - 1) / parallel ))
  per_round=$(( budget / rounds ))
  [ "$per_round" -lt "$seconds" ] && seconds=$per_round
fi
echo "fuzzing ${#harnesses[@]} harnesses for ${seconds} s each, $parallel at a time"

run_one() {
  local program=$1 name=${1#fuzz_}
  local corpus="$build_dir/fuzz-corpus/$name" findings="$build_dir/fuzz-findings/$name"
  local log="$build_dir/fuzz-logs/$name.log"
  mkdir -p "$corpus" "$findings" "$build_dir/fuzz-logs"
  # -timeout flags an input that takes over 10 s (a wedged bus) as a finding.
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$build_dir/tests/fuzz/$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" "$seed_root/$name" >"$log" 2>&1
  local status=$?
  local runs
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$')
  if [ $status -eq 0 ]; then
    echo "  $name: ${runs:-?} inputs, no finding"
    return 0
  fi
  echo "  $name: FINDING (status $status), log $log"
  local input
  input=$(grep -o "Test unit written to .*" "$log" | sed 's/Test unit written to //' | tail -1)
  if [ -n "$input" ]; then
    echo "    input: $input"
    echo "    reproduce: $build_dir/tests/fuzz/$program $input"
  fi
  grep -E "Invariant broken|ERROR: AddressSanitizer|runtime error|ERROR: libFuzzer" "$log" | head -5 | sed 's/^/    /'
  return 1
}

failed=0
running=0
pids=()
for program in "${harnesses[@]}"; do
  run_one "$program" &
  pids+=($!)
  running=$((running + 1))
  if [ $running -ge $parallel ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
    running=$((running - 1))
  fi
done
for pid in "${pids[@]}"; do
  wait "$pid" || failed=1
done

if [ $failed -ne 0 ]; then
  echo "fuzzing found problems (inputs kept under $build_dir/fuzz-findings)"
  exit 1
fi
echo "fuzzing found nothing"
