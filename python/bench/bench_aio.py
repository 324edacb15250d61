#!/usr/bin/python3
"""A periodic control loop on the asyncio event loop: 6 emulated actuators on
the simulated bus streaming at 500 Hz, a loop waking every 2 ms that reads the
newest feedback of each and sends each a position setpoint, two ways, one
after the other: a hand-written task over the actuators' feedback streams
(FeedbackStream.newest), and aio.Group.run (the group's snapshot, setpoints in
the smallest frame, its own statistics).

Reported: the period error (how late each wake-up is against its schedule)
and the feedback age (time since the newest reply arrived, at the moment the
loop reads it), p50 / p99 / max, and the process's CPU share. The group's
figures are its histograms' (buckets 1/16 of a power of two wide).

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


async def group_loop(seconds):
    sim = ocp_api.SimBus()
    for address in ADDRESSES:
        sim.add_actuator(address)
    async with aio.Bus(sim) as bus, aio.Group() as group:
        for address in ADDRESSES:
            group.add(bus, address)
        group.set_up("POS_FB_4C", "SPD_FB_45", feedback_rate_hz=500, mode="POSITION")
        await group.wait_for_feedback(timeout=2.0)
        group.start_all()
        group.reset_statistics()

        def period(snapshot, group):
            target = 0.5 * math.sin(snapshot.number * PERIOD)
            for index in range(len(snapshot.actuators)):
                group.set_setpoint(index, target)

        cpu_started, wall_started = time.process_time(), time.perf_counter()
        await group.run(period, rate_hz=1.0 / PERIOD, duration=seconds)
        cpu = (time.process_time() - cpu_started) / (time.perf_counter() - wall_started)
        loop, statistics = group.loop_statistics(), group.statistics()
    ages = [joint.feedback_age for joint in statistics.actuators]
    age = (max(a.p50_us for a in ages), max(a.p99_us for a in ages), max(a.max_us for a in ages))
    return loop, age, cpu


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
    loop, age, cpu = asyncio.run(group_loop(args.seconds))
    print(f"aio.Group.run, same load: {loop.periods} periods, {loop.missed_periods} missed; "
          f"CPU {cpu * 100:.1f}% of a core")
    print(f"{'ms':<16} {'p50':>7} {'p99':>7} {'max':>7}")
    error = loop.period_error
    print(f"{'period error':<16} {error.p50_us * 1e-3:7.3f} {error.p99_us * 1e-3:7.3f} {error.max_us * 1e-3:7.3f}")
    print(f"{'feedback age':<16} {age[0] * 1e-3:7.3f} {age[1] * 1e-3:7.3f} {age[2] * 1e-3:7.3f}  (worst actuator)")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
