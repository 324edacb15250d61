#include "ocp_api/codec.hpp"
#include "ocp_api/message_decoder.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/wire.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using Items = OrreryActuator::OCP_Items;
using Parameters = OrreryActuator::OCP_Parameters;

Bytes command(wire::Command code) { return wire::make_frame(code); }

Bytes item_record(Items item, float value) {
    Bytes record;
    ocp_api::codec::ItemRecord::of(code_of(item), value).encode_into(record);
    return record;
}

std::string command_text(const Bytes& frame) { return decode_command(frame).text(); }
std::string reply_text(const Bytes& buffer) { return decode_reply(buffer).text(); }

// --- commands ------------------------------------------------------------

TEST(MessageDecoder, BareCommands) {
    EXPECT_EQ(command_text(command(wire::Command::START)), "START");
    EXPECT_EQ(command_text(command(wire::Command::PING)), "PING");
    EXPECT_EQ(command_text(command(wire::Command::CLEAR_CONFIG)), "CLEAR_CONFIG");
    EXPECT_EQ(command_text(command(wire::Command::SAVE_CONFIG)), "SAVE_CONFIG");
    EXPECT_EQ(command_text(command(wire::Command::BLINK)), "BLINK") << "0x41 is BLINK when sent";
}

TEST(MessageDecoder, ModeWithItsNameOrJustItsNumber) {
    EXPECT_EQ(command_text({0x03, 0x07}), "SET_MODE mode=POSITION(7)");
    EXPECT_EQ(command_text({0x03, 0x05}), "SET_MODE mode=TORQUE(5)");
    EXPECT_EQ(command_text({0x03, 0x02}), "SET_MODE mode=2");
}

TEST(MessageDecoder, SetpointsWithTheirArgumentNames) {
    Bytes position = command(wire::Command::SET_POSITION_SETPOINT);
    for (const float value : {1.0f, 0.5f, NAN, -2.25f, 0.1f, 3e-5f}) append_float(position, value);
    EXPECT_EQ(command_text(position),
              "SET_POSITION_SETPOINT position=1 speed_ff=0.5 aux_0e=nan aux_0d=-2.25 aux_0f=0.1 t_ff=3e-05");
    Bytes single = command(wire::Command::SET_SETPOINT);
    append_float(single, 1.5f);
    EXPECT_EQ(command_text(single), "SET_SETPOINT setpoint=1.5");
    Bytes torque = command(wire::Command::SET_TORQUE_SETPOINT);
    for (int i = 0; i < 5; ++i) append_float(torque, static_cast<float>(i));
    EXPECT_EQ(command_text(torque), "SET_TORQUE_SETPOINT torque=0 aux_0d=1 aux_0e=2 aux_0f=3 a5=4");
}

TEST(MessageDecoder, FloatsReadBackExactly) {
    Bytes frame = command(wire::Command::SET_SETPOINT);
    append_float(frame, 0.1f);
    const DecodedMessage message = decode_command(frame);
    ASSERT_EQ(message.parts.at(0).values.size(), 1u);
    EXPECT_EQ(static_cast<float>(message.parts[0].values[0].number), 0.1f);
    EXPECT_EQ(message.text(), "SET_SETPOINT setpoint=0.1");
    Bytes awkward = command(wire::Command::SET_SETPOINT);
    append_float(awkward, 16777217.0f);  // the float is 16777216
    EXPECT_EQ(command_text(awkward), "SET_SETPOINT setpoint=16777216");
}

TEST(MessageDecoder, FeedbackRateWithItsFrequency) {
    Bytes rate = command(wire::Command::SET_FEEDBACK_RATE);
    wire::append_u32(rate, ocp_api::codec::SetFeedbackRate::from_hz(1000).period);
    EXPECT_EQ(command_text(rate), "SET_FEEDBACK_RATE period=1000Hz(10)");
    Bytes off = command(wire::Command::SET_FEEDBACK_RATE);
    wire::append_u32(off, 0);
    EXPECT_EQ(command_text(off), "SET_FEEDBACK_RATE period=off(0)");
    Bytes odd = command(wire::Command::SET_FEEDBACK_RATE);
    wire::append_u32(odd, 3);
    EXPECT_EQ(command_text(odd), "SET_FEEDBACK_RATE period=3333.33Hz(3)");
}

