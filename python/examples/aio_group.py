"""Three joints and an unplugged one in one control loop on the asyncio event
loop: 500 Hz for two seconds, every joint following a sine in impedance mode
from its latest feedback, then the loop's timing and each joint's counts.

    PYTHONPATH=build/python /usr/bin/python3 python/examples/aio_group.py [BUS]
"""

import asyncio
import math
import sys

from ocp_api import aio

JOINTS = (0x21, 0x22, 0x23)
UNPLUGGED = 0x30
RATE_HZ = 500


async def main(bus_text):
    async with aio.open_bus(bus_text) as bus, aio.Group() as group:
        for address in JOINTS + (UNPLUGGED,):
            group.add(bus, address)
        # One call sets up every joint (items, rate, mode) and leaves it stopped.
        group.set_up("POS_FB_4C", "SPD_FB_45", feedback_rate_hz=1000, mode="IMPEDANCE")
        try:
            await group.wait_for_feedback(timeout=0.5)
        except TimeoutError as error:  # aio.OcpTimeoutError
            print(error)
        group.reset_statistics()
        group.start_all()
        started = asyncio.get_running_loop().time()

        def period(snapshot, group):
            """Runs once a period with every joint's latest feedback."""
            t = snapshot.taken - started
            for index, joint in enumerate(snapshot.actuators):
                if joint.status == aio.FeedbackStatus.missing or not joint.running:
                    continue  # never command a joint on feedback that is not there
                target = 0.3 * math.sin(2 * math.pi * 0.5 * t)
                # The gains go out once in the full command, then only the
                # 5-byte setpoint frame while they stay the same.
                group.set_setpoint(index, target, k_stiff=40.0, k_damp=2.0)

        # The watchdog stops every joint if 20 periods in a row are missed.
        result = await group.run(period, rate_hz=RATE_HZ, duration=2.0, watchdog_missed_periods=20)
        loop = group.loop_statistics()
        print(f"{result.end}: {result.periods} periods, {loop.missed_periods} missed; period error "
              f"p50 {loop.period_error.p50_us:.0f} us, p99 {loop.period_error.p99_us:.0f} us")
        for joint, counts in zip(group.last_snapshot.actuators, group.statistics().actuators):
            print(f"0x{joint.address:02x} {joint.status:<7} position {joint.values['POS_FB_4C']:+.3f}  "
                  f"fresh {counts.fresh} stale {counts.stale} missing {counts.missing}  "
                  f"setpoints {counts.setpoints_full} full {counts.setpoints_short} short  "
                  f"age p99 {counts.feedback_age.p99_us:.0f} us")
    # Leaving the blocks stopped every joint and closed the bus.


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else "sim"))
