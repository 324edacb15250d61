"""Reply buffers decoded into dicts keyed by enumeration members, delivered
through a transport written in Python."""

import struct

import ocp_api
from conftest import f32, f32_bytes, wait_until

Actuator = ocp_api.OrreryActuator
Items = Actuator.OCP_Items
P = Actuator.OCP_Parameters


def ping_reply(model_code, firmware_word):
    return b"\x80" + struct.pack("<HH", model_code, firmware_word)


def error_reply(word):
    return b"\x82" + struct.pack("<I", word)


def test_streamed_item_updates_feedback_and_calls_back(transport):
    joint = Actuator(transport, 0x21)
    calls = []
    joint.set_feedback_callback(lambda address, items: calls.append((address, items)))
    assert transport.deliver(0x21, bytes([0x41, 0x00, 0x00, 0x80, 0x3F, 0x00]), 0)
    assert joint.get_feedback() == {Items.POS_FB_41: 1.0}
    assert calls == [(0x21, {Items.POS_FB_41: 1.0})]
    (key,) = calls[0][1]
    assert key is Items.POS_FB_41, "keys are the members themselves"


def test_unknown_record_drops_the_buffer_with_a_diagnostic(transport, capfd):
    joint = Actuator(transport, 0x21)
    joint.can_callback(0x21, bytes([0x41, 0x00, 0x00, 0x80, 0x3F, 0x4E, 0x00, 0x00, 0x00, 0x00]), 0)
    joint.can_callback(0, b"\x05", 0)
    assert capfd.readouterr().err == "Unknown command 0x4e\nUnknown command 0x5\n"
    assert joint.get_feedback() == {}


def test_ping_reply_sets_model_and_firmware(transport):
    joint = Actuator(transport, 0x21)
    transport.deliver(0x21, ping_reply(3, 0x0842))
    assert joint.model_name == "HERON_A"
    assert joint.firmware_version == "1.1.2"
    assert Actuator.parse_firmware_version(0x0842) == "1.1.2"
    assert Actuator.parse_firmware_version(0xFFFF) == "31.31.63"
    assert Actuator.MODELS_NAMES[5] == "CAN_ADAPTER"


def test_parameters_record_answers_get_parameters(transport):
    joint = Actuator(transport, 0x21)
    # Each parameter in its wire type: DEVICE_80 is an unsigned 32-bit word.
    record = b"\x83" + bytes([0x30]) + f32_bytes(48.0) + bytes([0x80]) + struct.pack("<I", 128) + bytes([0x81]) + f32_bytes(129.0)
    # The device answers from another thread while get_parameters waits.
    import threading

    answer = threading.Thread(
        target=lambda: wait_until(lambda: len(transport.frames()) == 1) and transport.deliver(0x21, record))
    answer.start()
    got = joint.get_parameters([P.MODE, P.DEVICE_80, P.ADDRESS], 5.0)
    answer.join()
    assert transport.frames() == [bytes([0x0C, 0x30, 0x80, 0x81])]
    assert got == {P.MODE: 48.0, P.DEVICE_80: 128.0, P.ADDRESS: 129.0}


def test_default_error_callback_reports_and_stops(transport, capfd):
    joint = Actuator(transport, 0x2A)
    transport.deliver(0x2A, error_reply((1 << 0) | (1 << 31)))
    assert sorted(capfd.readouterr().err.splitlines()) == [
        "Actuator 0x2a Error code: 0 - Overtemperature",
        "Actuator 0x2a Error code: 31 - External encoder error",
        "Actuator 0x2a Stopping (override error_callback to change)",
    ]
    assert transport.frames() == [b"\x02"]


def test_user_error_callback_replaces_the_default(transport, capfd):
    joint = Actuator(transport, 0x2A)
    seen = []
    joint.set_error_callback(lambda address, errors: seen.append((address, errors)))
    transport.deliver(0x2A, error_reply(1 << 30))
    joint.parse_errors(1 << 12)
    assert seen == [(0x2A, {30: "Internal encoder error"}), (0x2A, {12: "Control overrun"})]
    assert capfd.readouterr().err == ""
    assert transport.frames() == []


def test_requested_items_answer_get_items_blocking(transport):
    joint = Actuator(transport, 0x21)
    import threading

    value = f32(0.1)
    answer = threading.Thread(
        target=lambda: wait_until(lambda: len(transport.frames()) == 1)
        and transport.deliver(0x21, b"\x41" + f32_bytes(value), 1))
    answer.start()
    got = joint.getItemsBlocking([Items.POS_FB_41], 5.0)
    answer.join()
    assert transport.frames() == [b"\x0f\x41"]
    assert got == {Items.POS_FB_41: value}
