"""Command frames, byte for byte, through a transport written in Python."""

import math

import ocp_api
from conftest import f32_bytes

Actuator = ocp_api.OrreryActuator
Mode = Actuator.Mode
P = Actuator.OCP_Parameters
Items = Actuator.OCP_Items


def test_construction_registers_and_sends_nothing(transport):
    joint = Actuator(transport, 0x21)
    assert transport.events == [("set", 0x21)]
    assert transport.sent == []
    assert joint.address == 0x21
    assert joint.get_address() == 0x21
    assert joint.model_name == ""
    assert joint.firmware_version == "x.x.x"
    assert joint.connected is False
    assert joint.mode == Mode.SPEED


def test_destruction_sends_stop_and_removes_the_callback(transport):
    joint = Actuator(transport, 0x21)
    transport.clear()
    del joint
    assert transport.sent == [(0x21, b"\x02")]
    assert transport.events == [("send", 0x21), ("remove", 0x21)]


def test_short_and_long_setpoint_forms(transport):
    joint = Actuator(transport, 0x21)
    joint.change_setpoint(1.5, 0.0, 0.0)
    joint.change_setpoint(1.5, 0.0, 2.0)
    joint.change_setpoint(1.5)
    assert transport.frames() == [
        b"\x04" + f32_bytes(1.5),
        b"\x10" + f32_bytes(1.5, 0.0, 2.0),
        b"\x04" + f32_bytes(1.5),
    ]


def test_change_mode_always_sends_and_takes_unnamed_values(transport):
    joint = Actuator(transport, 0x21)
    joint.change_mode(Mode.SPEED)
    joint.change_mode(Mode.POSITION)
    joint.change_mode(2)
    assert transport.frames() == [b"\x03\x06", b"\x03\x07", b"\x03\x02"]
    assert int(joint.get_mode()) == 2


def test_first_position_setpoint_switches_mode_once(transport):
    joint = Actuator(transport, 0x21)
    joint.change_position_setpoint(1.0, 2.0, 3.0, 4.0, 5.0, 6.0)
    joint.change_position_setpoint(1.0, 2.0, 3.0, 4.0, 5.0, 6.0)
    setpoint = b"\x13" + f32_bytes(1.0, 2.0, 3.0, 4.0, 5.0, 6.0)
    assert transport.frames() == [b"\x03\x07", setpoint, setpoint]
    assert joint.mode == Mode.POSITION


def test_omitted_setpoint_arguments_are_nan(transport):
    joint = Actuator(transport, 0x21)
    joint.change_speed_setpoint(3.0)
    (frame,) = transport.frames()
    assert frame[:5] == b"\x12" + f32_bytes(3.0)
    assert frame[5:] == f32_bytes(math.nan) * 4
    assert math.isnan(ocp_api.UNCHANGED)


def test_impedance_setpoint_carries_eight_floats(transport):
    joint = Actuator(transport, 0x21)
    joint.change_impedance_setpoint(0.5, 0.0, 4.0, 0.2, 9.0, 1.5, 9.0, 9.0)
    assert transport.frames() == [b"\x03\x08", b"\x14" + f32_bytes(0.5, 0.0, 4.0, 0.2, 9.0, 1.5, 9.0, 9.0)]


def test_feedback_items_and_rate_frames_carry_the_period(transport):
    joint = Actuator(transport, 0x21)
    joint.setFeedbackItems([Items.POS_FB_4C, Items.SPD_FB_45])
    joint.setFeedbackRate(10000)
    joint.setFeedbackRate(1000)
    joint.setFeedbackRate(Actuator.Rates.RATE_OFF)
    joint.setFeedbackRate(3)
    joint.setFeedbackRate(Actuator.Rates.RATE_200HZ)
    assert transport.frames() == [
        b"\x07\x4c\x45",
        b"\x06\x01\x00\x00\x00",
        b"\x06\x0a\x00\x00\x00",
        b"\x06\x00\x00\x00\x00",
        b"\x06\x05\x0d\x00\x00",
        b"\x06\x32\x00\x00\x00",
    ]


def test_rates_out_of_range_send_nothing_and_say_why(transport, capfd):
    joint = Actuator(transport, 0x21)
    joint.setFeedbackRate(-1)
    joint.setFeedbackRate(10001)
    assert transport.frames() == []
    assert capfd.readouterr().err == "Rate must be non-negative\nRate cannot exceed 10000 Hz\n"


def test_get_parameters_all_asks_in_batches_of_nine(transport, capfd):
    joint = Actuator(transport, 0x21)
    assert joint.get_parameters_all() == {}
    assert transport.frames() == [bytes([0x0C, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09])]
    assert capfd.readouterr().err == "Timeout waiting for parameters\n"


def test_clear_config_warns_and_resets(transport, capfd):
    joint = Actuator(transport, 0x21)
    joint.save_config()
    joint.clear_config()
    assert transport.frames() == [b"\x39", b"\xc2"]
    assert capfd.readouterr().err == "Warning: Actuator configuration cleared. Device will reset.\n"


def test_raw_frame_goes_out_unchanged(transport):
    joint = Actuator(transport, 0x21)
    joint.send_ocp_common(b"\x41")
    joint.blink()
    assert transport.sent == [(0x21, b"\x41"), (0x21, b"\x41")]


def test_performance_presets(transport):
    joint = Actuator(transport, 0x21)
    joint.set_torque_performance(Actuator.TorquePerformance.PRESET_3)
    joint.set_speed_performance(Actuator.SpeedPerformance.PRESET_1)
    assert transport.frames() == [b"\x0d\x03", b"\x0e\x01"]


def test_factory_restore_stops_silences_clears_and_resets_local_state(transport, capfd):
    joint = Actuator(transport, 0x21)
    joint.change_mode(Mode.TORQUE)
    joint.set_can_high_speed(True)
    transport.deliver(0x21, b"\x41" + f32_bytes(1.0), 0)
    transport.clear()
    joint.restore_factory_parameters(0.0)
    assert transport.frames() == [b"\x02", b"\x06\x00\x00\x00\x00", b"\xc2"]
    assert capfd.readouterr().err == ""
    assert joint.mode == Mode.SPEED
    assert joint.can_high_speed is False
    assert joint.get_feedback() == {}
