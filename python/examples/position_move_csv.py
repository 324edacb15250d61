#!/usr/bin/python3
"""A position move with streamed feedback written to CSV.

    position_move_csv.py [OUTPUT.csv] [BUS]     (defaults: standard output, "sim")

Streams position, speed and torque at 200 Hz while the actuator at 0x21 moves
to 1.0 and back to 0, one second each; every reply becomes one CSV row,
written from the transport's receive thread.
"""

import csv
import sys
import threading
import time

import ocp_api

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items
ITEMS = [Items.POS_FB_4C, Items.SPD_FB_45, Items.T_FB_49]


def main(output=None, bus_name="sim", address=0x21, hold_s=1.0):
    try:
        bus = ocp_api.open_bus(bus_name)
    except (OSError, ValueError) as error:
        print(f"{bus_name}: {error}", file=sys.stderr)
        return 2
    joint = Actuator(bus, address)
    if not joint.connect(1.0):
        print(f"0x{address:02x} does not answer", file=sys.stderr)
        return 1

    out = open(output, "w", newline="") if output else sys.stdout
    writer = csv.writer(out)
    writer.writerow(["time_s"] + [item.name for item in ITEMS])
    lock = threading.Lock()
    started = time.monotonic()
    rows = 0

    def on_feedback(_address, items):
        nonlocal rows
        with lock:
            writer.writerow([f"{time.monotonic() - started:.4f}"] + [f"{items.get(item, float('nan')):.5f}" for item in ITEMS])
            rows += 1

    joint.setFeedbackItems(ITEMS)
    joint.set_feedback_callback(on_feedback)
    joint.setFeedbackRate(Actuator.Rates.RATE_200HZ)
    joint.start()
    for target in (1.0, 0.0):
        joint.change_position_setpoint(target)
        time.sleep(hold_s)
    joint.setFeedbackRate(0)
    joint.set_feedback_callback(None)
    joint.stop()
    with lock:
        if output:
            out.close()
        print(f"{rows} rows", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:3]))
