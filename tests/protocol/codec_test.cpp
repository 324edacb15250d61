#include "ocp_api/codec.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/number_format.hpp"
#include "ocp_api/orrery_actuator.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_api::codec;
using Bytes = std::vector<uint8_t>;
using Parameter = OrreryActuator::OCP_Parameters;

Bytes le_float(float value) {
    uint32_t word;
    std::memcpy(&word, &value, sizeof word);
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word >> 16),
            static_cast<uint8_t>(word >> 24)};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Codec, BareCommandsAreTheirCodeAlone) {
    EXPECT_EQ(Start{}.encode(), Bytes{0x01});
    EXPECT_EQ(Stop{}.encode(), Bytes{0x02});
    EXPECT_EQ(SetHomePosition{}.encode(), Bytes{0x0A});
    EXPECT_EQ(SaveConfig{}.encode(), Bytes{0x39});
    EXPECT_EQ(Ping{}.encode(), Bytes{0x40});
    EXPECT_EQ(Blink{}.encode(), Bytes{0x41});
    EXPECT_EQ(EnterBootloader{}.encode(), Bytes{0xC1});
    EXPECT_EQ(ClearConfig{}.encode(), Bytes{0xC2});
    EXPECT_TRUE(Stop::decode(Bytes{0x02}).ok());
    EXPECT_EQ(Stop::decode(Bytes{0x02, 0x00}).problem, "1 byte after the payload");
    EXPECT_EQ(Stop::decode(Bytes{0x01}).problem, "command 0x01, expected 0x02");
    EXPECT_EQ(Stop::decode(Bytes{}).problem, "empty command frame");
}

TEST(Codec, OneByteCommands) {
    EXPECT_EQ(SetMode{7}.encode(), (Bytes{0x03, 0x07}));
    EXPECT_EQ(SetTorquePerformance{2}.encode(), (Bytes{0x0D, 0x02}));
    EXPECT_EQ(SetSpeedPerformance{3}.encode(), (Bytes{0x0E, 0x03}));
    const auto mode = SetMode::decode(Bytes{0x03, 0x05});
    EXPECT_TRUE(mode.ok());
    EXPECT_EQ(mode.value.mode, 5);
    const auto short_mode = SetMode::decode(Bytes{0x03});
    EXPECT_FALSE(short_mode.complete());
    EXPECT_EQ(short_mode.problem, "payload of 0 bytes, expected 1");
    const auto long_mode = SetMode::decode(Bytes{0x03, 0x06, 0x00});
    EXPECT_TRUE(long_mode.complete());
    EXPECT_FALSE(long_mode.ok());
    EXPECT_EQ(long_mode.value.mode, 6);
}

TEST(Codec, FeedbackRatePeriodFromHz) {
    EXPECT_EQ(SetFeedbackRate::from_hz(0).period, 0u);
    EXPECT_EQ(SetFeedbackRate::from_hz(1000).period, 10u);
    EXPECT_EQ(SetFeedbackRate::from_hz(3).period, 3333u);
    EXPECT_EQ(SetFeedbackRate::from_hz(10000).period, 1u);
    EXPECT_EQ(SetFeedbackRate::from_hz(6667).period, 1u);
    EXPECT_EQ(SetFeedbackRate::from_hz(7).period, 1429u);
    EXPECT_EQ(SetFeedbackRate{0}.encode(), (Bytes{0x06, 0, 0, 0, 0}));
    EXPECT_EQ(SetFeedbackRate{3333}.encode(), (Bytes{0x06, 0x05, 0x0D, 0, 0}));
    EXPECT_EQ(SetFeedbackRate::decode(Bytes{0x06, 0x05, 0x0D, 0, 0}).value.period, 3333u);
}

