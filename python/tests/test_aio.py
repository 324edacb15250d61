"""ocp_api.aio: awaitables that raise on a silent device, typed replies,
feedback as an async iterator that coalesces for a slow consumer, keyword
setpoints, and async with that leaves devices stopped."""

import asyncio
import math
import time

import pytest

import ocp_api
from ocp_api import aio
from conftest import RecordingTransport, wait_until

Items = aio.Items
P = aio.ParameterIds


def run(coroutine):
    return asyncio.run(coroutine)


def test_every_awaitable_raises_a_timeout_error_on_a_silent_address(sim, capsys):
    async def main():
        bus = aio.Bus(sim)
        silent = bus.actuator(0x30)
        failures = []
        for call in (silent.connect(0.05), silent.ping(0.05),
                     silent.get_parameters("MODE", timeout=0.05),
                     silent.get_items(Items.VBUS_70, timeout=0.05),
                     bus.scan(0x30, 0x33, answer_period=0.02)):
            with pytest.raises(aio.OcpTimeoutError) as caught:
                await call
            failures.append((str(caught.value), caught.value.address, caught.value.operation))
        return failures

    assert run(main()) == [
        ("address 0x30: no answer to a ping within 0.05 s", 0x30, "connect"),
        ("address 0x30: no answer to a ping within 0.05 s", 0x30, "ping"),
        ("address 0x30: Timeout waiting for parameters", 0x30, "get_parameters"),
        ("address 0x30: Timeout waiting for feedback items", 0x30, "get_items"),
        ("no device answered on 0x30..0x33", None, "scan"),
    ]
    assert issubclass(aio.OcpTimeoutError, TimeoutError)
    assert capsys.readouterr() == ("", "")  # raised, not printed


def test_async_with_entering_a_silent_actuator_raises(sim):
    async def main():
        async with aio.Bus(sim).actuator(0x30, connect_timeout=0.05):
            pass

    with pytest.raises(TimeoutError):
        run(main())


def test_waiting_does_not_block_the_event_loop(sim):
    order = []

    async def ticker(started):
        started.set()
        order.append("other task ran")

    async def main():
        started = asyncio.Event()
        wait = asyncio.create_task(aio.Bus(sim).actuator(0x30).get_parameters("MODE", timeout=0.5))
        asyncio.get_running_loop().call_soon(lambda: asyncio.ensure_future(ticker(started)))
        await started.wait()
        with pytest.raises(TimeoutError):
            await wait
        order.append("wait ended")

    run(main())
    assert order == ["other task ran", "wait ended"]


def test_replies_are_typed_with_address_values_and_arrival(sim):
    async def main():
        async with aio.Bus(sim) as bus:
            async with bus.actuator(0x22) as joint:
                before = time.monotonic()
                ping = await joint.ping()
                limits = await joint.get_parameters(P.LIMIT_TORQUE, "LIMIT_SPEED_MAX")
                items = await joint.get_items("VBUS_70")
                after = time.monotonic()
                return before, ping, limits, items, after, repr(joint)

    before, ping, limits, items, after, shown = run(main())
    assert (ping.address, ping.model, ping.firmware) == (0x22, "KESTREL_B", "1.4.3")
    assert before <= ping.arrival - ping.round_trip and ping.arrival <= after
    assert isinstance(limits, aio.Parameters) and limits.address == 0x22
    assert limits.values == {P.LIMIT_TORQUE: 10.0, P.LIMIT_SPEED_MAX: 50.0}
    assert limits["LIMIT_TORQUE"] == limits[P.LIMIT_TORQUE] == 10.0
    assert limits.by_name() == {"LIMIT_TORQUE": 10.0, "LIMIT_SPEED_MAX": 50.0}
    assert isinstance(items, aio.Feedback) and items.address == 0x22
    assert dict(items) == {Items.VBUS_70: 48.0}
    assert before <= limits.arrival <= items.arrival <= after
    assert shown == "<aio.Actuator address=0x22 model='KESTREL_B' firmware='1.4.3' connected mode=SPEED>"


def test_scan_returns_the_devices_in_address_order(sim):
    found = run(aio.Bus(sim).scan(0x10, 0x30))
    assert found == [aio.Device(0x21, "HERON_A", 3, "1.1.2"), aio.Device(0x22, "KESTREL_B", 2, "1.4.3"),
                     aio.Device(0x23, "HERON_C", 6, "2.0.1")]


