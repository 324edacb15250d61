"""The python-can bridge on python-can's `virtual` interface: actuators driven
through PythonCanTransport against emulated devices hosted on another endpoint
of the same channel, with the frames the CAN mapping documents."""

import gc
import threading
import time
import uuid

import can
import pytest

import ocp_api
from conftest import wait_until

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items
P = Actuator.OCP_Parameters


@pytest.fixture
def channel():
    """Opens python-can virtual buses on one fresh channel; shuts them down after."""
    name = "ocp-" + uuid.uuid4().hex
    opened = []

    def open_bus():
        bus = can.Bus(interface="virtual", channel=name, receive_own_messages=False)
        opened.append(bus)
        return bus

    yield open_bus
    gc.collect()  # transports and device hosts go before their buses
    for bus in opened:
        bus.shutdown()


@pytest.fixture
def devices(channel):
    host = ocp_api.PythonCanDeviceHost(channel())
    yield host
    host.close()


def test_command_goes_out_as_the_documented_frame(channel):
    sniffer = channel()
    transport = ocp_api.PythonCanTransport(channel())
    assert transport.fd is False
    assert transport.send(0x21, b"\x40")
    frame = sniffer.recv(5.0)
    assert frame.arbitration_id == 0x00D00021
    assert frame.is_extended_id
    assert not frame.is_fd
    assert bytes(frame.data) == bytes([0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC])
    assert wait_until(lambda: transport.counters().messages_out == 1)
    transport.close()


def test_replies_arrive_with_their_kind(channel):
    device_side = channel()
    transport = ocp_api.PythonCanTransport(channel())
    inbox = []
    transport.setCallback(0x21, lambda address, data, kind: inbox.append((address, data, kind)))
    device_side.send(can.Message(arbitration_id=0x00D0C021, data=[0x05, 0x80, 0x03, 0x00, 0x42, 0x08, 0xCC, 0xCC]))
    device_side.send(can.Message(arbitration_id=0x00D04021, data=[0x01, 0x00]))
    device_side.send(can.Message(arbitration_id=0x123, is_extended_id=False, data=[1, 2]))  # not ours
    assert wait_until(lambda: len(inbox) == 2)
    assert inbox == [(0x21, b"\x80\x03\x00\x42\x08", 1), (0x21, b"\x00", 0)]
    assert wait_until(lambda: transport.counters().foreign_frames == 1)
    transport.close()


def test_actuator_against_emulated_devices(channel, devices):
    device = devices.add_actuator(0x21)
    joint = Actuator(ocp_api.PythonCanTransport(channel()), 0x21)
    assert joint.connect(2.0)
    assert (joint.model_name, joint.firmware_version) == ("HERON_A", "1.1.2")
    everything = joint.get_parameters_all()  # replies segmented over many frames
    assert len(everything) == 31
    assert everything[P.LIMIT_TORQUE] == 10.0
    joint.set_parameters({P.LIMIT_TORQUE: 2.5})
    # The answer holds every parameter read so far, the new value among them.
    assert joint.get_parameters([P.LIMIT_TORQUE], 2.0)[P.LIMIT_TORQUE] == 2.5
    joint.start()
    joint.change_position_setpoint(1.0)  # 25 bytes: segmented, with flow control
    assert wait_until(lambda: abs(device.get_position() - 1.0) < 0.01)
    assert device.get_mode() == ocp_api.OrreryActuatorVirtual.Mode.POSITION


def test_streamed_feedback_over_python_can(channel, devices):
    devices.add_actuator(0x21)
    joint = Actuator(ocp_api.PythonCanTransport(channel()), 0x21)
    received = []
    joint.setFeedbackItems([Items.POS_FB_4C, Items.SPD_FB_45])
    joint.set_feedback_callback(lambda address, items: received.append((address, items)))
    joint.setFeedbackRate(Actuator.Rates.RATE_1KHZ)
    assert wait_until(lambda: len(received) >= 50)
    assert all(address == 0x21 and set(items) == {Items.POS_FB_4C, Items.SPD_FB_45}
               for address, items in received[:50])
    answer = joint.getItemsBlocking([Items.VBUS_70], 2.0)
    assert answer == {Items.VBUS_70: 48.0}
    del joint  # while streaming at 1 kHz
    gc.collect()


class SlowToAnswer:
    """A python-can bus whose replies leave 20 ms late, as from a busy device.

    The scanner does not count a reply that beats its return from send(); on
    a loaded machine (or under a sanitizer) an emulated device on the same
    host can be that quick."""

    def __init__(self, bus):
        self.bus = bus

    def send(self, message, timeout=None):
        time.sleep(0.02)
        self.bus.send(message, timeout)

    def recv(self, timeout=None):
        return self.bus.recv(timeout)

    # What can.Notifier asks of a bus besides recv.
    channel_info = "slow to answer"

    def fileno(self):
        raise NotImplementedError


def test_scanner_over_python_can(channel, capfd):
    devices = ocp_api.PythonCanDeviceHost(SlowToAnswer(channel()))
    devices.add_actuator(0x21)
    devices.add_actuator(0x22, 2, (1 << 11) | (4 << 6) | 3)
    scanner = ocp_api.OrreryActuatorScanner(ocp_api.PythonCanTransport(channel()))
    assert scanner.scan(0x20, 0x23) == [0x21, 0x22]
    assert capfd.readouterr().out == ("Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
                                      "Device found: address 0x22 (34)\tmodel KESTREL_B\tfirmware 1.4.3\n")
    devices.close()