TEST(Codec, ItemListsKeepOrderAndDuplicatesAndNameUnknownCodes) {
    EXPECT_EQ((SetFeedbackItems{{0x4C, 0x45, 0x4C}}.encode()), (Bytes{0x07, 0x4C, 0x45, 0x4C}));
    EXPECT_EQ(SetFeedbackItems{}.encode(), Bytes{0x07});
    EXPECT_EQ((GetItems{{0x41}}.encode()), (Bytes{0x0F, 0x41}));
    const auto decoded = SetFeedbackItems::decode(Bytes{0x07, 0x4C, 0x30, 0x4E});
    EXPECT_EQ(decoded.value.items, (Bytes{0x4C, 0x30, 0x4E}));
    EXPECT_EQ(decoded.problem, "unknown item code 0x30");
}

TEST(Codec, ParameterCommands) {
    const SetParameters set{{{0x04, 2.5f}, {0x80, 20000.0f}}};
    // The host sends every value as a float, the integer parameters too.
    EXPECT_EQ(set.encode(), (Bytes{0x0B, 0x04} + le_float(2.5f) + Bytes{0x80} + le_float(20000.0f)));
    const auto decoded = SetParameters::decode(set.encode());
    ASSERT_TRUE(decoded.ok());
    ASSERT_EQ(decoded.value.entries.size(), 2u);
    EXPECT_EQ(decoded.value.entries[1].code, 0x80);
    EXPECT_EQ(decoded.value.entries[1].value, 20000.0f);
    EXPECT_EQ(SetParameters::decode(Bytes{0x0B}).problem, "no parameter entries");
    EXPECT_EQ(SetParameters::decode(Bytes{0x0B, 0x04, 0, 0}).problem, "no parameter entries");
    EXPECT_EQ(SetParameters::decode(Bytes{0x0B, 0x04, 0, 0, 0x20, 0x40, 0x05}).problem,
              "truncated parameter entry: 1 of 5 bytes");
    EXPECT_EQ((GetParameters{{0x04, 0x30}}.encode()), (Bytes{0x0C, 0x04, 0x30}));
    EXPECT_EQ(GetParameters::decode(Bytes{0x0C, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0x0D}).problem,
              "10 parameter entries, at most 9");
    EXPECT_EQ(GetParameters::decode(Bytes{0x0C, 0x99}).problem, "unknown parameter code 0x99");
}

TEST(Codec, SetpointsCarryTheirFloatsInArgumentOrder) {
    EXPECT_EQ(SetSetpoint{1.5f}.encode(), (Bytes{0x04} + le_float(1.5f)));
    EXPECT_EQ((SetSetpointExt{1.5f, 0.0f, 2.0f}.encode()),
              (Bytes{0x10} + le_float(1.5f) + le_float(0.0f) + le_float(2.0f)));
    const SetPositionSetpoint position{1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f};
    Bytes expected{0x13};
    for (float f : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f}) expected = expected + le_float(f);
    EXPECT_EQ(position.encode(), expected);
    const auto decoded = SetPositionSetpoint::decode(expected);
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(decoded.value.position, 1.0f);
    EXPECT_EQ(decoded.value.speed_ff, 2.0f);
    EXPECT_EQ(decoded.value.t_ff, 6.0f);
    // Arguments left out are NaN: "leave unchanged".
    const SetImpedanceSetpoint impedance{0.5f};
    EXPECT_EQ(impedance.encode().size(), 1u + 8 * 4);
    EXPECT_TRUE(std::isnan(SetImpedanceSetpoint::decode(impedance.encode()).value.a8));
    EXPECT_EQ(SetTorqueSetpoint{}.encode().size(), 1u + 5 * 4);
    EXPECT_EQ(SetSpeedSetpoint{}.encode().size(), 1u + 5 * 4);
    EXPECT_EQ(SetSpeedSetpointInternal{}.encode().size(), 1u + 4 * 4);
    EXPECT_EQ(SetPositionSetpointInternal{}.encode().size(), 1u + 9 * 4);
}

