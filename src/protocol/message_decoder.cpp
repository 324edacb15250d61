// Decoding command frames and reply buffers for people and programs. The codec
// reads the bytes and the identifier tables give the names; this file only
// attaches those names and formats the text.
#include "ocp_api/message_decoder.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "ocp_api/codec.hpp"
#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/identifiers.hpp"
#include "ocp_api/number_format.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

using codec::ByteView;
using wire::Command;
using wire::RecordCode;
using Type = DecodedValue::Type;

// --- names -------------------------------------------------------------------

std::string code_text(uint8_t code) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", code);
    return text;
}

// The name of an item or parameter code, or its hex text when it has none.
std::string item_name_or_code(uint8_t code) {
    const ItemInfo* item = find_item(code);
    return item ? std::string(item->name) : code_text(code);
}

std::string parameter_name_or_code(uint8_t code) {
    const ParameterInfo* parameter = find_parameter(code);
    return parameter ? std::string(parameter->name) : code_text(code);
}

std::string mode_name_of(double value) {
    if (!(value >= 0.0 && value <= 255.0)) return "";
    return std::string(mode_code_name(static_cast<uint8_t>(value)));
}

// --- building values -----------------------------------------------------------

DecodedValue number_value(std::string name, Type type, double number) {
    DecodedValue value;
    value.name = std::move(name);
    value.type = type;
    value.number = number;
    return value;
}

DecodedValue bare_name(std::string name, std::optional<uint8_t> code) {
    DecodedValue value;
    value.name = std::move(name);
    value.code = code;
    value.has_number = false;
    return value;
}

// A 4-byte value read the way a wire type says.
DecodedValue typed_value(std::string name, uint8_t code, wire::ValueType wire_type, uint32_t word) {
    DecodedValue value;
    value.name = std::move(name);
    value.code = code;
    switch (wire_type) {
        case wire::ValueType::U32:
            value.type = Type::u32;
            value.number = word;
            break;
        case wire::ValueType::I32:
            value.type = Type::i32;
            value.number = static_cast<int32_t>(word);
            break;
        case wire::ValueType::MODE:
            value.type = Type::f32;
            value.number = wire::float_from_bits(word);
            value.meaning = mode_name_of(std::trunc(value.number));
            break;
        case wire::ValueType::F32:
            value.type = Type::f32;
            value.number = wire::float_from_bits(word);
            break;
    }
    return value;
}

