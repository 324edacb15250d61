#!/usr/bin/env bash
# Instructions per message through CanBus against a hand-written floor, from
# callgrind (exact counts, whatever else the machine is doing), and heap
# allocations per message in the steady state.
#
#   bench/can/can_cost.sh [BUILD_DIR]     (default build-bench; make bench builds it)
#
# Each figure is (I(2N) - I(N)) / N: two runs that differ only in the number
# of messages, so start-up, thread creation and tear-down cancel out.
set -euo pipefail
BIN=${1:-build-bench}/bench/can_cost
N=${CAN_COST_COUNT:-20000}
command -v valgrind >/dev/null || { echo "can_cost.sh: valgrind is not installed" >&2; exit 77; }

instructions() {  # MODE COUNT [ACTUATORS]
  local out
  out=$(mktemp)
  valgrind --tool=callgrind --callgrind-out-file="$out" "$BIN" "$@" >/dev/null 2>&1
  local total
  total=$(callgrind_annotate "$out" 2>/dev/null | awk '/PROGRAM TOTALS/ {gsub(",", "", $1); print $1}')
  rm -f "$out"
  echo "$total"
}

per_message() {  # MODE [ACTUATORS] -> instructions per message
  local small large
  small=$(instructions "$1" "$N" "${2:-1}")
  large=$(instructions "$1" $((2 * N)) "${2:-1}")
  echo $(( (large - small) / N ))
}

allocations_per_message() {  # MODE [ACTUATORS]
  "$BIN" "$1" "$N" "${2:-1}" | sed -E 's/.*allocations=([0-9]+).*/\1/' | awk -v n="$N" '{printf "%.2f", $1 / n}'
}

command_floor=$(per_message command-floor)
command=$(per_message command)
reply_floor=$(per_message reply-floor)
reply=$(per_message reply)
printf '%-40s %10s %10s %8s %14s\n' "per message" "CanBus" "floor" "ratio" "allocations"
printf '%-40s %10d %10d %7.1fx %14s\n' "single-frame command (SET_SETPOINT)" "$command" "$command_floor" \
  "$(echo "$command / $command_floor" | bc -l)" "$(allocations_per_message command)"
printf '%-40s %10d %10d %7.1fx %14s\n' "single-frame reply (1 item)" "$reply" "$reply_floor" \
  "$(echo "$reply / $reply_floor" | bc -l)" "$(allocations_per_message reply)"
echo
echo "classic CAN, 4-item replies (first frame, flow control, 2 consecutive frames), N in flight at once:"
for actuators in 1 4 16 48; do
  N=$((N / actuators > 500 ? N / actuators : 500))
  per_reply=$(( $(per_message segmented "$actuators") / actuators ))
  printf '  %2d in flight: %6d instructions per reply, %s allocations per reply\n' "$actuators" "$per_reply" \
    "$(echo "$(allocations_per_message segmented "$actuators") / $actuators" | bc -l | xargs printf '%.2f')"
  N=${CAN_COST_COUNT:-20000}
done
