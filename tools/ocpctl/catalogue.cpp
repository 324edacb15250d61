#include "catalogue.hpp"

#include <cmath>
#include <cstdio>

#include <ocp_api/wire.hpp>

#include "cli_support.hpp"

namespace ocpctl {

namespace {

using OCP_Items = Item;
using OCP_Parameters = Parameter;

struct ItemMeaning {
    OCP_Items item;
    const char* meaning;
};

// Items not listed here carry a quantity the device does not name.
constexpr ItemMeaning ITEM_MEANINGS[] = {
    {OCP_Items::POS_FB_41, "position feedback"},
    {OCP_Items::ITEM_42, "unsigned integer quantity"},
    {OCP_Items::POS_FB_43, "position feedback, second form"},
    {OCP_Items::ITEM_44, "unsigned integer quantity"},
    {OCP_Items::SPD_FB_45, "speed feedback"},
    {OCP_Items::T_FB_49, "torque feedback"},
    {OCP_Items::ITEM_4A, "signed integer quantity"},
    {OCP_Items::REF_4B, "active reference (setpoint)"},
    {OCP_Items::POS_FB_4C, "position feedback, third form"},
    {OCP_Items::REF_4D, "active reference, second form"},
    {OCP_Items::REF_55, "active reference, third form"},
    {OCP_Items::T_FB_56, "torque feedback, second form"},
    {OCP_Items::POWER_MEC_5A, "mechanical power: torque times speed"},
    {OCP_Items::I_DC_5B, "DC current: mechanical power divided by bus voltage"},
    {OCP_Items::POWER_5D, "power: torque times speed, second form"},
    {OCP_Items::ITEM_60, "unsigned integer quantity"},
    {OCP_Items::ITEM_61, "unsigned integer quantity"},
    {OCP_Items::ITEM_62, "unsigned integer quantity"},
    {OCP_Items::VBUS_70, "bus voltage"},
    {OCP_Items::TEMP_AUX_71, "a second temperature (beside the winding temperature)"},
    {OCP_Items::TEMP_WINDING_72, "winding temperature"},
    {OCP_Items::POS_FB_73, "position feedback, fourth form"},
    {OCP_Items::ERRORS_90, "error state word (bits decoded when printed)"},
};

struct ParameterMeaning {
    OCP_Parameters parameter;
    const char* meaning;
};

constexpr ParameterMeaning PARAMETER_MEANINGS[] = {
    {OCP_Parameters::K_DAMP, "impedance damping gain"},
    {OCP_Parameters::K_STIFF, "impedance stiffness gain"},
    {OCP_Parameters::T_FF, "torque feed-forward"},
    {OCP_Parameters::LIMIT_TORQUE, "torque limit"},
    {OCP_Parameters::LIMIT_POSITION_MAX, "upper position limit"},
    {OCP_Parameters::LIMIT_POSITION_MIN, "lower position limit"},
    {OCP_Parameters::LIMIT_SPEED_MAX, "upper speed limit"},
    {OCP_Parameters::LIMIT_SPEED_MIN, "lower speed limit"},
    {OCP_Parameters::PROFILE_POSITION_MAX, "motion-profile upper position"},
    {OCP_Parameters::PROFILE_POSITION_MIN, "motion-profile lower position"},
    {OCP_Parameters::PROFILE_SPEED_MAX, "motion-profile upper speed"},
    {OCP_Parameters::PROFILE_SPEED_MIN, "motion-profile lower speed"},
    {OCP_Parameters::SETPOINT_AUX_0D, "auxiliary quantity of the torque, speed and position setpoints"},
    {OCP_Parameters::SETPOINT_AUX_0E, "auxiliary quantity of the torque, speed and position setpoints"},
    {OCP_Parameters::SETPOINT_AUX_0F, "auxiliary quantity of the torque and position setpoints"},
    {OCP_Parameters::MODE, "current control mode (5 torque, 6 speed, 7 position, 8 impedance)"},
    {OCP_Parameters::SETPOINT, "current main setpoint"},
    {OCP_Parameters::TORQUE_PERFORMANCE, "torque performance preset"},
    {OCP_Parameters::SPEED_PERFORMANCE, "speed performance preset"},
    {OCP_Parameters::TUNING_42, "device tuning value"},
    {OCP_Parameters::TUNING_43, "device tuning value"},
    {OCP_Parameters::TUNING_44, "device tuning value"},
    {OCP_Parameters::SPEED_FF, "speed feed-forward"},
    {OCP_Parameters::TUNING_46, "device tuning value"},
    {OCP_Parameters::TUNING_47, "device tuning value"},
    {OCP_Parameters::DEVICE_80, "integer device setting"},
    {OCP_Parameters::ADDRESS, "the device's bus address"},
    {OCP_Parameters::DEVICE_82, "integer device setting"},
    {OCP_Parameters::DEVICE_83, "integer device setting"},
    {OCP_Parameters::DEVICE_84, "integer device setting"},
    {OCP_Parameters::CAN_HIGH_SPEED, "CAN high-speed flag (1 on, 0 off)"},
};

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
    for (const auto& bit : ocp_api::wire::ERROR_BITS) {
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

std::string_view item_meaning(OCP_Items item) {
    for (const auto& entry : ITEM_MEANINGS) {
        if (entry.item == item) return entry.meaning;
    }
    return "quantity not named";
}

std::string_view parameter_meaning(OCP_Parameters parameter) {
    for (const auto& entry : PARAMETER_MEANINGS) {
        if (entry.parameter == parameter) return entry.meaning;
    }
    return "";
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
