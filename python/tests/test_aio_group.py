"""The control-loop group from Python: ocp_api.ActuatorGroup's snapshot and
statistics as named tuples, and aio.Group's periodic loop on the event loop
with its statuses, watchdog and exits that leave every actuator stopped.

Loops here end on a count of periods or on a state they wait for, with a
generous duration as the bound; nothing asserts how long anything took. The
simulated bus is closed by the fixture after the assertions: a STOP still
waiting for the bus's worker when it closes never reaches the device."""

import ast
import asyncio
import gc
import math
import os
import pathlib
import signal
import subprocess
import sys
import textwrap
import time
import uuid

import can
import pytest

import ocp_api
from ocp_api import aio
from conftest import wait_until

STREAMING = (0x21, 0x22)
SILENT = 0x30
BOUND_S = 10.0  # the longest any loop here may run before the test fails
# Loops that are not about the watchdog switch it off: a loaded machine (or a
# sanitizer build) may stall one long enough to trip it.
NO_WATCHDOG = {"watchdog_missed_periods": 0}


def run(coroutine):
    return asyncio.run(coroutine)


@pytest.fixture
def sim():
    bus = ocp_api.SimBus()
    for address in STREAMING:
        bus.add_actuator(address)
    with bus:
        yield bus


def running(sim, address):
    return sim.actuator(address).is_running()


def set_up_streaming(group, sim, *items, **set_up):
    """Adds the streaming actuators of `sim` to `group` and sets them up."""
    bus = aio.Bus(sim)
    for address in STREAMING:
        group.add(bus, address)
    group.set_up(*items, **set_up)


def start_streaming(group, sim):
    group.start_all()
    assert wait_until(lambda: all(running(sim, address) for address in STREAMING))


def stop_after(periods):
    """A period callback that ends the run after `periods` periods and keeps
    every snapshot it saw."""
    seen = []

    def period(snapshot, group):
        seen.append(snapshot)
        if len(seen) == periods:
            group.request_stop()

    return period, seen


def test_statuses_are_fresh_for_streaming_actuators_and_missing_for_a_silent_address(sim):
    async def main():
        bus = aio.Bus(sim)
        async with aio.Group(stale_after=BOUND_S) as group:
            for address in STREAMING + (SILENT,):
                group.add(bus, address)
            group.set_up("POS_FB_4C", "SPD_FB_45", feedback_rate_hz=1000, mode="POSITION")
            with pytest.raises(aio.OcpTimeoutError) as silent:
                await group.wait_for_feedback(timeout=0.5)
            group.reset_statistics()
            period, seen = stop_after(20)
            result = await group.run(period, rate_hz=200, duration=BOUND_S, **NO_WATCHDOG)
            return result, seen, silent.value, group.statistics()

    result, seen, silent, statistics = run(main())
    assert (str(silent), silent.address, silent.operation) == (
        "no feedback within 0.5 s from 0x30", SILENT, "wait_for_feedback")
    assert result == aio.LoopResult(aio.LoopEnd.stop_requested, 20)
    assert [snapshot.number for snapshot in seen] == list(range(seen[0].number, seen[0].number + 20))
    for snapshot in seen:
        assert [joint.address for joint in snapshot.actuators] == [0x21, 0x22, SILENT]
        for joint in snapshot.actuators[:2]:
            # Feedback streams at 1 kHz into a 200 Hz loop; stale_after is the
            # test's bound, so a loaded machine may make a value stale, never missing.
            assert joint.status in (aio.FeedbackStatus.fresh, aio.FeedbackStatus.stale)
            assert joint.sequence > 0 and joint.age >= 0.0 and joint.arrival <= snapshot.taken
            assert list(joint.values) == list(joint.words) == ["POS_FB_4C", "SPD_FB_45"]
            assert joint.answering and not joint.running and joint.link is None
        quiet = snapshot.actuators[2]
        assert quiet.status == aio.FeedbackStatus.missing == "missing"
        assert (quiet.sequence, quiet.arrival, quiet.age, quiet.answering) == (0, None, None, False)
        assert all(math.isnan(value) for value in quiet.values.values())
        assert quiet.fault == ocp_api.FaultRecord(False, 0, False, None, 0, ())
    for joint in statistics.actuators[:2]:
        assert joint.fresh >= 1 and joint.missing == 0 and joint.fresh + joint.stale == 20
        assert joint.feedback_age.count == 20
    assert (statistics.actuators[2].fresh, statistics.actuators[2].stale, statistics.actuators[2].missing) == (0, 0, 20)
    assert statistics.actuators[2].feedback_age.count == 0