def test_keyword_setpoints_send_the_frames_of_the_mirror_class():
    async def main(transport):
        joint = aio.Bus(transport).actuator(0x21)
        joint.set_position(1.5, t_ff=2.0)
        joint.set_speed(-3.0, speed_ff=0.5)
        joint.set_torque(0.25)
        joint.set_impedance(0.5, k_stiff=20.0, k_damp=0.5)
        joint.set_mode("SPEED")
        joint.set_parameters(LIMIT_TORQUE=2.5)
        joint.close()

    through_aio = RecordingTransport()
    run(main(through_aio))
    mirror = RecordingTransport()
    joint = ocp_api.OrreryActuator(mirror, 0x21)
    joint.change_position_setpoint(1.5, t_ff=2.0)
    joint.change_speed_setpoint(-3.0, speed_ff=0.5)
    joint.change_torque_setpoint(0.25)
    joint.change_impedance_setpoint(0.5, k_stiff=20.0, k_damp=0.5)
    joint.change_mode(aio.Mode.SPEED)
    joint.set_parameters({P.LIMIT_TORQUE: 2.5})
    joint.disconnect()
    del joint  # gone, as the aio actuator is
    assert len(through_aio.frames()) == 12  # with the mode switches and the closing STOP
    assert through_aio.frames()[-1] == b"\x02"
    assert through_aio.frames() == mirror.frames()


def test_feedback_as_an_async_iterator(sim):
    async def main():
        async with aio.Bus(sim).actuator(0x21) as joint:
            joint.start()
            joint.set_position(1.0)
            replies = []
            async with joint.feedback("POS_FB_4C", Items.SPD_FB_45, rate_hz=500) as stream:
                async for reply in stream:
                    replies.append(reply)
                    if reply["POS_FB_4C"] > 0.5:
                        break
            return replies, stream

    replies, stream = run(main())
    assert len(replies) >= 2
    assert all(r.address == 0x21 and set(r) == {Items.POS_FB_4C, Items.SPD_FB_45} for r in replies)
    assert [r.arrival for r in replies] == sorted(r.arrival for r in replies)
    assert replies[-1]["POS_FB_4C"] > 0.5
    assert stream.received >= len(replies)


class CountingLoop:
    """An event loop whose call_soon_threadsafe is counted."""

    def __init__(self, loop):
        self.loop = loop
        self.handovers = 0

    def call_soon_threadsafe(self, *args):
        self.handovers += 1
        return self.loop.call_soon_threadsafe(*args)

    def __getattr__(self, name):
        return getattr(self.loop, name)


def test_a_slow_consumer_gets_the_latest_reply_not_a_queue(sim):
    async def main():
        async with aio.Bus(sim).actuator(0x21) as joint:
            async with joint.feedback() as stream:
                counting = CountingLoop(stream._loop)
                stream._loop = counting
                joint.driver.setFeedbackItems([Items.POS_FB_4C])
                joint.driver.setFeedbackRate(1000)
                # Hold the event loop while replies stream in (a consumer busy elsewhere).
                assert wait_until(lambda: stream.received >= 100)
                handovers_while_held = counting.handovers
                first = await stream.next(timeout=5.0)
                skipped = stream.coalesced
                second = await stream.next(timeout=5.0)
                return first, second, skipped, handovers_while_held

    first, second, skipped, handovers = run(main())
    # While the loop was held, one hand-over was scheduled, not one per reply,
    # and every reply but the newest was skipped.
    assert handovers == 1
    assert skipped >= 99
    assert second.arrival > first.arrival


def test_leaving_the_blocks_stops_the_device_and_the_stream(sim):
    device = sim.actuator(0x21)

    async def main():
        async with aio.Bus(sim).actuator(0x21) as joint:
            joint.start()
            joint.set_speed(5.0)
            assert wait_until(lambda: device.is_running() and device.get_speed() > 1.0)
            raise KeyboardInterrupt  # however the block ends

    with pytest.raises(KeyboardInterrupt):
        run(main())
    assert wait_until(lambda: not device.is_running())


def test_an_iteration_after_close_ends(sim):
    async def main():
        async with aio.Bus(sim).actuator(0x21) as joint:
            stream = joint.feedback("POS_FB_4C", rate_hz=100)
            await stream.next(timeout=5.0)
            stream.close()
            return [reply async for reply in stream]

    assert run(main()) == []


def test_no_feedback_in_time_is_a_timeout_error(sim):
    async def main():
        async with aio.Bus(sim).actuator(0x21) as joint:
            async with joint.feedback() as stream:  # nothing streaming
                await stream.next(timeout=0.05)

    with pytest.raises(aio.OcpTimeoutError, match=r"address 0x21: no feedback within 0.05 s"):
        run(main())
