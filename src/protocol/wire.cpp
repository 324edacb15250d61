#include "ocp_api/wire.hpp"

#include "common/numeric.hpp"
#include "protocol/codes.hpp"

#include <cmath>
#include <cstring>

namespace ocp_api {

void append_float(std::vector<uint8_t>& bytes, float value) {
    wire::append_u32(bytes, wire::bits_from_float(value));
}

namespace wire {

namespace {

using Items = Codes::OCP_Items;
using Parameters = Codes::OCP_Parameters;

constexpr uint8_t code_of(Items item) { return static_cast<uint8_t>(item); }

}  // namespace

Frame make_frame(Command command, std::size_t payload_bytes) {
    Frame frame;
    frame.reserve(1 + payload_bytes);
    frame.push_back(static_cast<uint8_t>(command));
    return frame;
}

void append_u8(Frame& frame, uint8_t value) { frame.push_back(value); }

void append_u16(Frame& frame, uint16_t value) {
    frame.push_back(static_cast<uint8_t>(value & 0xFFu));
    frame.push_back(static_cast<uint8_t>(value >> 8));
}

void append_u32(Frame& frame, uint32_t value) {
    const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    frame.insert(frame.end(), bytes, bytes + 4);
}

uint16_t read_u16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

uint32_t read_u32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
           (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

float read_f32(const uint8_t* bytes) { return float_from_bits(read_u32(bytes)); }

float float_from_bits(uint32_t word) {
    float value;
    std::memcpy(&value, &word, sizeof value);
    return value;
}

uint32_t bits_from_float(float value) {
    uint32_t word;
    std::memcpy(&word, &value, sizeof word);
    return word;
}

bool is_item_code(uint8_t code) {
    return (code >= code_of(Items::POS_FB_41) && code <= code_of(Items::REF_4D)) ||
           (code >= code_of(Items::ITEM_4F) && code <= code_of(Items::ITEM_62)) ||
           (code >= code_of(Items::VBUS_70) && code <= code_of(Items::POS_FB_73)) ||
           (code >= code_of(Items::ERRORS_90) && code <= code_of(Items::ITEM_9A));
}

ValueType item_value_type(uint8_t code) {
    switch (static_cast<Items>(code)) {
        case Items::ERRORS_90:
        case Items::ITEM_60:
        case Items::ITEM_61:
        case Items::ITEM_62:
        case Items::ITEM_42:
        case Items::ITEM_44:
            return ValueType::U32;
        case Items::ITEM_4A:
            return ValueType::I32;
        default:
            return ValueType::F32;
    }
}

ValueType parameter_value_type(uint8_t code) {
    switch (static_cast<Parameters>(code)) {
        case Parameters::MODE:
            return ValueType::MODE;
        case Parameters::DEVICE_80:
        case Parameters::DEVICE_82:
        case Parameters::DEVICE_83:
        case Parameters::DEVICE_84:
            return ValueType::U32;
        default:
            return ValueType::F32;
    }
}

namespace {

// A mode is an integer carried as a float: truncated toward zero, with -0.5
// giving +0.0 as an integer conversion would, not -0.0. NaN and infinities
// pass through.
float truncated_mode(float value) {
    const float whole = std::trunc(value);
    return whole == 0.0f ? 0.0f : whole;
}

float decode_value(ValueType type, uint32_t word) {
    switch (type) {
        case ValueType::U32:
            return static_cast<float>(word);
        case ValueType::I32:
            return static_cast<float>(static_cast<int32_t>(word));
        case ValueType::MODE:
            return truncated_mode(float_from_bits(word));
        case ValueType::F32:
            break;
    }
    return float_from_bits(word);
}

uint32_t encode_value(ValueType type, float value) {
    switch (type) {
        case ValueType::U32:
            return detail::saturating_u32(value);
        case ValueType::I32:
            return static_cast<uint32_t>(detail::saturating_i32(value));
        case ValueType::MODE:
        case ValueType::F32:
            break;
    }
    return bits_from_float(value);
}

}  // namespace

float decode_item_value(uint8_t code, uint32_t word) { return decode_value(item_value_type(code), word); }

uint32_t encode_item_value(uint8_t code, float value) { return encode_value(item_value_type(code), value); }

void append_item_record(Frame& frame, uint8_t item_code, float value) {
    append_u8(frame, item_code);
    append_u32(frame, encode_item_value(item_code, value));
}

float decode_parameter_value(uint8_t code, uint32_t word) {
    return decode_value(parameter_value_type(code), word);
}

uint32_t encode_parameter_value(uint8_t code, float value) {
    return encode_value(parameter_value_type(code), value);
}

void append_parameter_record(Frame& frame, uint8_t parameter_code, float value) {
    append_u8(frame, parameter_code);
    append_float(frame, value);
}

void append_typed_parameter_record(Frame& frame, uint8_t parameter_code, float value) {
    append_u8(frame, parameter_code);
    append_u32(frame, encode_parameter_value(parameter_code, value));
}

uint32_t feedback_period_from_hz(int hz) {
    if (hz <= 0) return 0;
    return static_cast<uint32_t>((PERIOD_UNITS_PER_SECOND + hz / 2) / hz);
}

namespace {
constexpr unsigned MAJOR_SHIFT = 11;
constexpr unsigned MINOR_SHIFT = 6;
constexpr unsigned MAJOR_MASK = 0x1F;
constexpr unsigned MINOR_MASK = 0x1F;
constexpr unsigned PATCH_MASK = 0x3F;
}  // namespace

uint16_t firmware_word(unsigned major, unsigned minor, unsigned patch) {
    return static_cast<uint16_t>(((major & MAJOR_MASK) << MAJOR_SHIFT) | ((minor & MINOR_MASK) << MINOR_SHIFT) |
                                 (patch & PATCH_MASK));
}

std::string firmware_version_text(uint16_t word) {
    const unsigned major = (word >> MAJOR_SHIFT) & MAJOR_MASK;
    const unsigned minor = (word >> MINOR_SHIFT) & MINOR_MASK;
    const unsigned patch = word & PATCH_MASK;
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

bool is_valid_device_address(int address) {
    return address >= MIN_DEVICE_ADDRESS && address <= MAX_DEVICE_ADDRESS;
}

CommandClass command_class(uint8_t code) {
    switch (static_cast<Command>(code)) {
    case Command::STOP:
        return CommandClass::safety;
    case Command::START:
        return CommandClass::motion;
    case Command::SET_SETPOINT:
    case Command::SET_SETPOINT_EXT:
    case Command::SET_TORQUE_SETPOINT:
    case Command::SET_SPEED_SETPOINT:
    case Command::SET_POSITION_SETPOINT:
    case Command::SET_IMPEDANCE_SETPOINT:
    case Command::SET_SPEED_SETPOINT_INTERNAL:
    case Command::SET_POSITION_SETPOINT_INTERNAL:
        return CommandClass::setpoint;
    default:
        return CommandClass::ordinary;
    }
}

}  // namespace wire
}  // namespace ocp_api
