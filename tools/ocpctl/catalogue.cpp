#include "catalogue.hpp"

#include <cmath>
#include <cstdio>

#include <ocp_api/identifier_tables.hpp>
#include <ocp_api/wire.hpp>

#include "cli_support.hpp"

namespace ocpctl {

namespace {

using OCP_Items = Item;
using OCP_Parameters = Parameter;

std::string_view type_name(ocp_api::wire::ValueType type) {
    switch (type) {
        case ocp_api::wire::ValueType::F32: return "f32";
        case ocp_api::wire::ValueType::U32: return "u32";
        case ocp_api::wire::ValueType::I32: return "i32";
        case ocp_api::wire::ValueType::MODE: return "mode";
    }
    return "?";
}

std::string hex_code(unsigned code) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", code);
    return text;
}

bool is_whole(float value) { return std::isfinite(value) && value == std::trunc(value); }

// "0x00010001 (Overtemperature, Current maximum)"; "0x00000000 (no error)".
std::string describe_error_word(float value) {
    // Words above 2^24 lose low bits as floats; 2^32 itself (all bits set on
    // the wire) no longer fits a word at all.
    if (!is_whole(value) || value < 0.0f || !(value < 4294967296.0f)) return format_value(value);
    const auto word = static_cast<uint32_t>(value);
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(word));
    std::string bits;
    uint32_t known = 0;
    for (const auto& bit : ocp_api::tables::ERROR_BITS) {
        known |= 1u << bit.bit;
        if ((word >> bit.bit) & 1u) bits += (bits.empty() ? "" : ", ") + std::string(bit.description);
    }
    if ((word & ~known) != 0) {
        char unknown[32];
        std::snprintf(unknown, sizeof unknown, "unknown bits 0x%08x", static_cast<unsigned>(word & ~known));
        bits += (bits.empty() ? "" : ", ") + std::string(unknown);
    }
    return std::string(text) + " (" + (bits.empty() ? "no error" : bits) + ")";
}

}  // namespace

std::string_view item_meaning(OCP_Items item) { return ocp_api::find_item(static_cast<uint8_t>(item))->meaning; }

std::string_view parameter_meaning(OCP_Parameters parameter) {
    return ocp_api::find_parameter(static_cast<uint8_t>(parameter))->meaning;
}

std::string_view item_unit(OCP_Items item) { return ocp_api::find_item(static_cast<uint8_t>(item))->unit; }

std::string_view parameter_unit(OCP_Parameters parameter) {
    return ocp_api::find_parameter(static_cast<uint8_t>(parameter))->unit;
}

std::string_view item_wire_type(OCP_Items item) {
    return type_name(ocp_api::wire::item_value_type(static_cast<uint8_t>(item)));
}

std::string_view parameter_wire_type(OCP_Parameters parameter) {
    return type_name(ocp_api::wire::parameter_value_type(static_cast<uint8_t>(parameter)));
}

bool parameter_is_integer(OCP_Parameters parameter) {
    return parameter == OCP_Parameters::ADDRESS ||
           ocp_api::wire::parameter_value_type(static_cast<uint8_t>(parameter)) != ocp_api::wire::ValueType::F32;
}

std::string code_text(OCP_Items item) { return hex_code(static_cast<unsigned>(item)); }
std::string code_text(OCP_Parameters parameter) { return hex_code(static_cast<unsigned>(parameter)); }

std::string describe_value(OCP_Parameters parameter, float value) {
    if (parameter == OCP_Parameters::ADDRESS && is_whole(value) && value >= 0.0f && value <= 65535.0f)
        return hex(static_cast<int>(value));
    if (parameter == OCP_Parameters::MODE && is_whole(value) && value >= 0.0f && value <= 255.0f) {
        const std::string_view name = ocp_api::mode_name(static_cast<Mode>(static_cast<int>(value)));
        if (!name.empty()) return format_value(value) + " (" + std::string(name) + ")";
    }
    if (parameter == OCP_Parameters::CAN_HIGH_SPEED && (value == 0.0f || value == 1.0f))
        return format_value(value) + (value == 1.0f ? " (on)" : " (off)");
    return format_value(value);
}

std::string describe_value(OCP_Items item, float value) {
    if (item == OCP_Items::ERRORS_90) return describe_error_word(value);
    return format_value(value);
}

}  // namespace ocpctl
