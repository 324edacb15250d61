"""Shared helpers: a recording transport written in Python, float32 values,
and waiting on a condition with a generous bound."""

import struct
import sys
import threading
import time

import pytest

import ocp_api


def f32(value):
    """`value` rounded to single precision, as the library computes."""
    return struct.unpack("<f", struct.pack("<f", value))[0]


def f32_bytes(*values):
    return b"".join(struct.pack("<f", v) for v in values)


def wait_until(condition, timeout_s=10.0):
    """True as soon as condition() holds; False after timeout_s."""
    deadline = time.monotonic() + timeout_s
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.001)
    return condition()


class RecordingTransport(ocp_api.OCP):
    """A transport in Python that records every call and lets a test deliver
    reply buffers, as the C++ tests' recording transport does."""

    def __init__(self):
        super().__init__()
        self.lock = threading.Lock()
        self.sent = []          # (address, frame bytes)
        self.events = []        # ("set" | "send" | "remove" | "close", address)
        self.callbacks = {}

    def send(self, address, frame):
        with self.lock:
            self.sent.append((address, bytes(frame)))
            self.events.append(("send", address))
        return True

    def setCallback(self, address, callback):
        with self.lock:
            self.callbacks[address] = callback
            self.events.append(("set", address))

    def removeCallback(self, address):
        with self.lock:
            self.callbacks.pop(address, None)
            self.events.append(("remove", address))

    def close(self):
        with self.lock:
            self.events.append(("close", -1))

    def frames(self):
        with self.lock:
            return [frame for _, frame in self.sent]

    def clear(self):
        with self.lock:
            self.sent.clear()
            self.events.clear()

    def deliver(self, address, data, kind=0):
        with self.lock:
            callback = self.callbacks.get(address)
        return callback is not None and callback(address, data, kind)


@pytest.fixture
def transport():
    return RecordingTransport()


@pytest.fixture
def sim_bus():
    bus = ocp_api.SimBus()
    yield bus
    bus.close()


class UnraisableLog(list):
    """What reaches sys.unraisablehook, from any thread, once install()ed.

    pytest puts its own hook in place around each test's body, so the test
    installs this one itself, inside its body."""

    def __init__(self, monkeypatch):
        super().__init__()
        self._monkeypatch = monkeypatch
        self._lock = threading.Lock()

    def install(self):
        self._monkeypatch.setattr(sys, "unraisablehook", self._hook)
        return self

    def _hook(self, info):
        with self._lock:
            self.append((info.exc_type, str(info.exc_value), info.err_msg, info.object))


@pytest.fixture
def unraisable(monkeypatch):
    return UnraisableLog(monkeypatch)


@pytest.fixture
def sim():
    """A simulated bus with the three emulated actuators of "sim" (0x21 HERON_A,
    0x22 KESTREL_B, 0x23 HERON_C). Replies leave 20 ms late: the scanners do not
    count a reply that beats their return from send(), which on a loaded
    machine an emulated device on the same host can do."""
    bus = ocp_api.SimBus(ocp_api.SimBusOptions(reply_latency=0.02))
    bus.add_actuator(0x21, 3, 0x0842)
    bus.add_actuator(0x22, 2, (1 << 11) | (4 << 6) | 3)
    bus.add_actuator(0x23, 6, (2 << 11) | 1)
    with bus:
        yield bus
