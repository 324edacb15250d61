"""Every class over the simulated bus: connect, scan, stream, parameters,
errors, address changes and the emulated actuators' controls."""

import datetime
import threading

import pytest

import ocp_api
from conftest import wait_until

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items
P = Actuator.OCP_Parameters


def test_connect_reads_model_and_firmware(sim_bus):
    device = sim_bus.add_actuator(0x21)
    assert device.address() == 0x21
    assert device.model_code() == 3
    assert device.firmware_word() == 0x0842
    joint = Actuator(sim_bus, 0x21)
    assert joint.connect(2.0)
    assert joint.is_connected()
    assert joint.model_name == "HERON_A"
    assert joint.firmware_version == "1.1.2"


def test_scanner_finds_the_emulated_actuators(capfd):
    # Replies 20 ms late: the scanner does not count one that beats its return
    # from send(), which a preempted test thread could otherwise see.
    sim_bus = ocp_api.SimBus(ocp_api.SimBusOptions(reply_latency=0.02))
    sim_bus.add_actuator(0x21)
    sim_bus.add_actuator(0x23, 6, 0x1001)
    scanner = ocp_api.OrreryActuatorScanner(sim_bus)
    assert scanner.scan(0x20, 0x24) == [0x21, 0x23]
    out = capfd.readouterr().out
    assert out == ("Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
                   "Device found: address 0x23 (35)\tmodel HERON_C\tfirmware 2.0.1\n")


def test_silent_device_times_out_with_empty_results(sim_bus, capfd):
    sim_bus.add_actuator(0x21).set_silent(True)
    joint = Actuator(sim_bus, 0x21)
    assert joint.connect(0.05) is False
    assert joint.getItemsBlocking([Items.POS_FB_41], 0.05) == {}
    assert joint.get_parameters([P.LIMIT_TORQUE], 0.05) == {}
    assert capfd.readouterr().err == "Timeout waiting for feedback items\nTimeout waiting for parameters\n"


def test_parameters_round_trip_and_survive_a_power_cycle_only_when_saved(sim_bus):
    device = sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    joint.set_parameters({P.LIMIT_TORQUE: 2.5})
    assert joint.get_parameters([P.LIMIT_TORQUE], 2.0) == {P.LIMIT_TORQUE: 2.5}
    device.power_cycle()
    assert joint.get_parameters([P.LIMIT_TORQUE], 2.0) == {P.LIMIT_TORQUE: 10.0}
    joint.set_parameters({P.LIMIT_TORQUE: 2.5})
    joint.save_config()
    # Commands are only queued for the bus's worker; an answered request sent
    # after them shows the device has handled them before it is power-cycled.
    assert joint.get_parameters([P.LIMIT_TORQUE], 2.0) == {P.LIMIT_TORQUE: 2.5}
    device.power_cycle()
    assert joint.get_parameters([P.LIMIT_TORQUE], 2.0) == {P.LIMIT_TORQUE: 2.5}
    everything = joint.get_parameters_all()
    assert len(everything) == 31
    assert all(isinstance(key, P) for key in everything)


def test_streamed_feedback_reaches_the_callback_as_member_keyed_dicts(sim_bus):
    sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    received = []
    joint.setFeedbackItems([Items.POS_FB_4C, Items.SPD_FB_45])
    joint.set_feedback_callback(lambda address, items: received.append((address, items)))
    joint.setFeedbackRate(Actuator.Rates.RATE_1KHZ)
    joint.start()
    joint.change_position_setpoint(1.0)
    assert wait_until(lambda: len(received) >= 50)
    address, items = received[-1]
    assert address == 0x21
    assert set(items) == {Items.POS_FB_4C, Items.SPD_FB_45}
    assert wait_until(lambda: received[-1][1][Items.POS_FB_4C] > 0.5)
    joint.setFeedbackRate(0)
    assert set(joint.get_feedback()) == {Items.POS_FB_4C, Items.SPD_FB_45}


def test_load_moves_the_emulated_shaft(sim_bus):
    device = sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    joint.start()
    joint.change_speed_setpoint(2.0)
    assert wait_until(lambda: device.get_speed() > 1.9)
    assert device.is_running()
    assert device.get_mode() == ocp_api.OrreryActuatorVirtual.Mode.SPEED  # the physics is the simulated actuator
    device.change_load(0.5)
    assert device.get_load() == 0.5
    assert device.get_bus_voltage() == 48.0
    device.set_bus_voltage(40.0)
    assert device.get_bus_voltage() == 40.0


def test_injected_errors_reach_the_error_callback(sim_bus):
    device = sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    reports = []
    joint.set_error_callback(lambda address, errors: reports.append((address, errors)))
    device.inject_errors(1 << 30)
    assert wait_until(lambda: reports)
    assert reports[0] == (0x21, {30: "Internal encoder error"})


def test_address_change_moves_the_device(sim_bus, capfd):
    sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    joint.changeAddress(0x05)
    assert capfd.readouterr().err == "Invalid address 5. Must be 0x10..0x3FFE\n"
    joint.changeAddress(0x30)
    assert joint.address == 0x30
    assert wait_until(lambda: sim_bus.counters().frames_handled == 1)
    assert sim_bus.actuator(0x30).address() == 0x30
    with pytest.raises(IndexError):
        sim_bus.actuator(0x21)
    # Replies now come from 0x30, where a new actuator object listens.
    moved = Actuator(sim_bus, 0x30)
    assert moved.connect(2.0)


def test_bad_addresses_raise_value_error(sim_bus):
    sim_bus.add_actuator(0x21)
    with pytest.raises(ValueError):
        sim_bus.add_actuator(0x21)
    with pytest.raises(ValueError):
        sim_bus.add_actuator(0x05)
    assert sim_bus.actuator_count() == 1


def test_blink_bootloader_and_counters(sim_bus):
    device = sim_bus.add_actuator(0x21)
    joint = Actuator(sim_bus, 0x21)
    joint.blink()
    joint.enter_bootloader()
    assert wait_until(lambda: device.blink_count() == 1 and device.in_bootloader())
    counters = sim_bus.counters()
    assert counters.frames_sent == 2
    assert counters.frames_lost == 0


def test_options_and_raw_callbacks(capfd):
    options = ocp_api.SimBusOptions(time_scale=2.0, reply_latency=datetime.timedelta(microseconds=500), seed=7)
    assert options.reply_latency == datetime.timedelta(microseconds=500)
    bus = ocp_api.SimBus(options)
    assert bus.options.time_scale == 2.0
    assert bus.options.seed == 7
    bus.add_actuator(0x21)
    replies = []
    arrived = threading.Event()

    def on_reply(address, data, kind):
        replies.append((address, data, kind))
        arrived.set()

    bus.setCallback(0x21, on_reply)
    assert bus.send(0x21, b"\x40")
    assert arrived.wait(10)
    assert replies == [(0x21, b"\x80\x03\x00\x42\x08", 0)]
    bus.removeCallback(0x21)
    bus.close()
    assert bus.send(0x21, b"\x40") is False
    assert bus.sim_time() > 0.0