TEST(Codec, ShortSetpointKeepsTheFloatsPresent) {
    const Bytes frame = Bytes{0x11} + le_float(1.0f) + le_float(2.0f) + Bytes{0x00};
    const auto decoded = SetTorqueSetpoint::decode(frame);
    EXPECT_EQ(decoded.fields, 2u);
    EXPECT_FALSE(decoded.complete());
    EXPECT_EQ(decoded.problem, "payload of 9 bytes, expected 20");
    EXPECT_EQ(decoded.value.aux_0d, 2.0f);
    const auto floats = decode_setpoint_floats(frame);
    EXPECT_EQ(floats.value, (std::vector<float>{1.0f, 2.0f}));
    EXPECT_EQ(setpoint_field_names(Command::SET_SPEED_SETPOINT),
              (std::vector<std::string_view>{"speed", "speed_ff", "aux_0e", "aux_0d", "t_ff"}));
    EXPECT_TRUE(setpoint_field_names(Command::SET_MODE).empty());
}

TEST(Codec, SetpointCommandsAreKnownAsSuch) {
    for (const CommandInfo& command : COMMANDS) {
        const auto code = static_cast<uint8_t>(command.code);
        const bool setpoint = code == 0x04 || (code >= 0x10 && code <= 0x16);
        EXPECT_EQ(is_setpoint(code), setpoint) << command.name;
        EXPECT_EQ(find_command(code), &command);
    }
    EXPECT_FALSE(is_setpoint(0x05));
    EXPECT_EQ(find_command(0x05), nullptr);
    EXPECT_EQ(find_command(0x77), nullptr);
}

TEST(Codec, ItemRecordsTravelInTheirWireType) {
    Bytes buffer;
    ItemRecord::of(0x90, 3.0f).encode_into(buffer);
    ItemRecord::of(0x4A, -2.0f).encode_into(buffer);
    ItemRecord::of(0x41, 1.0f).encode_into(buffer);
    EXPECT_EQ(buffer, (Bytes{0x90, 3, 0, 0, 0, 0x4A, 0xFE, 0xFF, 0xFF, 0xFF, 0x41, 0, 0, 0x80, 0x3F}));
    EXPECT_EQ((ItemRecord{0x90, 0xFFFFFFFFu}.value()), 4294967296.0f);
    EXPECT_EQ((ItemRecord{0x4A, 0xFFFFFFFFu}.value()), -1.0f);
}

TEST(Codec, ReplyReaderStepsOverItemsAndStopsAtAnyOtherRecord) {
    const Bytes buffer = Bytes{0x41} + le_float(1.0f) + PingReply{3, 0x0842}.encode() + Bytes{0x45};
    ReplyReader reader(buffer);
    const Record item = reader.next();
    EXPECT_EQ(item.kind, Record::Kind::ITEM);
    EXPECT_EQ(item.item.value(), 1.0f);
    const Record ping = reader.next();
    ASSERT_EQ(ping.kind, Record::Kind::PING_REPLY);
    EXPECT_EQ(ping.ping.model_code, 3);
    EXPECT_EQ(ping.ping.firmware_word, 0x0842);
    EXPECT_EQ(ping.offset, 5u);
    EXPECT_EQ(reader.next().kind, Record::Kind::END);
    EXPECT_EQ(reader.position(), 10u) << "the byte after the ping reply is not read";
}

TEST(Codec, ReplyReaderNamesWhatEndsTheWalk) {
    EXPECT_EQ(ReplyReader(Bytes{0x41, 0, 0}).next().kind, Record::Kind::TRUNCATED);
    EXPECT_EQ(ReplyReader(Bytes{0x4E, 0, 0, 0, 0}).next().kind, Record::Kind::UNKNOWN);
    EXPECT_EQ(ReplyReader(Bytes{0x83, 0x04}).next().kind, Record::Kind::PARAMETERS);
    EXPECT_EQ(ReplyReader(ErrorFlags{0x10001}.encode()).next().errors.flags, 0x10001u);
    const Bytes ended{0x00, 0x41};
    ReplyReader end(ended);
    EXPECT_EQ(end.next().kind, Record::Kind::END);
    EXPECT_EQ(end.position(), 1u);
    EXPECT_EQ(end.next().kind, Record::Kind::END);
    EXPECT_EQ(ReplyReader(Bytes{}).next().kind, Record::Kind::END);
}

