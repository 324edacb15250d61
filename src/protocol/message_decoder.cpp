// Decoding command frames and reply buffers for people and programs. Codes,
// layouts and wire types all come from wire.hpp and identifiers.hpp; this file
// only adds the names of commands and of their arguments.
#include "ocp_api/message_decoder.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "ocp_api/identifiers.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

using wire::Command;
using wire::RecordCode;
using Type = DecodedValue::Type;

// --- names -------------------------------------------------------------------

struct CommandName {
    Command command;
    const char* name;
};

constexpr CommandName COMMAND_NAMES[] = {
    {Command::START, "START"},
    {Command::STOP, "STOP"},
    {Command::SET_MODE, "SET_MODE"},
    {Command::SET_SETPOINT, "SET_SETPOINT"},
    {Command::SET_FEEDBACK_RATE, "SET_FEEDBACK_RATE"},
    {Command::SET_FEEDBACK_ITEMS, "SET_FEEDBACK_ITEMS"},
    {Command::SET_HOME_POSITION, "SET_HOME_POSITION"},
    {Command::SET_PARAMETERS, "SET_PARAMETERS"},
    {Command::GET_PARAMETERS, "GET_PARAMETERS"},
    {Command::SET_TORQUE_PERFORMANCE, "SET_TORQUE_PERFORMANCE"},
    {Command::SET_SPEED_PERFORMANCE, "SET_SPEED_PERFORMANCE"},
    {Command::GET_ITEMS, "GET_ITEMS"},
    {Command::SET_SETPOINT_EXT, "SET_SETPOINT_EXT"},
    {Command::SET_TORQUE_SETPOINT, "SET_TORQUE_SETPOINT"},
    {Command::SET_SPEED_SETPOINT, "SET_SPEED_SETPOINT"},
    {Command::SET_POSITION_SETPOINT, "SET_POSITION_SETPOINT"},
    {Command::SET_IMPEDANCE_SETPOINT, "SET_IMPEDANCE_SETPOINT"},
    {Command::SET_SPEED_SETPOINT_INTERNAL, "SET_SPEED_SETPOINT_INTERNAL"},
    {Command::SET_POSITION_SETPOINT_INTERNAL, "SET_POSITION_SETPOINT_INTERNAL"},
    {Command::SAVE_CONFIG, "SAVE_CONFIG"},
    {Command::PING, "PING"},
    {Command::BLINK, "BLINK"},
    {Command::ENTER_BOOTLOADER, "ENTER_BOOTLOADER"},
    {Command::CLEAR_CONFIG, "CLEAR_CONFIG"},
};

// The float arguments of the setpoint commands, named as the actuator's
// methods name them. The counts come from the wire constants.
struct SetpointLayout {
    Command command;
    std::size_t floats;
    const char* names[9];
};

constexpr SetpointLayout SETPOINT_LAYOUTS[] = {
    {Command::SET_SETPOINT, wire::SETPOINT_FLOATS, {"setpoint"}},
    {Command::SET_SETPOINT_EXT, wire::SETPOINT_EXT_FLOATS, {"a", "b", "c"}},
    {Command::SET_TORQUE_SETPOINT, wire::TORQUE_SETPOINT_FLOATS, {"torque", "aux_0d", "aux_0e", "aux_0f", "a5"}},
    {Command::SET_SPEED_SETPOINT, wire::SPEED_SETPOINT_FLOATS, {"speed", "speed_ff", "aux_0e", "aux_0d", "t_ff"}},
    {Command::SET_POSITION_SETPOINT,
     wire::POSITION_SETPOINT_FLOATS,
     {"position", "speed_ff", "aux_0e", "aux_0d", "aux_0f", "t_ff"}},
    {Command::SET_IMPEDANCE_SETPOINT,
     wire::IMPEDANCE_SETPOINT_FLOATS,
     {"position", "speed_ff", "k_stiff", "k_damp", "a5", "t_ff", "a7", "a8"}},
    {Command::SET_SPEED_SETPOINT_INTERNAL, wire::SPEED_SETPOINT_INTERNAL_FLOATS, {"a1", "a2", "a3", "a4"}},
    {Command::SET_POSITION_SETPOINT_INTERNAL,
     wire::POSITION_SETPOINT_INTERNAL_FLOATS,
     {"a1", "a2", "a3", "a4", "a5", "a6", "a7", "a8", "a9"}},
};