TEST(MessageDecoder, ItemListsByName) {
    EXPECT_EQ(command_text({0x07, 0x4C, 0x45, 0x4C}), "SET_FEEDBACK_ITEMS POS_FB_4C SPD_FB_45 POS_FB_4C");
    EXPECT_EQ(command_text({0x07}), "SET_FEEDBACK_ITEMS");
    EXPECT_EQ(command_text({0x0F, 0x41}), "GET_ITEMS POS_FB_41");
}

TEST(MessageDecoder, ParametersByNameWithValues) {
    Bytes set = command(wire::Command::SET_PARAMETERS);
    ocp_api::codec::ParameterSetting{code_of(Parameters::LIMIT_TORQUE), 2.5f}.encode_into(set);
    ocp_api::codec::ParameterSetting{code_of(Parameters::MODE), 7.0f}.encode_into(set);
    ocp_api::codec::ParameterSetting{code_of(Parameters::ADDRESS), 48.0f}.encode_into(set);
    EXPECT_EQ(command_text(set), "SET_PARAMETERS LIMIT_TORQUE=2.5 MODE=POSITION(7) ADDRESS=48");
    EXPECT_EQ(command_text({0x0C, 0x04, 0x30}), "GET_PARAMETERS LIMIT_TORQUE MODE");
    EXPECT_EQ(command_text({0x0D, 0x02}), "SET_TORQUE_PERFORMANCE preset=2");
    EXPECT_EQ(command_text({0x0E, 0x00}), "SET_SPEED_PERFORMANCE preset=0");
}

TEST(MessageDecoder, CommandJson) {
    EXPECT_EQ(decode_command({0x03, 0x07}).json(),
              R"({"direction":"host_to_device","bytes":"0307","parts":[{"name":"SET_MODE","code":3,"values":[)"
              R"({"name":"mode","type":"u8","value":7,"meaning":"POSITION"}]}]})");
    Bytes set = command(wire::Command::SET_PARAMETERS);
    ocp_api::codec::ParameterSetting{code_of(Parameters::LIMIT_TORQUE), 2.5f}.encode_into(set);
    EXPECT_EQ(decode_command(set).json(),
              R"({"direction":"host_to_device","bytes":"0b0400002040","parts":[{"name":"SET_PARAMETERS","code":11,)"
              R"("values":[{"name":"LIMIT_TORQUE","code":4,"type":"f32","value":2.5}]}]})");
    EXPECT_EQ(decode_command({0x0C, 0x04}).json(),
              R"({"direction":"host_to_device","bytes":"0c04","parts":[{"name":"GET_PARAMETERS","code":12,)"
              R"("values":[{"name":"LIMIT_TORQUE","code":4}]}]})");
    Bytes nan_setpoint = command(wire::Command::SET_SETPOINT);
    append_float(nan_setpoint, NAN);
    EXPECT_NE(decode_command(nan_setpoint).json().find(R"("value":null)"), std::string::npos);
}

