#!/usr/bin/python3
"""Find the actuators, read their limits, move them all at once and watch
their feedback: a robot program with ocp_api.aio.

    PYTHONPATH=build/python /usr/bin/python3 python/examples/aio_move.py [BUS]

BUS is "sim" (emulated actuators, the default) or e.g. "socketcan:can0".
"""

import asyncio
import contextlib
import sys

from ocp_api import aio


async def move(joint, target):
    """Sends the setpoint and follows the feedback until the joint is there."""
    joint.start()
    joint.set_position(target)
    async with joint.feedback("POS_FB_4C", "SPD_FB_45", rate_hz=200) as stream:
        async for reply in stream:
            if abs(reply["POS_FB_4C"] - target) < 0.01:
                return reply


async def main(bus_text):
    async with aio.open_bus(bus_text) as bus, contextlib.AsyncExitStack() as joints:
        devices = await bus.scan(0x20, 0x24, attempts=3)
        actuators = [await joints.enter_async_context(bus.actuator(device.address)) for device in devices]
        for joint in actuators:
            print(joint)
        limits = await asyncio.gather(*(joint.get_parameters("LIMIT_TORQUE", "LIMIT_SPEED_MAX")
                                        for joint in actuators))
        for found in limits:
            print(f"0x{found.address:02x} limits {found.by_name()}")
        targets = [0.25 * (index + 1) for index in range(len(actuators))]
        replies = await asyncio.wait_for(asyncio.gather(*map(move, actuators, targets)), timeout=10.0)
        for reply, target in zip(replies, targets):
            print(f"0x{reply.address:02x} at {target:.2f} rad")
        try:
            await bus.actuator(0x30).ping(timeout=0.1)
        except TimeoutError as error:  # aio.OcpTimeoutError
            print(f"{type(error).__name__}: {error}")
    # Leaving the blocks stopped every actuator and closed the bus.


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else "sim"))