def test_can_fd_end_to_end(channel):
    devices = ocp_api.PythonCanDeviceHost(channel(), fd=True)
    devices.add_actuator(0x21)
    sniffer = channel()
    joint = Actuator(ocp_api.PythonCanTransport(channel(), fd=True), 0x21)
    assert joint.connect(2.0)
    assert len(joint.get_parameters_all()) == 31
    first = sniffer.recv(5.0)
    assert first.is_fd
    devices.close()


def test_a_bus_that_shuts_down_fails_cleanly(channel, devices, capfd):
    devices.add_actuator(0x21)
    host_side = channel()
    transport = ocp_api.PythonCanTransport(host_side)
    joint = Actuator(transport, 0x21)
    assert joint.connect(2.0)
    host_side.shutdown()
    assert joint.connect(0.1) is False
    assert joint.get_parameters([P.MODE], 0.1) == {}
    assert capfd.readouterr().err == "Timeout waiting for parameters\n"
    assert wait_until(lambda: transport.counters().link_errors >= 1)


def test_bad_device_address_raises(devices):
    with pytest.raises(ValueError):
        devices.add_actuator(0x4000)
    with pytest.raises(IndexError):
        devices.actuator(0x21)
    devices.add_actuator(0x21)
    devices.remove_actuator(0x21)
    assert devices.actuator_count() == 0


def test_two_bridge_endpoints_and_a_program_notifier_share_the_channel(channel):
    devices = ocp_api.PythonCanDeviceHost(channel())
    devices.add_actuator(0x21)
    host_side = channel()
    reader = can.BufferedReader()
    notifier = can.Notifier(host_side, [reader], timeout=0.1)
    try:
        with ocp_api.PythonCanTransport(host_side, notifier=notifier) as transport:
            joint = Actuator(transport, 0x21)
            # Every connect works: the transport does not compete with the
            # program's notifier for bus.recv, it listens on it.
            assert [joint.connect(2.0) for _ in range(20)] == [True] * 20
            # The program's own listener saw every ping reply too.
            replies = []
            while (message := reader.get_message(0.5)) is not None:
                replies.append(message)
            assert len(replies) == 20
            assert {message.arbitration_id for message in replies} == {0x00D04021}
            assert transport.bridge_counters().frames_received == 20
            del joint
        # Closed: the transport left the notifier, which goes on for the program.
        assert notifier.listeners == [reader]
    finally:
        notifier.stop()
        devices.close()


def test_a_flood_behind_a_stuck_receive_thread_is_bounded_and_counted(channel):
    sender = channel()
    transport = ocp_api.PythonCanTransport(channel())
    release = threading.Event()
    delivered = []

    def stuck_at_first(address, data, kind):
        delivered.append(data)
        release.wait(60.0)  # holds the receive thread; the notifier goes on

    transport.setCallback(0x21, stuck_at_first)
    flood = 10000
    for _ in range(flood):
        sender.send(can.Message(arbitration_id=0x00D04021, data=[0x01, 0x00]))
    assert wait_until(lambda: transport.bridge_counters().frames_received == flood, 60.0)
    bridge = transport.bridge_counters()
    # One frame is in the stuck callback, 4096 wait, the oldest others were dropped.
    assert (len(delivered), bridge.inbox_peak, bridge.inbox_drops) == (1, 4096, flood - 1 - 4096)
    release.set()
    assert wait_until(lambda: len(delivered) == 1 + 4096, 60.0)
    assert transport.counters().frames_in == 1 + 4096
    transport.close()


def test_streaming_replies_are_all_delivered_and_sends_are_batched(channel):
    devices = ocp_api.PythonCanDeviceHost(channel())
    transport = ocp_api.PythonCanTransport(channel())
    joints = []
    received = {}
    for address in (0x21, 0x22, 0x23):
        devices.add_actuator(address)
        joint = Actuator(transport, address)
        received[address] = 0
        joint.set_feedback_callback(lambda source, items: received.__setitem__(source, received[source] + 1))
        joint.setFeedbackItems([Items.POS_FB_4C, Items.SPD_FB_45, Items.T_FB_49, Items.VBUS_70])
        joints.append(joint)
    for joint in joints:
        joint.setFeedbackRate(200)  # the rate the bridge keeps up with is measured in python/bench
    assert wait_until(lambda: min(received.values()) >= 200, 60.0)
    for joint in joints:
        joint.setFeedbackRate(0)
    # Once streaming stopped, every reply the devices sent reached the host.
    assert wait_until(lambda: transport.counters().messages_in == devices.counters().replies_out, 30.0)
    assert transport.bridge_counters().inbox_drops == 0
    assert transport.counters().drops == 0
    # The host's setpoints: many frames, fewer GIL acquisitions of the sender.
    for step in range(300):
        joints[step % 3].change_position_setpoint(step * 0.001)
    assert wait_until(lambda: devices.counters().commands_in >= transport.counters().messages_out, 30.0)
    bridge = transport.bridge_counters()
    assert bridge.send_errors == 0
    assert bridge.send_batches < bridge.frames_sent
    del joints
    gc.collect()
    devices.close()
    transport.close()