TEST(MessageDecoder, MalformedCommandsAreShownAsSuch) {
    const auto expect = [](const Bytes& frame, const std::string& text) {
        const DecodedMessage message = decode_command(frame);
        EXPECT_FALSE(message.well_formed()) << text;
        EXPECT_EQ(message.text(), text);
    };
    expect({}, "!! empty command frame []");
    expect({0x77, 0x01}, "!! unknown command 0x77 [7701]");
    expect({0x03}, "SET_MODE !! payload of 0 bytes, expected 1 [03]");
    expect({0x01, 0x00}, "START !! 1 byte after the payload [0100]");
    expect({0x04, 0x00, 0x00, 0xC0}, "SET_SETPOINT !! payload of 3 bytes, expected 4 [040000c0]");
    expect({0x07, 0x4C, 0x30}, "SET_FEEDBACK_ITEMS POS_FB_4C 0x30 !! unknown item code 0x30 [074c30]");
    expect({0x0B, 0x04, 0x00, 0x00, 0x20, 0x40, 0x05, 0x00},
           "SET_PARAMETERS LIMIT_TORQUE=2.5 !! truncated parameter entry: 2 of 5 bytes [0b04000020400500]");
    expect({0x0B, 0x99, 0x00, 0x00, 0x80, 0x3F},
           "SET_PARAMETERS 0x99=1 !! unknown parameter code 0x99 [0b990000803f]");
    expect({0x0C}, "GET_PARAMETERS !! no parameter entries [0c]");
    expect({0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0x0D},
           "GET_PARAMETERS K_DAMP K_STIFF T_FF LIMIT_TORQUE LIMIT_POSITION_MAX LIMIT_POSITION_MIN LIMIT_SPEED_MAX "
           "LIMIT_SPEED_MIN PROFILE_POSITION_MAX SETPOINT_AUX_0D !! 10 parameter entries, at most 9 "
           "[0c0102030405060708090d]");
    EXPECT_EQ(decode_command({0x77}).json(),
              R"({"direction":"host_to_device","bytes":"77","parts":[],"problem":"unknown command 0x77"})");
}

// --- replies -------------------------------------------------------------

TEST(MessageDecoder, ItemRecordsInTheirWireTypes) {
    const Bytes buffer = item_record(Items::POS_FB_4C, 1.5f) + item_record(Items::ITEM_42, 12.0f) +
                         item_record(Items::ITEM_4A, -3.0f) + item_record(Items::VBUS_70, 48.0f);
    EXPECT_EQ(reply_text(buffer), "ITEMS POS_FB_4C=1.5 ITEM_42=12 ITEM_4A=-3 VBUS_70=48");
    const DecodedMessage message = decode_reply(buffer, wire::REPLY_REQUESTED);
    EXPECT_EQ(message.parts.at(0).values.at(1).type, DecodedValue::Type::u32);
    EXPECT_EQ(message.parts.at(0).values.at(2).type, DecodedValue::Type::i32);
    EXPECT_EQ(message.json(),
              R"({"direction":"device_to_host","kind":1,"bytes":"4c0000c03f420c0000004afdffffff7000004042",)"
              R"("parts":[{"name":"ITEMS","code":76,"values":[{"name":"POS_FB_4C","code":76,"type":"f32","value":1.5},)"
              R"({"name":"ITEM_42","code":66,"type":"u32","value":12},{"name":"ITEM_4A","code":74,"type":"i32","value":-3},)"
              R"({"name":"VBUS_70","code":112,"type":"f32","value":48}]}]})");
}

TEST(MessageDecoder, PingReplyWithModelAndFirmware) {
    EXPECT_EQ(reply_text(ping_reply(3, 0x0842)), "PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842)");
    EXPECT_EQ(reply_text(ping_reply(99, 0x1001)), "PING_REPLY model=99 firmware=2.0.1(0x1001)");
    EXPECT_EQ(decode_reply(ping_reply(5, 0x0842)).json(),
              R"({"direction":"device_to_host","kind":0,"bytes":"8005004208","parts":[{"name":"PING_REPLY","code":128,)"
              R"("values":[{"name":"model","type":"u16","value":5,"meaning":"CAN_ADAPTER"},)"
              R"({"name":"firmware","type":"u16","value":2114,"meaning":"1.1.2"}]}]})");
}

// A streaming device may put its answer behind item records: both parts show,
// separated in the text and as two objects in the JSON.
TEST(MessageDecoder, AReplyOfTwoPartsShowsBoth) {
    const Bytes buffer = item_record(Items::POS_FB_4C, 1.5f) + ping_reply(3, 0x0842);
    EXPECT_EQ(reply_text(buffer), "ITEMS POS_FB_4C=1.5; PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842)");
    EXPECT_NE(decode_reply(buffer).json().find(R"("value":1.5}]},{"name":"PING_REPLY")"), std::string::npos)
        << decode_reply(buffer).json();
}