def test_an_exception_in_the_callback_stops_every_actuator_and_passes_on(sim):
    calls = []

    async def main():
        async with aio.Group() as group:
            set_up_streaming(group, sim, "POS_FB_4C", mode="POSITION")
            await group.wait_for_feedback(timeout=BOUND_S)
            start_streaming(group, sim)

            def period(snapshot, group):
                calls.append(snapshot.number)
                if len(calls) == 3:
                    raise RuntimeError("joint limit")

            with pytest.raises(RuntimeError, match="joint limit"):
                await group.run(period, rate_hz=200, duration=BOUND_S, **NO_WATCHDOG)
            # Before the block ends: the run itself stopped them.
            assert wait_until(lambda: not any(running(sim, address) for address in STREAMING))
            return group.snapshot(), group.loop_statistics()

    snapshot, loop = run(main())
    assert len(calls) == 3
    assert [joint.running for joint in snapshot.actuators] == [False, False]
    assert loop.periods == 2  # the third period did not end


def test_leaving_async_with_stops_every_actuator_however_the_block_ends(sim):
    async def main():
        async with aio.Group() as group:
            set_up_streaming(group, sim, "POS_FB_4C", mode="SPEED")
            start_streaming(group, sim)
            raise KeyError("the program's own error")

    with pytest.raises(KeyError):
        run(main())
    assert wait_until(lambda: not any(running(sim, address) for address in STREAMING))


def test_cancelling_the_run_stops_every_actuator(sim):
    async def main():
        bus = aio.Bus(sim)
        group = aio.Group()
        for address in STREAMING:
            group.add(bus, address)
        group.set_up("POS_FB_4C", mode="SPEED")
        group.start_all()
        assert wait_until(lambda: all(running(sim, address) for address in STREAMING))
        period, seen = stop_after(0)
        task = asyncio.create_task(group.run(period, rate_hz=200, **NO_WATCHDOG))
        while len(seen) < 3:
            await asyncio.sleep(0.005)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        return group

    group = run(main())
    assert wait_until(lambda: not any(running(sim, address) for address in STREAMING))
    assert not group.group.feedback_lost


def test_the_watchdog_stops_the_group_when_a_coroutine_callback_hangs(sim):
    events = []

    async def main():
        async with aio.Group() as group:
            set_up_streaming(group, sim, "POS_FB_4C", mode="POSITION")
            start_streaming(group, sim)

            async def period(snapshot, group):
                events.append("period")
                if len(events) == 2:
                    try:
                        await asyncio.sleep(3600)
                    except asyncio.CancelledError:
                        events.append("cancelled")
                        raise

            result = await group.run(period, rate_hz=100, duration=BOUND_S, watchdog_missed_periods=3)
            # The run's own task was not left cancelled: it goes on normally.
            await asyncio.sleep(0)
            return result, group.loop_statistics()

    result, loop = run(main())
    assert result == aio.LoopResult(aio.LoopEnd.watchdog, 1)
    assert events[:3] == ["period", "period", "cancelled"]
    assert (loop.periods, loop.watchdog_trips) == (1, 1)
    assert wait_until(lambda: not any(running(sim, address) for address in STREAMING))


def test_the_watchdog_trips_when_something_else_blocks_the_event_loop_between_periods(sim):
    async def main():
        async with aio.Group() as group:
            set_up_streaming(group, sim, "POS_FB_4C", mode="POSITION")
            start_streaming(group, sim)
            calls = []

            def period(snapshot, group):
                calls.append(snapshot.number)
                if len(calls) == 2:
                    # Runs on the event loop after this period, while the
                    # loop waits for the next deadline: 10 periods and more.
                    asyncio.get_running_loop().call_soon(time.sleep, 0.1)

            result = await group.run(period, rate_hz=100, duration=BOUND_S, watchdog_missed_periods=3)
            return result, calls, group.loop_statistics()

    result, calls, loop = run(main())
    assert result == aio.LoopResult(aio.LoopEnd.watchdog, 2)
    assert len(calls) == 2 and loop.watchdog_trips == 1
    assert wait_until(lambda: not any(running(sim, address) for address in STREAMING))