TEST(Codec, ParameterEntriesEndAtAZeroCodeOrTheEnd) {
    ParametersRecord record;
    record.entries = {ParameterEntry::of(0x80, 20000.0f), ParameterEntry::of(0x30, 6.7f)};
    Bytes buffer = record.encode();
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 6), (Bytes{0x83, 0x80, 0x20, 0x4E, 0x00, 0x00}));
    buffer = buffer + Bytes{0x00, 0x04};
    ParameterEntryReader reader(buffer, 1);
    ParameterEntry entry;
    ASSERT_TRUE(reader.next(entry));
    EXPECT_EQ(entry.value(), 20000.0f);
    ASSERT_TRUE(reader.next(entry));
    EXPECT_EQ(entry.value(), 6.0f) << "a mode is truncated toward zero";
    EXPECT_FALSE(reader.next(entry));
    EXPECT_EQ(reader.position(), 12u);
    EXPECT_EQ(reader.truncated_bytes(), 0u);

    const Bytes cut{0x83, 0x04, 0x00};
    ParameterEntryReader short_reader(cut, 1);
    EXPECT_FALSE(short_reader.next(entry));
    EXPECT_EQ(short_reader.truncated_bytes(), 2u);
    ParameterEntryReader past_end(cut, 99);
    EXPECT_FALSE(past_end.next(entry));
}

TEST(IdentifierTables, WireTypesUnitsAndMeanings) {
    EXPECT_EQ(tables::ITEMS.size(), 48u);
    EXPECT_EQ(tables::PARAMETERS.size(), 31u);
    for (const ItemInfo& item : tables::ITEMS) {
        const bool u32 = item.code == 0x42 || item.code == 0x44 || (item.code >= 0x60 && item.code <= 0x62) ||
                         item.code == 0x90;
        const auto expected = u32 ? wire::ValueType::U32 : item.code == 0x4A ? wire::ValueType::I32 : wire::ValueType::F32;
        EXPECT_EQ(item.type, expected) << item.name;
        EXPECT_FALSE(item.unit.empty()) << item.name;
        EXPECT_FALSE(item.meaning.empty()) << item.name;
    }
    EXPECT_EQ(find_item(0x46)->meaning, "not documented");
    EXPECT_EQ(find_item(0x45)->unit, "not documented");
    EXPECT_EQ(find_item("vbus_70")->code, 0x70);
    EXPECT_EQ(find_item(0x4E), nullptr);
    EXPECT_EQ(find_parameter(0x30)->type, wire::ValueType::MODE);
    EXPECT_EQ(find_parameter(0x81)->type, wire::ValueType::F32);
    EXPECT_EQ(find_parameter(0x84)->type, wire::ValueType::U32);
    EXPECT_EQ(find_parameter("limit_torque")->code, 0x04);
    EXPECT_EQ(find_parameter(0x00), nullptr);
    EXPECT_EQ(find_mode(7)->name, "POSITION");
    EXPECT_EQ(find_mode("impedance")->code, 8);
    EXPECT_EQ(find_mode(4), nullptr);
    EXPECT_EQ(tables::ERROR_BITS.size(), 15u);
    EXPECT_EQ(find_error_bit(16)->description, "Current maximum");
    EXPECT_EQ(find_error_bit(1), nullptr);
    EXPECT_EQ(model_name_of(5), "CAN_ADAPTER");
    EXPECT_EQ(model_name_of(0xFFFF), "");
}