TEST(MessageDecoder, ErrorFlagsWithDescriptions) {
    EXPECT_EQ(reply_text(error_reply((1u << 0) | (1u << 16) | (1u << 1))),
              "ERROR_FLAGS flags=0x00010003 bit0=\"Overtemperature\" bit1=\"unknown error bit\" "
              "bit16=\"Current maximum\"");
    EXPECT_EQ(reply_text(error_reply(0)), "ERROR_FLAGS flags=0x00000000");
}

TEST(MessageDecoder, ParametersInTheirWireTypes) {
    Bytes buffer{static_cast<uint8_t>(wire::RecordCode::PARAMETERS)};
    ocp_api::codec::ParameterEntry::of(code_of(Parameters::LIMIT_TORQUE), 2.5f).encode_into(buffer);
    ocp_api::codec::ParameterEntry::of(code_of(Parameters::DEVICE_80), 12.0f).encode_into(buffer);
    ocp_api::codec::ParameterEntry::of(code_of(Parameters::MODE), 6.0f).encode_into(buffer);
    EXPECT_EQ(reply_text(buffer), "PARAMETERS LIMIT_TORQUE=2.5 DEVICE_80=12 MODE=SPEED(6)");
    buffer.push_back(0x00);
    EXPECT_TRUE(decode_reply(buffer).well_formed()) << "a zero code ends the entries";
}

TEST(MessageDecoder, EmptyRepliesAndEndRecords) {
    EXPECT_EQ(reply_text({}), "(empty)");
    EXPECT_EQ(reply_text({0x00}), "(empty)");
    EXPECT_EQ(reply_text(item_record(Items::POS_FB_4C, 1.0f) + Bytes{0x00}), "ITEMS POS_FB_4C=1");
}

TEST(MessageDecoder, MalformedRepliesAreShownAsSuch) {
    const auto expect = [](const Bytes& buffer, const std::string& text) {
        const DecodedMessage message = decode_reply(buffer);
        EXPECT_FALSE(message.well_formed()) << text;
        EXPECT_EQ(message.text(), text);
    };
    expect({0x4C, 0x00, 0x00}, "!! truncated record 0x4c: 3 of 5 bytes [4c0000]");
    expect(item_record(Items::POS_FB_4C, 1.0f) + Bytes{0x77},
           "ITEMS POS_FB_4C=1 !! unknown record code 0x77 [4c0000803f77]");
    expect(ping_reply(3, 0x0842) + Bytes{0x4C}, "PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842) !! 1 byte after "
                                                "the last record [80030042084c]");
    expect({0x00, 0x01, 0x02}, "!! 2 bytes after the last record [000102]");
    expect({0x83, 0x04, 0x00}, "PARAMETERS !! truncated parameter entry: 2 of 5 bytes [830400]");
    expect({0x83, 0x99, 0x00, 0x00, 0x80, 0x3F}, "PARAMETERS 0x99=1 !! unknown parameter code 0x99 [83990000803f]");
}

TEST(MessageDecoder, RandomBytesNeverCrashAndAlwaysRender) {
    std::mt19937 random(42);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes(random() % 24);
        for (auto& byte : bytes) byte = static_cast<uint8_t>(random());
        const DecodedMessage command_message = decode_command(bytes);
        const DecodedMessage reply_message = decode_reply(bytes);
        EXPECT_FALSE(command_message.text().empty());
        EXPECT_FALSE(reply_message.text().empty());
        EXPECT_EQ(command_message.json().front(), '{');
        EXPECT_EQ(reply_message.json().back(), '}');
    }
}

TEST(MessageDecoder, HexBytes) {
    EXPECT_EQ(hex_bytes({}), "");
    EXPECT_EQ(hex_bytes({0x00, 0xAB, 0x0F}), "00ab0f");
}

}  // namespace
