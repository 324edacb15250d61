#include "ocp_api/wire.hpp"

#include "common/numeric.hpp"
#include "ocp_api/identifier_tables.hpp"

#include <cmath>
#include <cstring>

namespace ocp_api {

void append_float(std::vector<uint8_t>& bytes, float value) {
    wire::append_u32(bytes, wire::bits_from_float(value));
}

namespace wire {

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

bool is_item_code(uint8_t code) { return find_item(code) != nullptr; }

ValueType item_value_type(uint8_t code) {
    const ItemInfo* item = find_item(code);
    return item ? item->type : ValueType::F32;
}

ValueType parameter_value_type(uint8_t code) {
    const ParameterInfo* parameter = find_parameter(code);
    return parameter ? parameter->type : ValueType::F32;
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

float decode_parameter_value(uint8_t code, uint32_t word) {
    return decode_value(parameter_value_type(code), word);
}

uint32_t encode_parameter_value(uint8_t code, float value) {
    return encode_value(parameter_value_type(code), value);
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

}  // namespace wire
}  // namespace ocp_api