def test_the_watchdog_thread_stops_every_actuator_while_a_callback_blocks_the_event_loop(sim):
    async def main():
        async with aio.Group() as group:
            set_up_streaming(group, sim, "POS_FB_4C", mode="POSITION")
            start_streaming(group, sim)
            seen_from_inside = []

            def period(snapshot, group):
                group.set_setpoint(0, 0.5)
                if snapshot.number == 2:
                    # Blocks the event loop until the devices are stopped:
                    # only a thread can have stopped them.
                    seen_from_inside.append(
                        wait_until(lambda: not any(running(sim, address) for address in STREAMING), BOUND_S))

            result = await group.run(period, rate_hz=100, duration=BOUND_S, watchdog_missed_periods=3)
            return result, seen_from_inside, group.loop_statistics(), group.statistics()

    result, seen_from_inside, loop, statistics = run(main())
    assert seen_from_inside == [True]
    assert result == aio.LoopResult(aio.LoopEnd.watchdog, 1)
    assert loop.watchdog_trips == 1
    # The blocked period's setpoint was not sent after the watchdog had stopped the devices.
    assert statistics.actuators[0].setpoints_short == 1


def test_loop_and_group_statistics_count_periods_and_frames(sim):
    async def main():
        bus = aio.Bus(sim)
        async with aio.Group() as group:
            for address in STREAMING:
                group.add(bus, address)
            group.set_up("POS_FB_4C", "SPD_FB_45", feedback_rate_hz=500, mode="IMPEDANCE")
            await group.wait_for_feedback(timeout=BOUND_S)
            group.start_all()
            group.reset_statistics()
            seen = []

            def period(snapshot, group):
                seen.append(snapshot)
                for index in range(len(group)):
                    # The gains are the same every period: one full command,
                    # then the 5-byte setpoint frame.
                    group.set_setpoint(index, 0.01 * len(seen), k_stiff=40.0, k_damp=2.0)
                if len(seen) == 2:
                    assert not group.set_setpoint(0, math.nan)  # refused, counted, the earlier one kept
                if len(seen) == 25:
                    group.request_stop()

            result = await group.run(period, rate_hz=250, duration=BOUND_S, **NO_WATCHDOG)
            return result, group.loop_statistics(), group.statistics()

    result, loop, statistics = run(main())
    assert result == aio.LoopResult(aio.LoopEnd.stop_requested, 25)
    assert loop.periods == 25 and loop.watchdog_trips == 0 and loop.missed_periods >= 0
    for timing in (loop.period_error, loop.callback_time):
        assert isinstance(timing, ocp_api.TimingSummary)
        assert timing.count == 25
        assert 0.0 <= timing.p50_us <= timing.p99_us <= timing.max_us
    assert [(a.address, a.setpoints_full, a.setpoints_short, a.setpoints_refused, a.setpoints_superseded)
            for a in statistics.actuators] == [(0x21, 1, 24, 1, 0), (0x22, 1, 24, 0, 0)]
    for joint in statistics.actuators:
        assert joint.fresh + joint.stale + joint.missing == 25 and joint.feedback_age.count <= 25
        assert (joint.faults, joint.restarts, joint.pings) == (0, 0, 0)
    (bus,) = statistics.buses
    assert bus.link is None and isinstance(bus.counters, ocp_api.SimBusCounters)
    assert bus.counters.frames_received >= 2 * 25


