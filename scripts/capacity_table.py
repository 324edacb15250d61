#!/usr/bin/python3
"""Prints the README's capacity table, computed by `ocpctl plan`.

Usage: scripts/capacity_table.py [path/to/ocpctl]   (default: build/tools/ocpctl)
"""
import json
import subprocess
import sys

OCPCTL = sys.argv[1] if len(sys.argv) > 1 else "build/tools/ocpctl"
BUSES = [
    ("classic:500k", "classic 500 kbit/s"),
    ("classic:1M", "classic 1 Mbit/s"),
    ("fd:1M/2M", "CAN-FD 1/2 Mbit/s"),
    ("fd:1M/5M", "CAN-FD 1/5 Mbit/s"),
    ("fd:1M/8M", "CAN-FD 1/8 Mbit/s"),
]
COMMANDS = ["position", "setpoint"]
ITEMS = [1, 4, 8]


def plan(bus, command, items, rate):
    output = subprocess.run(
        [OCPCTL, "plan", "--can", bus, "--command", command, "--items", str(items), "--rate", str(rate), "--json"],
        check=True, capture_output=True, text=True).stdout
    return json.loads(output)


print("| bus | command | items | frames | bus time per actuator (µs) | actuators at 500 Hz | at 1 kHz |")
print("|---|---|---|---|---|---|---|")
for bus, bus_name in BUSES:
    for command in COMMANDS:
        for items in ITEMS:
            slow = plan(bus, command, items, 500)
            fast = plan(bus, command, items, 1000)
            print(f"| {bus_name} | {command} | {items} | {fast['frames_per_period']} "
                  f"| {fast['period_us_nominal']:.0f}–{fast['period_us_worst']:.0f} "
                  f"| {slow['max_actuators']} | {fast['max_actuators']} |")