std::string plural_bytes(std::size_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

// --- commands ------------------------------------------------------------------
// The codec reads the bytes; here they get names.

template <class Message>
void take_problem(const codec::Decoded<Message>& decoded, std::string& problem) {
    if (problem.empty()) problem = decoded.problem;
}

template <class Message>
void add_byte(DecodedPart& part, std::string& problem, ByteView frame, const char* name, uint8_t Message::*field,
              bool is_mode) {
    const auto decoded = Message::decode(frame);
    take_problem(decoded, problem);
    if (!decoded.complete()) return;
    DecodedValue value = number_value(name, Type::u8, decoded.value.*field);
    if (is_mode) value.meaning = mode_name_of(value.number);
    part.values.push_back(std::move(value));
}

void add_feedback_rate(DecodedPart& part, std::string& problem, ByteView frame) {
    const auto decoded = codec::SetFeedbackRate::decode(frame);
    take_problem(decoded, problem);
    if (!decoded.complete()) return;
    const uint32_t period = decoded.value.period;
    DecodedValue value = number_value("period", Type::u32, period);
    if (period == 0) {
        value.meaning = "off";
    } else {
        char hz[32];
        std::snprintf(hz, sizeof hz, "%gHz", static_cast<double>(wire::PERIOD_UNITS_PER_SECOND) / period);
        value.meaning = hz;
    }
    part.values.push_back(std::move(value));
}

template <class Message>
void add_item_list(DecodedPart& part, std::string& problem, ByteView frame) {
    const auto decoded = Message::decode(frame);
    take_problem(decoded, problem);
    for (const uint8_t code : decoded.value.items) part.values.push_back(bare_name(item_name_or_code(code), code));
}

void add_parameter_list(DecodedPart& part, std::string& problem, ByteView frame) {
    const auto decoded = codec::GetParameters::decode(frame);
    take_problem(decoded, problem);
    for (const uint8_t code : decoded.value.codes) part.values.push_back(bare_name(parameter_name_or_code(code), code));
}

// The host always sends parameter values as floats, whatever their type on
// the way back.
void add_parameter_settings(DecodedPart& part, std::string& problem, ByteView frame) {
    const auto decoded = codec::SetParameters::decode(frame);
    take_problem(decoded, problem);
    for (const codec::ParameterSetting& entry : decoded.value.entries) {
        DecodedValue value = typed_value(parameter_name_or_code(entry.code), entry.code, wire::ValueType::F32,
                                         wire::bits_from_float(entry.value));
        if (wire::parameter_value_type(entry.code) == wire::ValueType::MODE)
            value.meaning = mode_name_of(std::trunc(value.number));
        part.values.push_back(std::move(value));
    }
}

void add_setpoint(DecodedPart& part, std::string& problem, ByteView frame, Command command) {
    const auto decoded = codec::decode_setpoint_floats(frame);
    take_problem(decoded, problem);
    const std::vector<std::string_view> names = codec::setpoint_field_names(command);
    for (std::size_t i = 0; i < decoded.value.size(); ++i)
        part.values.push_back(number_value(std::string(names[i]), Type::f32, decoded.value[i]));
}

template <Command Code>
void check_bare(std::string& problem, ByteView frame) {
    take_problem(codec::BareCommand<Code>::decode(frame), problem);
}

void decode_command_payload(Command command, DecodedPart& part, std::string& problem, ByteView frame) {
    if (codec::is_setpoint(static_cast<uint8_t>(command))) {
        add_setpoint(part, problem, frame, command);
        return;
    }
    switch (command) {
        case Command::SET_MODE: add_byte(part, problem, frame, "mode", &codec::SetMode::mode, true); return;
        case Command::SET_TORQUE_PERFORMANCE:
            add_byte(part, problem, frame, "preset", &codec::SetTorquePerformance::preset, false);
            return;
        case Command::SET_SPEED_PERFORMANCE:
            add_byte(part, problem, frame, "preset", &codec::SetSpeedPerformance::preset, false);
            return;
        case Command::SET_FEEDBACK_RATE: add_feedback_rate(part, problem, frame); return;
        case Command::SET_FEEDBACK_ITEMS: add_item_list<codec::SetFeedbackItems>(part, problem, frame); return;
        case Command::GET_ITEMS: add_item_list<codec::GetItems>(part, problem, frame); return;
        case Command::SET_PARAMETERS: add_parameter_settings(part, problem, frame); return;
        case Command::GET_PARAMETERS: add_parameter_list(part, problem, frame); return;
        case Command::START: check_bare<Command::START>(problem, frame); return;
        case Command::STOP: check_bare<Command::STOP>(problem, frame); return;
        case Command::SET_HOME_POSITION: check_bare<Command::SET_HOME_POSITION>(problem, frame); return;
        case Command::SAVE_CONFIG: check_bare<Command::SAVE_CONFIG>(problem, frame); return;
        case Command::PING: check_bare<Command::PING>(problem, frame); return;
        case Command::BLINK: check_bare<Command::BLINK>(problem, frame); return;
        case Command::ENTER_BOOTLOADER: check_bare<Command::ENTER_BOOTLOADER>(problem, frame); return;
        case Command::CLEAR_CONFIG: check_bare<Command::CLEAR_CONFIG>(problem, frame); return;
        default: return;
    }
}

// --- replies -------------------------------------------------------------------

class ReplyWalker {
public:
    ReplyWalker(const std::vector<uint8_t>& bytes, DecodedMessage& message)
        : bytes_(bytes), reader_(bytes), message_(message) {}

    void walk() {
        std::size_t end = 0;
        for (;;) {
            const codec::Record record = reader_.next();
            end = reader_.position();
            if (record.kind == codec::Record::Kind::ITEM) {
                add_item(record.item);
                continue;
            }
            switch (record.kind) {
                case codec::Record::Kind::PING_REPLY: add_ping_reply(record.ping); break;
                case codec::Record::Kind::ERROR_FLAGS: add_error_flags(record.errors); break;
                case codec::Record::Kind::PARAMETERS: end = read_parameters(record.offset + 1); break;
                case codec::Record::Kind::UNKNOWN: note("unknown record code " + code_text(record.code)); break;
                case codec::Record::Kind::TRUNCATED:
                    note("truncated record " + code_text(record.code) + ": " +
                         std::to_string(bytes_.size() - record.offset) + " of " + std::to_string(wire::RECORD_SIZE) +
                         " bytes");
                    break;
                default: break;
            }
            break;
        }
        if (message_.problem.empty() && end < bytes_.size())
            note(plural_bytes(bytes_.size() - end) + " after the last record");
    }

private:
    void add_item(const codec::ItemRecord& item) {
        if (message_.parts.empty() || message_.parts.back().name != "ITEMS")
            message_.parts.push_back({"ITEMS", item.code, {}});
        message_.parts.back().values.push_back(
            typed_value(item_name_or_code(item.code), item.code, wire::item_value_type(item.code), item.word));
    }

    void add_ping_reply(const codec::PingReply& ping) {
        DecodedPart part{"PING_REPLY", static_cast<uint8_t>(RecordCode::PING_REPLY), {}};
        DecodedValue model = number_value("model", Type::u16, ping.model_code);
        model.meaning = std::string(model_name_of(ping.model_code));
        DecodedValue firmware = number_value("firmware", Type::u16, ping.firmware_word);
        firmware.meaning = wire::firmware_version_text(ping.firmware_word);
        firmware.shown_in_hex = true;
        part.values = {std::move(model), std::move(firmware)};
        message_.parts.push_back(std::move(part));
    }

    void add_error_flags(const codec::ErrorFlags& errors) {
        DecodedPart part{"ERROR_FLAGS", static_cast<uint8_t>(RecordCode::ERROR_FLAGS), {}};
        DecodedValue word = number_value("flags", Type::u32, errors.flags);
        word.shown_in_hex = true;
        part.values.push_back(std::move(word));
        for (int bit = 0; bit < 32; ++bit) {
            if ((errors.flags & (1u << bit)) == 0) continue;
            DecodedValue value = bare_name("bit" + std::to_string(bit), std::nullopt);
            const ErrorBitInfo* known = find_error_bit(bit);
            value.meaning = known ? std::string(known->description) : "unknown error bit";
            part.values.push_back(std::move(value));
        }
        message_.parts.push_back(std::move(part));
    }

    // Returns where the entries ended.
    std::size_t read_parameters(std::size_t offset) {
        DecodedPart part{"PARAMETERS", static_cast<uint8_t>(RecordCode::PARAMETERS), {}};
        codec::ParameterEntryReader entries(bytes_, offset);
        codec::ParameterEntry entry;
        while (entries.next(entry)) {
            if (!find_parameter(entry.code)) note("unknown parameter code " + code_text(entry.code));
            part.values.push_back(typed_value(parameter_name_or_code(entry.code), entry.code,
                                              wire::parameter_value_type(entry.code), entry.word));
        }
        if (entries.truncated_bytes() != 0)
            note("truncated parameter entry: " + std::to_string(entries.truncated_bytes()) + " of " +
                 std::to_string(wire::RECORD_SIZE) + " bytes");
        message_.parts.push_back(std::move(part));
        return entries.position();
    }

    void note(const std::string& problem) {
        if (message_.problem.empty()) message_.problem = problem;
    }

    const std::vector<uint8_t>& bytes_;
    codec::ReplyReader reader_;
    DecodedMessage& message_;
};

// --- rendering -----------------------------------------------------------------

// Floats as every tool prints them.
std::string float_text(double number) { return format_number(static_cast<float>(number)); }

std::string number_text(const DecodedValue& value) {
    char text[32];
    switch (value.type) {
        case Type::f32: return float_text(value.number);
        case Type::i32: std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value.number)); break;
        case Type::u32:
            std::snprintf(text, sizeof text, value.shown_in_hex ? "0x%08llx" : "%llu",
                          static_cast<unsigned long long>(value.number));
            break;
        case Type::u16:
            std::snprintf(text, sizeof text, value.shown_in_hex ? "0x%04llx" : "%llu",
                          static_cast<unsigned long long>(value.number));
            break;
        case Type::u8: std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(value.number)); break;
    }
    return text;
}

