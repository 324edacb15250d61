#!/usr/bin/python3
"""A periodic control loop on the asyncio event loop: 6 emulated actuators on
the simulated bus streaming at 500 Hz, a task waking every 2 ms that reads the
newest feedback of each (FeedbackStream.newest) and sends each a position
setpoint.

Reported: the period error (how late each wake-up is against its schedule)
and the feedback age (time since the newest reply arrived, at the moment the
loop reads it), p50 / p99 / max, and the process's CPU share.

    PYTHONPATH=build/python /usr/bin/python3 python/bench/bench_aio.py [--seconds N]
"""

import argparse
import asyncio
import math
import sys
import time

import ocp_api
from ocp_api import aio

ADDRESSES = [0x21 + i for i in range(6)]
PERIOD = 0.002


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


async def control_loop(seconds):
    sim = ocp_api.SimBus()
    for address in ADDRESSES:
        sim.add_actuator(address)
    async with aio.Bus(sim) as bus:
        joints = [bus.actuator(address) for address in ADDRESSES]
        for joint in joints:
            await joint.connect()
            joint.start()
        streams = [joint.feedback("POS_FB_4C", "SPD_FB_45", rate_hz=500) for joint in joints]
        for stream in streams:
            await stream.next(timeout=2.0)
        loop = asyncio.get_running_loop()
        lateness, ages = [], []
        periods = int(seconds / PERIOD)
        cpu_started, wall_started = time.process_time(), time.perf_counter()
        due = loop.time()
        for step in range(periods):
            due += PERIOD
            await asyncio.sleep(max(0.0, due - loop.time()))
            woke = loop.time()
            lateness.append(woke - due)
            now = time.monotonic()
            for joint, stream in zip(joints, streams):
                newest = stream.newest
                ages.append(now - newest.arrival)
                joint.set_position(0.5 * math.sin(step * PERIOD))
        cpu = (time.process_time() - cpu_started) / (time.perf_counter() - wall_started)
        for joint in joints:
            joint.close()
    return lateness, ages, cpu


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=10.0)
    args = parser.parse_args(argv)
    lateness, ages, cpu = asyncio.run(control_loop(args.seconds))
    print(f"asyncio control loop, 6 actuators, 500 Hz, {args.seconds:g} s; CPU {cpu * 100:.1f}% of a core")
    print(f"{'ms':<16} {'p50':>7} {'p99':>7} {'max':>7}")
    for name, values in (("period error", lateness), ("feedback age", ages)):
        print(f"{name:<16} {percentile(values, 0.5) * 1e3:7.3f} {percentile(values, 0.99) * 1e3:7.3f} "
              f"{max(values) * 1e3:7.3f}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
