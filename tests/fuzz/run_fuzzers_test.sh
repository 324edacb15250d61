#!/usr/bin/env bash
# Checks scripts/run-fuzzers.sh against stand-in harnesses: one that finds
# nothing and one that reports a crashing input the way libFuzzer does. The
# runner must fail, name the finding's input and how to reproduce it, keep the
# clean harness's result, and scale the time per harness to the budget.
set -euo pipefail
runner="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tests/fuzz"

cat >"$work/tests/fuzz/fuzz_clean" <<'HARNESS'
#!/usr/bin/env bash
echo "args: $*"
echo "stat::number_of_executed_units: 1234"
HARNESS
cat >"$work/tests/fuzz/fuzz_broken" <<'HARNESS'
#!/usr/bin/env bash
for arg in "$@"; do case $arg in -artifact_prefix=*) prefix=${arg#-artifact_prefix=} ;; esac; done
printf 'boom' >"${prefix}crash-0123"
echo "Invariant broken: the stand-in always breaks"
echo "Test unit written to ${prefix}crash-0123"
exit 1
HARNESS
chmod +x "$work/tests/fuzz/fuzz_clean" "$work/tests/fuzz/fuzz_broken"

fail() { echo "FAIL: $*"; echo "--- output:"; cat "$work/out"; exit 1; }

status=0
"$runner" "$work" 30 15 >"$work/out" 2>&1 || status=$?
[ $status -eq 1 ] || fail "exit status $status, expected 1"
grep -qx "fuzzing 2 harnesses for 15 s each, 2 at a time" "$work/out" || fail "budget not applied"
grep -qx "  clean: 1234 inputs, no finding" "$work/out" || fail "clean harness not reported"
grep -qx "  broken: FINDING (status 1), log $work/fuzz-logs/broken.log" "$work/out" || fail "finding not reported"
grep -qx "    input: $work/fuzz-findings/broken/crash-0123" "$work/out" || fail "input path missing"
grep -qx "    reproduce: $work/tests/fuzz/fuzz_broken $work/fuzz-findings/broken/crash-0123" "$work/out" ||
  fail "reproduce command missing"
grep -qx "    Invariant broken: the stand-in always breaks" "$work/out" || fail "invariant text missing"
grep -q -- "-max_total_time=15 " "$work/fuzz-logs/clean.log" || fail "time per harness not passed on"
[ -f "$work/fuzz-findings/broken/crash-0123" ] || fail "finding not kept"

rm "$work/tests/fuzz/fuzz_broken"
"$runner" "$work" 30 >"$work/out" 2>&1 || fail "a clean run failed"
grep -qx "fuzzing found nothing" "$work/out" || fail "clean run not reported"
grep -qx "fuzzing 1 harnesses for 30 s each, 2 at a time" "$work/out" || fail "time per harness changed without a budget"
echo "run-fuzzers.sh behaves"