std::string quoted_if_spaced(const std::string& text) {
    return text.find(' ') == std::string::npos ? text : "\"" + text + "\"";
}

std::string value_text(const DecodedValue& value) {
    if (!value.has_number) return value.meaning.empty() ? value.name : value.name + "=\"" + value.meaning + "\"";
    if (value.meaning.empty()) return value.name + "=" + number_text(value);
    return value.name + "=" + quoted_if_spaced(value.meaning) + "(" + number_text(value) + ")";
}

const char* type_name(Type type) {
    switch (type) {
        case Type::f32: return "f32";
        case Type::u32: return "u32";
        case Type::i32: return "i32";
        case Type::u16: return "u16";
        case Type::u8: return "u8";
    }
    return "";
}

std::string json_string(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        switch (c) {
            case '"': quoted += "\\\""; break;
            case '\\': quoted += "\\\\"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    quoted += escaped;
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

std::string json_number(const DecodedValue& value) {
    if (!std::isfinite(value.number)) return "null";
    if (value.type == Type::f32) return float_text(value.number);
    char text[32];
    std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value.number));
    return text;
}

std::string value_json(const DecodedValue& value) {
    std::string json = "{\"name\":" + json_string(value.name);
    if (value.code) json += ",\"code\":" + std::to_string(*value.code);
    if (value.has_number) {
        json += ",\"type\":\"";
        json += type_name(value.type);
        json += "\",\"value\":" + json_number(value);
    }
    if (!value.meaning.empty()) json += ",\"meaning\":" + json_string(value.meaning);
    return json + "}";
}

