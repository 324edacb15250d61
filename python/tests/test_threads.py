"""Threads: waiting calls let other Python threads run, callbacks report
their exceptions and never stop the stream, and objects can be deleted while
replies stream in."""

import gc
import threading
import time

import ocp_api
from conftest import wait_until

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items


def test_another_thread_progresses_while_connect_waits_on_a_silent_address(sim_bus, capfd):
    joint = Actuator(sim_bus, 0x21)  # nobody answers at 0x21
    ticks = 0
    stop = threading.Event()

    def count():
        nonlocal ticks
        while not stop.is_set():
            ticks += 1

    counter = threading.Thread(target=count)
    counter.start()
    started = time.monotonic()
    answered = joint.connect(0.3)
    waited = time.monotonic() - started
    ticks_during_wait = ticks
    stop.set()
    counter.join()
    assert answered is False
    assert waited >= 0.3
    # A thread starved by a held GIL would count a handful of times at most
    # (the interpreter switches every 5 ms only while bytecode runs).
    assert ticks_during_wait > 10000


def test_exception_in_a_callback_is_reported_and_streaming_goes_on(sim_bus, unraisable):
    unraisable.install()
    sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    calls = 0

    def fail_on_the_first(address, items):
        nonlocal calls
        calls += 1
        if calls == 1:
            raise RuntimeError("callback failed")

    joint.setFeedbackItems([Items.POS_FB_4C])
    joint.set_feedback_callback(fail_on_the_first)
    joint.setFeedbackRate(1000)
    assert wait_until(lambda: calls >= 20)
    joint.setFeedbackRate(0)
    assert len(unraisable) == 1
    exc_type, message, _, where = unraisable[0]
    assert exc_type is RuntimeError
    assert message == "callback failed"
    assert where == "ocp_api.OrreryActuator feedback callback"


def test_exception_in_an_error_callback_is_reported(sim_bus, unraisable):
    unraisable.install()
    device = sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)

    def fail(address, errors):
        raise ValueError("error callback failed")

    joint.set_error_callback(fail)
    device.inject_errors(1 << 30)
    assert wait_until(lambda: unraisable)
    assert unraisable[0][:2] == (ValueError, "error callback failed")
    assert joint.connect(2.0), "the receive thread is still alive"


def test_callback_may_call_back_into_the_actuator(sim_bus):
    sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    seen = []

    def on_feedback(address, items):
        seen.append((joint.get_feedback(), joint.address))
        if len(seen) == 5:
            joint.setFeedbackRate(0)  # sends from the receive thread

    joint.setFeedbackItems([Items.POS_FB_4C])
    joint.set_feedback_callback(on_feedback)
    joint.setFeedbackRate(500)
    assert wait_until(lambda: len(seen) >= 5)
    assert all(address == 0x21 and Items.POS_FB_4C in items for items, address in seen)


def test_del_of_an_actuator_while_streaming_at_1khz_is_clean(sim_bus):
    sim_bus.add_actuator(0x21)
    for _ in range(5):
        joint = Actuator(sim_bus, 0x21)
        calls = []
        joint.setFeedbackItems([Items.POS_FB_4C, Items.SPD_FB_45])
        joint.set_feedback_callback(lambda address, items: calls.append(items))
        joint.setFeedbackRate(1000)
        assert wait_until(lambda: len(calls) >= 10)
        del joint
        gc.collect()
        settled = len(calls)
        time.sleep(0.02)
        assert len(calls) == settled, "no callback after the actuator is gone"


def test_del_of_the_bus_and_actuator_while_streaming_is_clean():
    for _ in range(5):
        bus = ocp_api.SimBus()
        bus.add_actuator(0x21)
        joint = Actuator(bus, 0x21)
        calls = []
        joint.set_feedback_callback(lambda address, items: calls.append(items))
        joint.setFeedbackItems([Items.POS_FB_4C])
        joint.setFeedbackRate(1000)
        assert wait_until(lambda: len(calls) >= 10)
        del bus  # the actuator keeps it alive
        assert joint.connect(2.0)
        del joint  # now both go, while replies stream
        gc.collect()


def test_streaming_from_two_threads_at_once(sim_bus):
    for address in (0x21, 0x22):
        sim_bus.add_actuator(address)
    joints = [Actuator(sim_bus, 0x21), Actuator(sim_bus, 0x22)]
    counts = {0x21: 0, 0x22: 0}

    def on_feedback(address, items):
        counts[address] += 1

    for joint in joints:
        joint.set_feedback_callback(on_feedback)
        joint.setFeedbackItems([Items.POS_FB_4C])
        joint.setFeedbackRate(1000)

    def drive(joint):
        for i in range(200):
            joint.change_position_setpoint(i / 200)

    drivers = [threading.Thread(target=drive, args=(joint,)) for joint in joints]
    for thread in drivers:
        thread.start()
    for thread in drivers:
        thread.join()
    assert wait_until(lambda: min(counts.values()) >= 20)
    assert all(joint.getItemsBlocking([Items.POS_FB_41], 2.0) for joint in joints)