const char* command_name(uint8_t code) {
    for (const auto& entry : COMMAND_NAMES) {
        if (static_cast<uint8_t>(entry.command) == code) return entry.name;
    }
    return nullptr;
}

const SetpointLayout* setpoint_layout(Command command) {
    for (const auto& layout : SETPOINT_LAYOUTS) {
        if (layout.command == command) return &layout;
    }
    return nullptr;
}

std::string code_text(uint8_t code) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", code);
    return text;
}

// The name of an item or parameter code, or its hex text when it has none.
std::optional<std::string> known_item_name(uint8_t code) {
    if (!wire::is_item_code(code)) return std::nullopt;
    return std::string(item_code_name(code));
}

std::optional<std::string> known_parameter_name(uint8_t code) {
    const std::string_view name = parameter_code_name(code);
    if (name.empty()) return std::nullopt;
    return std::string(name);
}

std::string model_name_of(uint16_t model_code) {
    return model_code < MODEL_NAME_TABLE.size() ? MODEL_NAME_TABLE[model_code] : "";
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
DecodedValue typed_value(std::string name, uint8_t code, wire::ValueType wire_type, const uint8_t* bytes) {
    const uint32_t word = wire::read_u32(bytes);
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

// Reads a command's payload (the bytes after the code) and notes what is wrong.
class CommandReader {
public:
    CommandReader(const std::vector<uint8_t>& frame, DecodedPart& part, std::string& problem)
        : frame_(frame), part_(part), problem_(problem) {}

    std::size_t payload_size() const { return frame_.size() - 1; }
    const uint8_t* payload() const { return frame_.data() + 1; }

    void expect_payload(std::size_t expected) {
        if (payload_size() < expected)
            note("payload of " + plural_bytes(payload_size()) + ", expected " + std::to_string(expected));
        else if (payload_size() > expected)
            note(plural_bytes(payload_size() - expected) + " after the payload");
    }

    void note(const std::string& problem) {
        if (problem_.empty()) problem_ = problem;
    }

    void add(DecodedValue value) { part_.values.push_back(std::move(value)); }

private:
    const std::vector<uint8_t>& frame_;
    DecodedPart& part_;
    std::string& problem_;
};

void decode_u8_argument(CommandReader& reader, const char* name, bool is_mode) {
    reader.expect_payload(1);
    if (reader.payload_size() < 1) return;
    DecodedValue value = number_value(name, Type::u8, reader.payload()[0]);
    if (is_mode) value.meaning = mode_name_of(value.number);
    reader.add(std::move(value));
}

void decode_feedback_rate(CommandReader& reader) {
    reader.expect_payload(sizeof(uint32_t));
    if (reader.payload_size() < sizeof(uint32_t)) return;
    const uint32_t period = wire::read_u32(reader.payload());
    DecodedValue value = number_value("period", Type::u32, period);
    if (period == 0) {
        value.meaning = "off";
    } else {
        char hz[32];
        std::snprintf(hz, sizeof hz, "%gHz", static_cast<double>(wire::PERIOD_UNITS_PER_SECOND) / period);
        value.meaning = hz;
    }
    reader.add(std::move(value));
}

void decode_item_list(CommandReader& reader) {
    for (std::size_t i = 0; i < reader.payload_size(); ++i) {
        const uint8_t code = reader.payload()[i];
        const auto name = known_item_name(code);
        if (!name) reader.note("unknown item code " + code_text(code));
        reader.add(bare_name(name.value_or(code_text(code)), code));
    }
}

void check_parameter_count(CommandReader& reader, std::size_t count) {
    if (count == 0) reader.note("no parameter entries");
    if (count > wire::MAX_PARAMETERS_PER_FRAME)
        reader.note(std::to_string(count) + " parameter entries, at most " +
                    std::to_string(wire::MAX_PARAMETERS_PER_FRAME));
}

void decode_parameter_list(CommandReader& reader) {
    check_parameter_count(reader, reader.payload_size());
    for (std::size_t i = 0; i < reader.payload_size(); ++i) {
        const uint8_t code = reader.payload()[i];
        const auto name = known_parameter_name(code);
        if (!name) reader.note("unknown parameter code " + code_text(code));
        reader.add(bare_name(name.value_or(code_text(code)), code));
    }
}

// The host always sends parameter values as floats, whatever their type on
// the way back.
void decode_parameter_settings(CommandReader& reader) {
    const std::size_t entries = reader.payload_size() / wire::RECORD_SIZE;
    check_parameter_count(reader, entries);
    for (std::size_t i = 0; i < entries; ++i) {
        const uint8_t* entry = reader.payload() + i * wire::RECORD_SIZE;
        const uint8_t code = entry[0];
        const auto name = known_parameter_name(code);
        if (!name) reader.note("unknown parameter code " + code_text(code));
        DecodedValue value = typed_value(name.value_or(code_text(code)), code, wire::ValueType::F32, entry + 1);
        if (wire::parameter_value_type(code) == wire::ValueType::MODE)
            value.meaning = mode_name_of(std::trunc(value.number));
        reader.add(std::move(value));
    }
    const std::size_t left = reader.payload_size() % wire::RECORD_SIZE;
    if (left != 0)
        reader.note("truncated parameter entry: " + std::to_string(left) + " of " +
                    std::to_string(wire::RECORD_SIZE) + " bytes");
}

void decode_setpoint(CommandReader& reader, const SetpointLayout& layout) {
    reader.expect_payload(layout.floats * sizeof(float));
    const std::size_t present = std::min(layout.floats, reader.payload_size() / sizeof(float));
    for (std::size_t i = 0; i < present; ++i)
        reader.add(number_value(layout.names[i], Type::f32, wire::read_f32(reader.payload() + i * sizeof(float))));
}

void decode_command_payload(Command command, CommandReader& reader) {
    if (const SetpointLayout* layout = setpoint_layout(command)) {
        decode_setpoint(reader, *layout);
        return;
    }
    switch (command) {
        case Command::SET_MODE: decode_u8_argument(reader, "mode", true); return;
        case Command::SET_TORQUE_PERFORMANCE:
        case Command::SET_SPEED_PERFORMANCE: decode_u8_argument(reader, "preset", false); return;
        case Command::SET_FEEDBACK_RATE: decode_feedback_rate(reader); return;
        case Command::SET_FEEDBACK_ITEMS:
        case Command::GET_ITEMS: decode_item_list(reader); return;
        case Command::SET_PARAMETERS: decode_parameter_settings(reader); return;
        case Command::GET_PARAMETERS: decode_parameter_list(reader); return;
        default: reader.expect_payload(0); return;  // a bare command
    }
}

// --- replies -------------------------------------------------------------------

class ReplyWalker {
public:
    ReplyWalker(const std::vector<uint8_t>& bytes, DecodedMessage& message) : bytes_(bytes), message_(message) {}

    void walk() {
        while (position_ < bytes_.size() && message_.problem.empty()) {
            const uint8_t code = bytes_[position_];
            if (code == static_cast<uint8_t>(RecordCode::RECORD_END)) {
                ++position_;
                break;
            }
            if (!read_record(code)) break;
        }
        if (message_.problem.empty() && position_ < bytes_.size())
            note(plural_bytes(bytes_.size() - position_) + " after the last record");
    }

private:
    // Reads the record at position_; false when the walk ends with it.
    bool read_record(uint8_t code) {
        if (code == static_cast<uint8_t>(RecordCode::PARAMETERS)) {
            read_parameters();
            return false;
        }
        const bool known = wire::is_item_code(code) || code == static_cast<uint8_t>(RecordCode::PING_REPLY) ||
                           code == static_cast<uint8_t>(RecordCode::ERROR_FLAGS);
        if (!known) {
            note("unknown record code " + code_text(code));
            return false;
        }
        if (position_ + wire::RECORD_SIZE > bytes_.size()) {
            note("truncated record " + code_text(code) + ": " + std::to_string(bytes_.size() - position_) + " of " +
                 std::to_string(wire::RECORD_SIZE) + " bytes");
            return false;
        }
        const uint8_t* record = &bytes_[position_];
        position_ += wire::RECORD_SIZE;
        if (wire::is_item_code(code)) {
            item_part(code).values.push_back(
                typed_value(*known_item_name(code), code, wire::item_value_type(code), record + 1));
            return true;
        }
        if (code == static_cast<uint8_t>(RecordCode::PING_REPLY)) {
            add_ping_reply(record);
        } else {
            add_error_flags(record);
        }
        return false;  // both end the host's walk
    }

    DecodedPart& item_part(uint8_t code) {
        if (message_.parts.empty() || message_.parts.back().name != "ITEMS") message_.parts.push_back({"ITEMS", code, {}});
        return message_.parts.back();
    }

    void add_ping_reply(const uint8_t* record) {
        DecodedPart part{"PING_REPLY", static_cast<uint8_t>(RecordCode::PING_REPLY), {}};
        const uint16_t model_code = wire::read_u16(record + wire::PING_MODEL_OFFSET);
        DecodedValue model = number_value("model", Type::u16, model_code);
        model.meaning = model_name_of(model_code);
        const uint16_t firmware_word = wire::read_u16(record + wire::PING_FIRMWARE_OFFSET);
        DecodedValue firmware = number_value("firmware", Type::u16, firmware_word);
        firmware.meaning = wire::firmware_version_text(firmware_word);
        firmware.shown_in_hex = true;
        part.values = {std::move(model), std::move(firmware)};
        message_.parts.push_back(std::move(part));
    }

    void add_error_flags(const uint8_t* record) {
        DecodedPart part{"ERROR_FLAGS", static_cast<uint8_t>(RecordCode::ERROR_FLAGS), {}};
        const uint32_t flags = wire::read_u32(record + 1);
        DecodedValue word = number_value("flags", Type::u32, flags);
        word.shown_in_hex = true;
        part.values.push_back(std::move(word));
        for (int bit = 0; bit < 32; ++bit) {
            if ((flags & (1u << bit)) == 0) continue;
            DecodedValue value = bare_name("bit" + std::to_string(bit), std::nullopt);
            value.meaning = "unknown error bit";
            for (const auto& known : wire::ERROR_BITS) {
                if (known.bit == bit) value.meaning = known.description;
            }
            part.values.push_back(std::move(value));
        }
        message_.parts.push_back(std::move(part));
    }

    // Entries of a code byte and 4 value bytes, up to a zero code or the end.
    void read_parameters() {
        DecodedPart part{"PARAMETERS", static_cast<uint8_t>(RecordCode::PARAMETERS), {}};
        ++position_;
        while (position_ < bytes_.size()) {
            const uint8_t code = bytes_[position_];
            if (code == 0) {
                ++position_;
                break;
            }
            if (position_ + wire::RECORD_SIZE > bytes_.size()) {
                note("truncated parameter entry: " + std::to_string(bytes_.size() - position_) + " of " +
                     std::to_string(wire::RECORD_SIZE) + " bytes");
                break;
            }
            const auto name = known_parameter_name(code);
            if (!name) note("unknown parameter code " + code_text(code));
            part.values.push_back(typed_value(name.value_or(code_text(code)), code, wire::parameter_value_type(code),
                                              &bytes_[position_ + 1]));
            position_ += wire::RECORD_SIZE;
        }
        message_.parts.push_back(std::move(part));
    }

    void note(const std::string& problem) {
        if (message_.problem.empty()) message_.problem = problem;
    }

    const std::vector<uint8_t>& bytes_;
    DecodedMessage& message_;
    std::size_t position_ = 0;
};

// --- rendering -----------------------------------------------------------------

// The shortest decimal text that reads back as the same float.
std::string float_text(double number) {
    if (std::isnan(number)) return "nan";
    if (std::isinf(number)) return number < 0 ? "-inf" : "inf";
    const float value = static_cast<float>(number);
    char text[32];
    for (int digits = 1; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, number);
        if (std::strtof(text, nullptr) == value) break;
    }
    return text;
}

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
    const char* name = command_name(frame[0]);
    if (name == nullptr) {
        message.problem = "unknown command " + code_text(frame[0]);
        return message;
    }
    message.parts.push_back({name, frame[0], {}});
    CommandReader reader(frame, message.parts.back(), message.problem);
    decode_command_payload(static_cast<Command>(frame[0]), reader);
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