std::string part_json(const DecodedPart& part) {
    std::string json = "{\"name\":" + json_string(part.name) + ",\"code\":" + std::to_string(part.code) + ",\"values\":[";
    for (std::size_t i = 0; i < part.values.size(); ++i) {
        if (i > 0) json += ",";
        json += value_json(part.values[i]);
    }
    return json + "]}";
}

}  // namespace

std::string hex_bytes(const std::vector<uint8_t>& bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0x0F];
    }
    return text;
}

DecodedMessage decode_command(const std::vector<uint8_t>& frame) {
    DecodedMessage message;
    message.direction = MessageDirection::host_to_device;
    message.bytes = frame;
    if (frame.empty()) {
        message.problem = "empty command frame";
        return message;
    }
    const codec::CommandInfo* command = codec::find_command(frame[0]);
    if (command == nullptr) {
        message.problem = "unknown command " + code_text(frame[0]);
        return message;
    }
    message.parts.push_back({std::string(command->name), frame[0], {}});
    decode_command_payload(command->code, message.parts.back(), message.problem, frame);
    return message;
}

DecodedMessage decode_reply(const std::vector<uint8_t>& buffer, int kind) {
    DecodedMessage message;
    message.direction = MessageDirection::device_to_host;
    message.kind = kind;
    message.bytes = buffer;
    ReplyWalker(buffer, message).walk();
    return message;
}

std::string DecodedMessage::text() const {
    std::string line;
    for (const auto& part : parts) {
        if (!line.empty()) line += "; ";
        line += part.name;
        for (const auto& value : part.values) line += " " + value_text(value);
    }
    if (line.empty() && problem.empty()) return "(empty)";
    if (!problem.empty()) line += (line.empty() ? "!! " : " !! ") + problem + " [" + hex_bytes(bytes) + "]";
    return line;
}

std::string DecodedMessage::json() const {
    std::string json = "{\"direction\":";
    json += direction == MessageDirection::host_to_device ? "\"host_to_device\"" : "\"device_to_host\"";
    if (direction == MessageDirection::device_to_host) json += ",\"kind\":" + std::to_string(kind);
    json += ",\"bytes\":\"" + hex_bytes(bytes) + "\",\"parts\":[";
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) json += ",";
        json += part_json(parts[i]);
    }
    json += "]";
    if (!problem.empty()) json += ",\"problem\":" + json_string(problem);
    return json + "}";
}

}  // namespace ocp_api