TEST(IdentifierTables, ValuesAParameterCannotHold) {
    const auto problem = [](Parameter parameter, float value) {
        return parameter_value_problem(static_cast<uint8_t>(parameter), value);
    };
    EXPECT_EQ(problem(Parameter::MODE, 7.0f), "");
    EXPECT_EQ(problem(Parameter::MODE, 7.9f), "") << "the device truncates a mode";
    EXPECT_EQ(problem(Parameter::MODE, 3.0f), "not a control mode (5 TORQUE, 6 SPEED, 7 POSITION, 8 IMPEDANCE)");
    EXPECT_NE(problem(Parameter::MODE, -1e9f), "");
    EXPECT_EQ(problem(Parameter::CAN_HIGH_SPEED, 1.0f), "");
    EXPECT_EQ(problem(Parameter::CAN_HIGH_SPEED, 5.0f), "not 0 (off) or 1 (on)");
    EXPECT_EQ(problem(Parameter::DEVICE_80, 20000.0f), "");
    EXPECT_EQ(problem(Parameter::DEVICE_80, -1.0f), "not a whole number from 0 to 4294967295");
    EXPECT_EQ(problem(Parameter::DEVICE_84, 4294967296.0f), "not a whole number from 0 to 4294967295");
    EXPECT_EQ(problem(Parameter::ADDRESS, 0x0F), "not a device address from 0x10 to 0x3ffe");
    EXPECT_EQ(problem(Parameter::ADDRESS, 0x3FFE), "");
    EXPECT_EQ(problem(Parameter::ADDRESS, 1e20f), "not a device address from 0x10 to 0x3ffe") << "beyond int";
    EXPECT_EQ(problem(Parameter::ADDRESS, -3e9f), "not a device address from 0x10 to 0x3ffe");
    EXPECT_EQ(problem(Parameter::TORQUE_PERFORMANCE, 256.0f), "not a preset from 0 to 255");
    EXPECT_EQ(problem(Parameter::LIMIT_TORQUE, -2.5f), "");
    EXPECT_EQ(problem(Parameter::LIMIT_TORQUE, INFINITY), "not finite");
    EXPECT_EQ(problem(Parameter::K_DAMP, std::nanf("")), "not a number");
    EXPECT_EQ(parameter_value_problem(0x00, 1.0f), "no such parameter");
}

TEST(NumberFormat, OneRuleForEveryTool) {
    EXPECT_EQ(format_number(0.1f), "0.1");
    EXPECT_EQ(format_number(2.5f), "2.5");
    EXPECT_EQ(format_number(-0.5f), "-0.5");
    EXPECT_EQ(format_number(20000.0f), "20000");
    EXPECT_EQ(format_number(16777216.0f), "16777216");
    EXPECT_EQ(format_number(4294967296.0f), "4294967296");
    EXPECT_EQ(format_number(1.5e10f), "1.5e+10");
    EXPECT_EQ(format_number(0.99751127f), "0.99751127");
    EXPECT_EQ(format_number(std::nanf("")), "nan");
    EXPECT_EQ(format_number(-INFINITY), "-inf");
    EXPECT_EQ(format_number(INFINITY), "inf");
    for (const float value : {0.1f, 1.0f / 3.0f, 1e-7f, 123456.78f, -3.4e38f})
        EXPECT_EQ(std::strtof(format_number(value).c_str(), nullptr), value) << format_number(value);
}

TEST(NumberFormat, OneRuleForReadingWholeNumbers) {
    long long value = -1;
    EXPECT_TRUE(parse_integer("0100", value));
    EXPECT_EQ(value, 100) << "never octal";
    EXPECT_TRUE(parse_integer("0x21", value));
    EXPECT_EQ(value, 0x21);
    EXPECT_TRUE(parse_integer("0X3FFE", value));
    EXPECT_EQ(value, 0x3FFE);
    EXPECT_TRUE(parse_integer("-3", value));
    EXPECT_EQ(value, -3);
    for (const char* bad : {"", "0x", "0x-1", "+5", " 5", "5 ", "12abc", "0x1g", "99999999999999999999"})
        EXPECT_FALSE(parse_integer(bad, value)) << bad;
}

}  // namespace
