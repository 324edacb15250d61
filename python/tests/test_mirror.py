"""The mirror classes as a Python user meets them: enumerations by name, stubs
that describe what the objects are at run time, repr, context managers, and
the library's lines going through sys.stdout and sys.stderr."""

import ast
import contextlib
import io
import pathlib

import pytest

import ocp_api
from conftest import RecordingTransport, wait_until

Actuator = ocp_api.OrreryActuator
Virtual = ocp_api.OrreryActuatorVirtual
ENUMERATIONS = ["OCP_Items", "OCP_Parameters", "Rates", "Mode", "TorquePerformance", "SpeedPerformance"]
STUB = pathlib.Path(ocp_api.__file__).with_name("__init__.pyi")


@pytest.mark.parametrize("owner", [Actuator, Virtual])
@pytest.mark.parametrize("enumeration", ENUMERATIONS)
def test_every_member_is_found_by_its_name(owner, enumeration):
    cls = getattr(owner, enumeration)
    assert len(cls.__members__) > 0
    for name, member in cls.__members__.items():
        assert cls[name] is member
        assert member.name == name
        assert cls(int(member)) == member


def test_a_name_that_is_no_member_is_a_key_error():
    assert Actuator.OCP_Items["POS_FB_4C"] is Actuator.OCP_Items.POS_FB_4C
    assert int(Actuator.OCP_Items["POS_FB_4C"]) == 0x4C
    with pytest.raises(KeyError, match="POS_FB_4D is not a member of OrreryActuator.OCP_Items"):
        Actuator.OCP_Items["POS_FB_4D"]


def stub_classes():
    tree = ast.parse(STUB.read_text())
    return {node.name: node for node in tree.body if isinstance(node, ast.ClassDef)}


STUB_NAMES = {"OCP_Items": "_OCP_Items", "OCP_Parameters": "_OCP_Parameters", "Rates": "_Rates",
              "Mode": "_Mode", "TorquePerformance": "_Preset", "SpeedPerformance": "_Preset"}


@pytest.mark.parametrize("enumeration", ENUMERATIONS)
def test_stubs_declare_the_enumerations_as_they_are_at_run_time(enumeration):
    stub = stub_classes()[STUB_NAMES[enumeration]]
    declared = [node.target.id for node in stub.body if isinstance(node, ast.AnnAssign)]
    assert declared == list(getattr(Actuator, enumeration).__members__)
    # The extension's enumerations are not enum.Enum; the stub must not say they are.
    assert [ast.unparse(base) for base in stub.bases] == ["_Enumeration"]
    assert not issubclass(getattr(Actuator, enumeration), __import__("enum").Enum)


def test_stubs_name_every_exported_class_and_function():
    stub = ast.parse(STUB.read_text())
    declared = {node.name for node in stub.body if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    declared |= {target.id for node in stub.body if isinstance(node, ast.AnnAssign) for target in [node.target]}
    assert set(ocp_api.__all__) - declared == set()


def test_repr_shows_address_model_firmware_and_state(sim):
    joint = Actuator(sim, 0x21)
    assert repr(joint) == "<OrreryActuator address=0x21 model='' firmware='x.x.x' not connected mode=SPEED>"
    assert joint.connect(2.0)
    joint.change_mode(Actuator.Mode.POSITION)
    assert repr(joint) == "<OrreryActuator address=0x21 model='HERON_A' firmware='1.1.2' connected mode=POSITION>"
    found = ocp_api.scan_bus(sim, 0x20, 0x23)
    assert [repr(device) for device in found] == [
        "<FoundDevice address=0x21 model='HERON_A' firmware='1.1.2'>",
        "<FoundDevice address=0x22 model='KESTREL_B' firmware='1.4.3'>",
        "<FoundDevice address=0x23 model='HERON_C' firmware='2.0.1'>",
    ]


def test_a_bus_closes_at_the_end_of_its_with_block():
    with RecordingTransport() as transport:
        assert transport.events == []
    assert transport.events == [("close", -1)]
    with pytest.raises(RuntimeError):
        with RecordingTransport() as transport:
            raise RuntimeError("leaves the block")
    assert transport.events == [("close", -1)]


def test_an_actuator_is_stopped_and_disconnected_after_its_with_block(transport):
    with Actuator(transport, 0x21) as joint:
        joint.start()
        transport.clear()
    assert transport.sent == [(0x21, b"\x02")]
    assert transport.events == [("send", 0x21), ("remove", 0x21)]


def test_scan_lines_go_through_sys_stdout(sim, capsys):
    scanner = ocp_api.OrreryActuatorScanner(sim)
    redirected = io.StringIO()
    with contextlib.redirect_stdout(redirected):
        assert scanner.scan(0x21, 0x22) == [0x21, 0x22]
    assert redirected.getvalue() == ("Device found: address 0x21 (33)\tmodel HERON_A\tfirmware 1.1.2\n"
                                     "Device found: address 0x22 (34)\tmodel KESTREL_B\tfirmware 1.4.3\n")
    assert scanner.scan(0x23, 0x23) == [0x23]
    assert capsys.readouterr().out == "Device found: address 0x23 (35)\tmodel HERON_C\tfirmware 2.0.1\n"


def test_a_time_out_line_goes_through_sys_stderr(sim, capsys):
    silent = Actuator(sim, 0x30)
    assert silent.get_parameters([Actuator.OCP_Parameters.MODE], 0.05) == {}
    assert capsys.readouterr().err == "Timeout waiting for parameters\n"
    redirected = io.StringIO()
    with contextlib.redirect_stderr(redirected):
        assert silent.getItemsBlocking([Actuator.OCP_Items.VBUS_70], 0.05) == {}
    assert redirected.getvalue() == "Timeout waiting for feedback items\n"


def test_lines_from_the_receive_thread_go_through_sys_stderr(sim, capsys):
    joint = Actuator(sim, 0x21)
    assert joint.connect(2.0)
    sim.actuator(0x21).inject_errors(1 << 0)
    expected = "Actuator 0x21 Error code: 0 - Overtemperature\n"
    seen = []
    assert wait_until(lambda: seen.append(capsys.readouterr().err) or expected in "".join(seen))


def test_diagnostics_can_be_collected_instead_of_printed(sim, capsys):
    silent = Actuator(sim, 0x30)
    answer, lines = ocp_api._ocp_api._call_capturing_diagnostics(
        lambda: silent.get_parameters([Actuator.OCP_Parameters.MODE], 0.05))
    assert (answer, lines) == ({}, ["Timeout waiting for parameters"])
    assert capsys.readouterr().err == ""
