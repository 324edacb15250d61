"""Transports written in Python drive actuators end to end."""

import gc
import queue
import struct
import threading
import weakref

import pytest

import ocp_api
from conftest import wait_until

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items


class ForwardingTransport(ocp_api.OCP):
    """Passes everything to another transport: here the simulated bus."""

    def __init__(self, inner):
        super().__init__()
        self.inner = inner
        self.sent = 0

    def send(self, address, frame):
        self.sent += 1
        return self.inner.send(address, frame)

    def setCallback(self, address, callback):
        self.inner.setCallback(address, callback)

    def removeCallback(self, address):
        self.inner.removeCallback(address)

    def close(self):
        self.inner.close()


class ThreadedDeviceTransport(ocp_api.OCP):
    """A transport with its own Python receive thread and a fake device that
    answers pings with model 3, firmware 0x0842."""

    def __init__(self):
        super().__init__()
        self.callbacks = {}
        self.inbox = queue.Queue()
        self.receiver = threading.Thread(target=self._receive, daemon=True)
        self.receiver.start()

    def send(self, address, frame):
        self.inbox.put((address, bytes(frame)))
        return True

    def setCallback(self, address, callback):
        self.callbacks[address] = callback

    def removeCallback(self, address):
        self.callbacks.pop(address, None)

    def close(self):
        self.inbox.put(None)
        self.receiver.join()

    def _receive(self):
        while (item := self.inbox.get()) is not None:
            address, frame = item
            callback = self.callbacks.get(address)
            if frame == b"\x40" and callback is not None:
                callback(address, b"\x80" + struct.pack("<HH", 3, 0x0842), 0)


def test_forwarding_transport_connects_streams_and_reads_parameters(sim_bus):
    sim_bus.add_actuator(0x21)
    transport = ForwardingTransport(sim_bus)
    joint = Actuator(transport, 0x21)
    assert joint.connect(2.0)
    assert joint.model_name == "HERON_A"
    received = []
    joint.set_feedback_callback(lambda address, items: received.append(items))
    joint.setFeedbackItems([Items.POS_FB_4C])
    joint.setFeedbackRate(1000)
    assert wait_until(lambda: len(received) >= 20)
    joint.setFeedbackRate(0)
    limit = Actuator.OCP_Parameters.LIMIT_TORQUE
    assert joint.get_parameters([limit], 2.0) == {limit: 10.0}
    # ping, feedback items, rate 1000, rate 0, get_parameters
    assert transport.sent == 5


def test_transport_with_its_own_python_receive_thread():
    transport = ThreadedDeviceTransport()
    joint = Actuator(transport, 0x21)
    assert joint.connect(2.0)
    assert joint.firmware_version == "1.1.2"
    del joint
    transport.close()


def test_actuator_keeps_its_python_transport_alive():
    # The scanner does not count a reply that beats its return from send(),
    # and a send through Python takes a while under a sanitizer: the bus
    # answers after 20 ms here.
    sim_bus = ocp_api.SimBus(ocp_api.SimBusOptions(reply_latency=0.02))
    sim_bus.add_actuator(0x21)
    joint = Actuator(ForwardingTransport(sim_bus), 0x21)
    gc.collect()
    assert joint.connect(2.0), "the transport's Python methods are still there"
    scanner = ocp_api.OrreryActuatorScanner(ForwardingTransport(sim_bus))
    gc.collect()
    assert scanner.scan(0x21, 0x21) == [0x21]


def test_transport_is_released_with_its_last_actuator(sim_bus):
    transport = ForwardingTransport(sim_bus)
    gone = weakref.ref(transport)
    joint = Actuator(transport, 0x21)
    del transport
    gc.collect()
    assert gone() is not None
    del joint
    gc.collect()
    assert gone() is None


def test_failing_send_is_reported_and_counts_as_not_sent(unraisable):
    unraisable.install()

    class Broken(ocp_api.OCP):
        def send(self, address, frame):
            raise OSError("adapter unplugged")

        def setCallback(self, address, callback):
            pass

        def removeCallback(self, address):
            pass

        def close(self):
            pass

    transport = Broken()
    joint = Actuator(transport, 0x21)
    joint.start()
    joint.send_ocp_common(b"\x01")
    assert [entry[:2] for entry in unraisable] == [(OSError, "adapter unplugged")] * 2
    assert unraisable[0][3] == "ocp_api.OCP.send"


def test_missing_method_is_reported_not_fatal(unraisable):
    unraisable.install()

    class Incomplete(ocp_api.OCP):
        def send(self, address, frame):
            return True

    joint = Actuator(Incomplete(), 0x21)
    joint.stop()
    assert unraisable[0][:2] == (NotImplementedError, "OCP subclass does not implement setCallback()")


def test_removed_callback_is_never_called_again(transport):
    joint = Actuator(transport, 0x21)
    kept = transport.callbacks[0x21]
    assert isinstance(kept, ocp_api.ReceiveCallback)
    assert kept.address == 0x21
    joint.disconnect()
    assert 0x21 not in transport.callbacks
    # The transport misbehaves and calls the callback it kept: nothing happens.
    assert kept(0x21, b"\x41\x00\x00\x80\x3f", 0) is False
    assert joint.get_feedback() == {}


def test_receive_callback_takes_any_bytes_like(transport):
    joint = Actuator(transport, 0x21)
    record = [0x41, 0x00, 0x00, 0x80, 0x3F]
    assert transport.deliver(0x21, bytearray(record))
    assert transport.deliver(0x21, memoryview(bytes(record)))
    assert transport.deliver(0x21, record)
    assert joint.get_feedback() == {Items.POS_FB_41: 1.0}
    with pytest.raises(TypeError):
        transport.deliver(0x21, 3.5)