def test_one_group_over_a_python_can_bus_and_a_simulated_bus(sim):
    name = "ocp-" + uuid.uuid4().hex
    device_side = can.Bus(interface="virtual", channel=name, receive_own_messages=False)
    host_side = can.Bus(interface="virtual", channel=name, receive_own_messages=False)
    devices = ocp_api.PythonCanDeviceHost(device_side)
    devices.add_actuator(0x21)
    transport = ocp_api.PythonCanTransport(host_side)

    async def main():
        async with aio.Group(stale_after=BOUND_S) as group:
            assert group.add(transport, 0x21) == 0
            assert group.add(aio.Bus(sim), 0x21) == 1  # the same address on another bus
            group.set_up("POS_FB_4C", feedback_rate_hz=200, mode="POSITION")
            await group.wait_for_feedback(timeout=BOUND_S)
            group.start_all()
            assert wait_until(lambda: devices.actuator(0x21).is_running() and running(sim, 0x21))
            period, seen = stop_after(5)
            result = await group.run(period, rate_hz=100, duration=BOUND_S, **NO_WATCHDOG)
            return result, seen[-1], group.statistics()

    try:
        result, snapshot, statistics = run(main())
        assert result == aio.LoopResult(aio.LoopEnd.stop_requested, 5)
        over_can, simulated = snapshot.actuators
        assert (over_can.address, over_can.bus, simulated.address, simulated.bus) == (0x21, 0, 0x21, 1)
        assert over_can.link == ocp_api.CanLinkState.active == "active" and simulated.link is None
        assert over_can.running and simulated.running
        can_bus, sim_bus = statistics.buses
        assert can_bus.link == ocp_api.CanLinkState.active and isinstance(can_bus.counters, ocp_api.CanBusCounters)
        assert can_bus.counters.messages_in > 0
        assert sim_bus.link is None and isinstance(sim_bus.counters, ocp_api.SimBusCounters)
        # Leaving async with stopped both, on both buses.
        assert wait_until(lambda: not devices.actuator(0x21).is_running() and not running(sim, 0x21))
    finally:
        transport.close()
        devices.close()
        gc.collect()
        host_side.shutdown()
        device_side.shutdown()


def test_feedback_missing_too_long_stops_the_group(sim):
    async def main():
        async with aio.Group(stop_when_missing_for=0.05) as group:
            for address in STREAMING:
                group.add(sim, address)
            group.set_up("POS_FB_4C", feedback_rate_hz=1000, mode="POSITION")
            await group.wait_for_feedback(timeout=BOUND_S)
            group.start_all()
            assert wait_until(lambda: all(running(sim, address) for address in STREAMING))

            def period(snapshot, group):
                if snapshot.actuators[1].status == aio.FeedbackStatus.fresh:
                    sim.actuator(0x22).set_silent(True)  # unplugged while running

            result = await group.run(period, rate_hz=200, duration=BOUND_S, **NO_WATCHDOG)
            return result, group.snapshot()

    result, snapshot = run(main())
    assert result.end == aio.LoopEnd.feedback_lost
    assert [joint.running for joint in snapshot.actuators] == [False, False]
    assert snapshot.actuators[1].status == aio.FeedbackStatus.missing
    assert wait_until(lambda: not running(sim, 0x21))


CTRL_C_CHILD = textwrap.dedent("""
    import asyncio, sys, time
    import ocp_api
    from ocp_api import aio

    sim = ocp_api.SimBus()
    sim.add_actuator(0x21)

    async def main():
        async with aio.Group() as group:
            group.add(sim, 0x21)
            group.set_up("POS_FB_4C", mode="SPEED")
            group.start_all()
            def period(snapshot, group):
                if snapshot.number == 3:
                    print("looping", flush=True)
            await group.run(period, rate_hz=100, watchdog_missed_periods=0)

    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        give_up = time.monotonic() + 10
        while sim.actuator(0x21).is_running() and time.monotonic() < give_up:
            time.sleep(0.001)
        print("interrupted; running:", sim.actuator(0x21).is_running(), flush=True)
""")


def test_ctrl_c_ends_the_loop_with_every_actuator_stopped():
    child = subprocess.Popen([sys.executable, "-c", CTRL_C_CHILD], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             text=True, env=dict(os.environ))
    try:
        assert child.stdout.readline() == "looping\n"
        child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=60)
    finally:
        child.kill()
    assert (out, child.returncode) == ("interrupted; running: False\n", 0), err


