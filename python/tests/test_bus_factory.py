"""Transports by name, and SocketCAN's errors on a machine without the interface."""

import pytest

import ocp_api


def test_open_bus_sim_gives_a_simulated_bus_with_the_listed_actuators():
    bus = ocp_api.open_bus("sim:0x21,0x40")
    assert isinstance(bus, ocp_api.SimBus)
    assert bus.actuator_count() == 2
    joint = ocp_api.OrreryActuator(bus, 0x40)
    assert joint.connect(2.0)
    assert joint.model_name == ocp_api.OrreryActuator.MODELS_NAMES[bus.actuator(0x40).model_code()]


def test_open_bus_rejects_an_unknown_scheme_naming_the_known_ones():
    with pytest.raises(ValueError) as raised:
        ocp_api.open_bus("nonsense:1")
    for name, _, _ in ocp_api.bus_schemes():
        assert name in str(raised.value)


def test_bus_schemes_lists_sim_and_socketcan():
    names = [name for name, usage, description in ocp_api.bus_schemes()]
    assert "sim" in names and "socketcan" in names


def test_missing_socketcan_interface_is_an_os_error_naming_it():
    with pytest.raises(OSError) as raised:
        ocp_api.SocketCanBus("ocpnosuch0")
    assert "ocpnosuch0" in str(raised.value)
    assert raised.value.errno is not None
    with pytest.raises(OSError):
        ocp_api.open_bus("socketcan:ocpnosuch0")
