#!/usr/bin/python3
"""Cost of the bindings' hot paths, measured side by side with python-can's own
bus.send of one frame on its virtual interface (with a peer on the channel).

    PYTHONPATH=build/python /usr/bin/python3 python/bench/bench_bindings.py [--quick]

Each figure is the best of several runs of many calls, in microseconds per
call, and as a ratio to bus.send.
"""

import struct
import sys
import time
import uuid

import can

import ocp_api

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items


def best_per_call(body, calls, repeats):
    """Best time per call in microseconds over `repeats` runs of `calls` calls."""
    best = float("inf")
    for _ in range(repeats):
        started = time.perf_counter()
        body(calls)
        best = min(best, (time.perf_counter() - started) / calls)
    return best * 1e6


def python_can_send(calls, repeats):
    channel = "bench-" + uuid.uuid4().hex
    sender = can.Bus(interface="virtual", channel=channel)
    peer = can.Bus(interface="virtual", channel=channel)
    message = can.Message(arbitration_id=0x00D00021, data=[0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC])

    def body(n):
        for _ in range(n):
            sender.send(message)
        while peer.recv(0) is not None:  # keep the peer's queue from growing
            pass

    try:
        return best_per_call(body, calls, repeats)
    finally:
        sender.shutdown()
        peer.shutdown()


def setpoint_over_sim_bus(calls, repeats):
    bus = ocp_api.SimBus()
    bus.add_actuator(0x21)
    joint = Actuator(bus, 0x21)
    joint.start()

    def body(n):
        for i in range(n):
            joint.change_position_setpoint(0.001 * (i & 255))

    result = best_per_call(body, calls, repeats)
    del joint
    bus.close()
    return result


class NullTransport(ocp_api.OCP):
    """A transport written in Python that drops every frame."""

    def send(self, address, frame):
        return True

    def setCallback(self, address, callback):
        self.callback = callback

    def removeCallback(self, address):
        pass

    def close(self):
        pass


def setpoint_over_python_transport(calls, repeats):
    transport = NullTransport()
    joint = Actuator(transport, 0x21)
    joint.change_position_setpoint(0.0)

    def body(n):
        for i in range(n):
            joint.change_position_setpoint(0.001 * (i & 255))

    return best_per_call(body, calls, repeats)


def reply_dispatch(calls, repeats, with_callback):
    """One streamed reply with two items, delivered through the binding's
    receive path, with or without a (no-op) Python feedback callback."""
    transport = NullTransport()
    joint = Actuator(transport, 0x21)
    if with_callback:
        joint.set_feedback_callback(lambda address, items: None)
    deliver = transport.callback
    reply = bytes([int(Items.POS_FB_4C)]) + struct.pack("<f", 0.5) + bytes([int(Items.SPD_FB_45)]) + struct.pack("<f", 1.5)

    def body(n):
        for _ in range(n):
            deliver(0x21, reply, 0)

    return best_per_call(body, calls, repeats)


def main(argv):
    quick = "--quick" in argv
    calls, repeats = (2000, 3) if quick else (20000, 7)
    baseline = python_can_send(calls, repeats)
    setpoint_sim = setpoint_over_sim_bus(calls, repeats)
    setpoint_py = setpoint_over_python_transport(calls, repeats)
    dispatch_plain = reply_dispatch(calls, repeats, with_callback=False)
    dispatch_callback = reply_dispatch(calls, repeats, with_callback=True)
    overhead = max(dispatch_callback - dispatch_plain, 0.0)
    rows = [
        ("python-can virtual bus.send (one frame)", baseline),
        ("change_position_setpoint over SimBus", setpoint_sim),
        ("change_position_setpoint over a Python OCP", setpoint_py),
        ("streamed reply, no callback", dispatch_plain),
        ("streamed reply, Python callback", dispatch_callback),
        ("callback overhead per streamed reply", overhead),
    ]
    print(f"{'path':<46} {'us/call':>8} {'vs bus.send':>12}")
    for name, micros in rows:
        print(f"{name:<46} {micros:8.2f} {micros / baseline:11.2f}x")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
