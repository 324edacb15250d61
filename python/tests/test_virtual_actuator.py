"""The simulated actuator, with the values of the C++ tests."""

import math

import pytest

import ocp_api
from conftest import f32

Virtual = ocp_api.OrreryActuatorVirtual
Mode = Virtual.Mode
Items = Virtual.OCP_Items
P = Virtual.OCP_Parameters


def test_enumerations_are_nested_as_in_cpp():
    assert int(Virtual.OCP_Items.POS_FB_41) == 0x41
    assert int(ocp_api.OrreryActuator.OCP_Items.ERRORS_90) == 0x90
    assert int(Virtual.OCP_Parameters.CAN_HIGH_SPEED) == 0x85
    assert int(Virtual.Rates.RATE_10KHZ) == 10000
    assert int(Virtual.Mode.IMPEDANCE) == 8
    assert int(Virtual.TorquePerformance.PRESET_3) == 3
    assert int(Virtual.SpeedPerformance.PRESET_0) == 0
    assert len(Virtual.OCP_Items.__members__) == 48
    assert len(Virtual.OCP_Parameters.__members__) == 31
    # Distinct types with the same members, as in C++.
    Physical = ocp_api.OrreryActuator
    for name in ("OCP_Items", "OCP_Parameters", "Rates", "Mode", "TorquePerformance", "SpeedPerformance"):
        ours, theirs = getattr(Virtual, name), getattr(Physical, name)
        assert ours is not theirs
        assert {k: int(v) for k, v in ours.__members__.items()} == {k: int(v) for k, v in theirs.__members__.items()}
    assert Virtual.Mode.SPEED != Physical.Mode.SPEED
    assert int(Virtual.Mode.SPEED) == int(Physical.Mode.SPEED)


def test_bad_address_raises_value_error():
    with pytest.raises(ValueError, match="Invalid virtual actuator address"):
        Virtual(0x05)
    actuator = Virtual(0x21)
    with pytest.raises(ValueError, match="Invalid virtual actuator address"):
        actuator.change_address(0x3FFF)
    assert actuator.address == 0x21
    assert Virtual.is_valid_actuator_address(0x3FFE)


def test_stopped_actuator_only_advances_time():
    actuator = Virtual(0x21)
    actuator.change_setpoint(1.0)
    actuator.step(None, 10000)
    assert (actuator.position, actuator.speed, actuator.torque) == (0.0, 0.0, 0.0)
    assert actuator.get_sim_time(9) == f32(1.0000535)
    assert actuator.get_sim_time(3) == 1.0
    assert actuator.step_count == 10000


def test_position_law_one_step():
    actuator = Virtual(0x21)
    actuator.start()
    actuator.change_setpoint(1.0)
    actuator.step()
    assert actuator.get_speed() == 20.0
    assert actuator.get_torque() == 2.0
    assert actuator.get_position() == f32(20.0 * f32(0.0001))


def test_speed_law_one_step_with_load():
    actuator = Virtual(0x21)
    actuator.start()
    actuator.change_mode(Mode.SPEED)
    actuator.change_setpoint(5.0)
    actuator.step(0.5, 1)
    assert actuator.speed == 5.0
    assert actuator.position == f32(5.0 * f32(0.0001))
    assert actuator.torque == -0.5
    assert actuator.load == 0.5


def test_feedback_callback_runs_inside_step_with_member_keys():
    actuator = Virtual(0x21)
    seen = []
    actuator.set_feedback_items([Items.POS_FB_4C, Items.SPD_FB_45])
    actuator.set_feedback_rate(Virtual.Rates.RATE_1KHZ)
    actuator.set_feedback_callback(lambda address, items: seen.append((address, items)))
    actuator.start()
    actuator.change_mode(Mode.SPEED)
    actuator.change_setpoint(5.0)
    for _ in range(100):
        actuator.step()
    assert len(seen) == 10, "1 kHz over 10 ms of 0.1 ms steps"
    address, items = seen[-1]
    assert address == 0x21
    assert set(items) == {Items.POS_FB_4C, Items.SPD_FB_45}
    assert items[Items.SPD_FB_45] == 5.0


def test_items_not_streamed_are_nan_and_parameters_absent_are_nan():
    actuator = Virtual(0x21)
    actuator.set_feedback_items([Items.POS_FB_4C])
    got = actuator.get_items_blocking([Items.POS_FB_4C, Items.VBUS_70])
    assert got[Items.POS_FB_4C] == 0.0
    assert math.isnan(got[Items.VBUS_70])
    assert math.isnan(actuator.param_or_nan(P.K_STIFF))
    actuator.set_parameters({P.K_STIFF: 4.0})
    assert actuator.get_parameters([P.K_STIFF]) == {P.K_STIFF: 4.0}


def test_reports_are_plain_dicts():
    actuator = Virtual(0x21)
    info = actuator.get_info()
    assert isinstance(info, dict) and all(isinstance(k, str) for k in info)
    assert isinstance(actuator.get_debug_flags(), dict)
    assert isinstance(actuator.get_all_parameters(), dict)
    assert actuator.firmware_version.endswith("cpp-virtual-2.0.0")


def test_exception_in_a_simulated_callback_is_reported(unraisable):
    unraisable.install()
    actuator = Virtual(0x21)
    actuator.set_feedback_items([Items.POS_FB_4C])
    actuator.set_feedback_rate(10000)

    def fail(address, items):
        raise KeyError("boom")

    actuator.set_feedback_callback(fail)
    actuator.step()
    actuator.step()
    assert [entry[0] for entry in unraisable] == [KeyError, KeyError]
    assert unraisable[0][3] == "ocp_api.OrreryActuatorVirtual feedback callback"
    assert actuator.step_count == 2