def test_a_fault_is_decoded_in_the_snapshot(sim, capsys):
    async def main():
        bus = aio.Bus(sim)
        async with aio.Group() as group:
            for address in STREAMING:
                group.add(bus, address)
            group.set_up("POS_FB_4C", "ERRORS_90", mode="POSITION")
            await group.wait_for_feedback(timeout=BOUND_S)
            group.start_all()
            sim.actuator(0x21).inject_errors(0x00010001)

            def period(snapshot, group):
                if snapshot.actuators[0].fault.present and snapshot.actuators[0].words["ERRORS_90"]:
                    group.request_stop()

            result = await group.run(period, rate_hz=200, duration=BOUND_S, **NO_WATCHDOG)
            return result, group.last_snapshot, group.statistics()

    result, snapshot, statistics = run(main())
    assert result.end == aio.LoopEnd.stop_requested
    hurt, fine = snapshot.actuators
    assert hurt.fault.present and hurt.fault.severe and hurt.fault.error_word == 0x00010001
    assert hurt.fault.descriptions == ("Overtemperature", "Current maximum")
    assert hurt.fault.when is not None and hurt.fault.count == 1
    assert hurt.words["ERRORS_90"] == 0x00010001 and not hurt.running
    assert fine.fault.present is False and fine.running
    assert [joint.faults for joint in statistics.actuators] == [1, 0]
    assert "Actuator 0x21 Error code: 16 - Current maximum" in capsys.readouterr().err


def test_setpoint_keywords_follow_the_mode_and_unknown_ones_are_refused(sim):
    group = aio.Group()
    group.add(sim, 0x21)
    group.set_up("POS_FB_4C", mode="TORQUE")
    with pytest.raises(TypeError, match=r"'k_stiff' for this mode \(takes aux_0d, aux_0e, aux_0f, a5\)"):
        group.set_setpoint(0, 0.5, k_stiff=1.0)
    assert group.set_setpoint(0, 0.5, a5=1.0)
    group.group.stop_all()


def test_the_mirror_group_refuses_a_second_driver_for_an_address_and_stops_in_with(sim):
    with ocp_api.ActuatorGroup() as group:
        assert group.add(sim, 0x21) == 0
        with pytest.raises(ValueError, match="already in a group on this bus"):
            group.add(sim, 0x21)
        with pytest.raises(ValueError, match="already in a group on this bus"):
            ocp_api.ActuatorGroup().add(sim, 0x21)
        with pytest.raises(ValueError):
            group.add(sim, 0x05)
        assert len(group) == 1 and group.address(0) == 0x21
        items = ocp_api.OrreryActuator.OCP_Items
        group.set_up([items.POS_FB_4C], 1000, ocp_api.OrreryActuator.Mode.SPEED)
        group.start_all()
        assert wait_until(lambda: running(sim, 0x21))
    assert wait_until(lambda: not running(sim, 0x21))
    with pytest.raises(ValueError, match="stale_after"):
        ocp_api.ActuatorGroup(stale_after=0.0)


def test_timing_histogram_summarises_in_microseconds():
    histogram = ocp_api.TimingHistogram()
    assert histogram.summary() == ocp_api.TimingSummary(0.0, 0.0, 0.0, 0)
    for microseconds in (10, 20, 30, 1000):
        histogram.record(microseconds * 1e-6)
    summary = histogram.summary()
    assert summary.count == histogram.count == 4
    assert summary.max_us == pytest.approx(1000.0)
    assert 20.0 <= summary.p50_us <= 20.0 * 17 / 16 and summary.p99_us == summary.max_us


RECORDS = ["FaultRecord", "ActuatorSnapshot", "GroupSnapshot", "TimingSummary", "ActuatorStatistics",
           "BusStatistics", "GroupStatistics"]


def test_stubs_declare_the_records_and_statuses_as_they_are_at_run_time():
    stub = ast.parse(pathlib.Path(ocp_api.__file__).with_name("__init__.pyi").read_text())
    classes = {node.name: node for node in stub.body if isinstance(node, ast.ClassDef)}

    def fields(name):
        return tuple(node.target.id for node in classes[name].body if isinstance(node, ast.AnnAssign))

    for name in RECORDS:
        record = getattr(ocp_api, name)
        assert issubclass(record, tuple) and record.__module__ == "ocp_api"
        assert [ast.unparse(base) for base in classes[name].bases] == ["NamedTuple"]
        assert fields(name) == record._fields, name
    for name in ("FeedbackStatus", "CanLinkState"):
        enumeration = getattr(ocp_api, name)
        assert [ast.unparse(base) for base in classes[name].bases] == ["enum.StrEnum"]
        assert issubclass(enumeration, __import__("enum").StrEnum)
        declared = tuple(node.targets[0].id for node in classes[name].body if isinstance(node, ast.Assign))
        assert declared == tuple(enumeration.__members__) == tuple(member.value for member in enumeration)
