// One table per identifier set: feedback items, parameters, control modes,
// error bits and models. Each row holds the code, the name, the wire type, the
// unit and the meaning; the enumerations' name look-ups, the wire types the
// codec reads, `ocpctl list`, the traffic decoder and the bindings all take
// what they show from here. Adding an item is one row (and its enumerator).
//
// Units: the protocol does not state the unit of any quantity; the device
// decides them. Such rows say "not documented" rather than guess. Codes,
// flags and counts that have no unit by nature say "none".
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ocp_api/wire.hpp"

namespace ocp_api {

inline constexpr std::string_view UNIT_NOT_DOCUMENTED = "not documented";
inline constexpr std::string_view UNIT_NONE = "none";
inline constexpr std::string_view MEANING_NOT_DOCUMENTED = "not documented";

struct ItemInfo {
    uint8_t code;
    std::string_view name;
    wire::ValueType type;
    std::string_view unit;
    std::string_view meaning;
};

struct ParameterInfo {
    uint8_t code;
    std::string_view name;
    wire::ValueType type;  // how a reply carries it; the host always sends a float
    std::string_view unit;
    std::string_view meaning;
};

struct ModeInfo {
    uint8_t code;
    std::string_view name;
    std::string_view meaning;
};

struct ErrorBitInfo {
    int bit;
    std::string_view description;
};

// Error bits from here up are severe: the default reaction stops the actuator.
inline constexpr int FIRST_SEVERE_ERROR_BIT = 16;

struct ModelInfo {
    uint16_t code;
    std::string_view name;
};

namespace tables {

inline constexpr std::string_view ND = UNIT_NOT_DOCUMENTED;
inline constexpr std::string_view NO = UNIT_NONE;
using T = wire::ValueType;

// In ascending code order, the order of OrreryActuator::ALL_ITEMS.
inline constexpr std::array<ItemInfo, 48> ITEMS = {{
    {0x41, "POS_FB_41", T::F32, ND, "position feedback"},
    {0x42, "ITEM_42", T::U32, ND, "unsigned integer quantity"},
    {0x43, "POS_FB_43", T::F32, ND, "position feedback, second form"},
    {0x44, "ITEM_44", T::U32, ND, "unsigned integer quantity"},
    {0x45, "SPD_FB_45", T::F32, ND, "speed feedback"},
    {0x46, "ITEM_46", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x47, "ITEM_47", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x48, "ITEM_48", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x49, "T_FB_49", T::F32, ND, "torque feedback"},
    {0x4A, "ITEM_4A", T::I32, ND, "signed integer quantity"},
    {0x4B, "REF_4B", T::F32, ND, "active reference (setpoint)"},
    {0x4C, "POS_FB_4C", T::F32, ND, "position feedback, third form"},
    {0x4D, "REF_4D", T::F32, ND, "active reference, second form"},
    {0x4F, "ITEM_4F", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x50, "ITEM_50", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x51, "ITEM_51", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x52, "ITEM_52", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x53, "ITEM_53", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x54, "ITEM_54", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x55, "REF_55", T::F32, ND, "active reference, third form"},
    {0x56, "T_FB_56", T::F32, ND, "torque feedback, second form"},
    {0x57, "ITEM_57", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x58, "ITEM_58", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x59, "ITEM_59", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x5A, "POWER_MEC_5A", T::F32, ND, "mechanical power: torque times speed"},
    {0x5B, "I_DC_5B", T::F32, ND, "DC current: mechanical power divided by bus voltage"},
    {0x5C, "ITEM_5C", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x5D, "POWER_5D", T::F32, ND, "power: torque times speed, second form"},
    {0x5E, "ITEM_5E", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x5F, "ITEM_5F", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x60, "ITEM_60", T::U32, ND, "unsigned integer quantity"},
    {0x61, "ITEM_61", T::U32, ND, "unsigned integer quantity"},
    {0x62, "ITEM_62", T::U32, ND, "unsigned integer quantity"},
    {0x70, "VBUS_70", T::F32, ND, "bus voltage"},
    {0x71, "TEMP_AUX_71", T::F32, ND, "a second temperature (beside the winding temperature)"},
    {0x72, "TEMP_WINDING_72", T::F32, ND, "winding temperature"},
    {0x73, "POS_FB_73", T::F32, ND, "position feedback, fourth form"},
    {0x90, "ERRORS_90", T::U32, NO, "error state word (the bits of the error flags)"},
    {0x91, "ITEM_91", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x92, "ITEM_92", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x93, "ITEM_93", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x94, "ITEM_94", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x95, "ITEM_95", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x96, "ITEM_96", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x97, "ITEM_97", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x98, "ITEM_98", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x99, "ITEM_99", T::F32, ND, MEANING_NOT_DOCUMENTED},
    {0x9A, "ITEM_9A", T::F32, ND, MEANING_NOT_DOCUMENTED},
}};

// In the order in which a full read requests them (OrreryActuator::ALL_PARAMETERS).
inline constexpr std::array<ParameterInfo, 31> PARAMETERS = {{
    {0x01, "K_DAMP", T::F32, ND, "impedance damping gain"},
    {0x02, "K_STIFF", T::F32, ND, "impedance stiffness gain"},
    {0x03, "T_FF", T::F32, ND, "torque feed-forward"},
    {0x04, "LIMIT_TORQUE", T::F32, ND, "torque limit"},
    {0x05, "LIMIT_POSITION_MAX", T::F32, ND, "upper position limit"},
    {0x06, "LIMIT_POSITION_MIN", T::F32, ND, "lower position limit"},
    {0x07, "LIMIT_SPEED_MAX", T::F32, ND, "upper speed limit"},
    {0x08, "LIMIT_SPEED_MIN", T::F32, ND, "lower speed limit"},
    {0x09, "PROFILE_POSITION_MAX", T::F32, ND, "motion-profile upper position"},
    {0x0A, "PROFILE_POSITION_MIN", T::F32, ND, "motion-profile lower position"},
    {0x0B, "PROFILE_SPEED_MAX", T::F32, ND, "motion-profile upper speed"},
    {0x0C, "PROFILE_SPEED_MIN", T::F32, ND, "motion-profile lower speed"},
    {0x0D, "SETPOINT_AUX_0D", T::F32, ND, "auxiliary quantity of the torque, speed and position setpoints"},
    {0x0E, "SETPOINT_AUX_0E", T::F32, ND, "auxiliary quantity of the torque, speed and position setpoints"},
    {0x0F, "SETPOINT_AUX_0F", T::F32, ND, "auxiliary quantity of the torque and position setpoints"},
    {0x30, "MODE", T::MODE, NO, "current control mode (a Mode value)"},
    {0x31, "SETPOINT", T::F32, ND, "current main setpoint"},
    {0x40, "TORQUE_PERFORMANCE", T::F32, NO, "torque performance preset"},
    {0x41, "SPEED_PERFORMANCE", T::F32, NO, "speed performance preset"},
    {0x42, "TUNING_42", T::F32, ND, "device tuning value"},
    {0x43, "TUNING_43", T::F32, ND, "device tuning value"},
    {0x44, "TUNING_44", T::F32, ND, "device tuning value"},
    {0x45, "SPEED_FF", T::F32, ND, "speed feed-forward"},
    {0x46, "TUNING_46", T::F32, ND, "device tuning value"},
    {0x47, "TUNING_47", T::F32, ND, "device tuning value"},
    {0x80, "DEVICE_80", T::U32, ND, "integer device setting"},
    {0x81, "ADDRESS", T::F32, NO, "the device's bus address"},
    {0x82, "DEVICE_82", T::U32, ND, "integer device setting"},
    {0x83, "DEVICE_83", T::U32, ND, "integer device setting"},
    {0x84, "DEVICE_84", T::U32, ND, "integer device setting"},
    {0x85, "CAN_HIGH_SPEED", T::F32, NO, "CAN high-speed flag (1 on, 0 off)"},
}};

inline constexpr std::array<ModeInfo, 4> MODES = {{
    {5, "TORQUE", "torque control"},
    {6, "SPEED", "speed control"},
    {7, "POSITION", "position control"},
    {8, "IMPEDANCE", "impedance control: torque = stiffness x position error - damping x speed"},
}};

// Bits not listed have no description and are ignored.
inline constexpr std::array<ErrorBitInfo, 15> ERROR_BITS = {{
    {0, "Overtemperature"},
    {2, "Position reference maximum"},
    {3, "Position reference minimum"},
    {4, "Speed feedback maximum"},
    {5, "VBUS out of range"},
    {6, "Torque reference maximum"},
    {7, "Torque feedback maximum"},
    {8, "Position feedback maximum"},
    {9, "Position feedback minimum"},
    {12, "Control overrun"},
    {16, "Current maximum"},
    {17, "Invalid limits"},
    {29, "VBUS critical range"},
    {30, "Internal encoder error"},
    {31, "External encoder error"},
}};

// Indexed by the model code of a ping reply; code 0 is "no model".
inline constexpr std::array<ModelInfo, 11> MODELS = {{
    {0, ""},
    {1, "KESTREL_A"},
    {2, "KESTREL_B"},
    {3, "HERON_A"},
    {4, "HERON_B"},
    {5, "CAN_ADAPTER"},
    {6, "HERON_C"},
    {7, "HERON_D"},
    {8, "HERON_E"},
    {9, "KESTREL_C"},
    {10, "KESTREL_D"},
}};

}  // namespace tables

namespace tables::detail {

inline constexpr uint8_t NOT_LISTED = 0xFF;

// Row number of every code in `table`, NOT_LISTED where it has none: the
// reply walk looks up every record's code, so this is an index, not a search.
template <class Info, std::size_t N>
constexpr std::array<uint8_t, 256> index_by_code(const std::array<Info, N>& table) {
    static_assert(N < NOT_LISTED);
    std::array<uint8_t, 256> index{};
    for (auto& row : index) row = NOT_LISTED;
    for (std::size_t i = 0; i < N; ++i) index[table[i].code] = static_cast<uint8_t>(i);
    return index;
}

inline constexpr auto ITEM_ROWS = index_by_code(ITEMS);
inline constexpr auto PARAMETER_ROWS = index_by_code(PARAMETERS);

}  // namespace tables::detail

// Look-ups; nullptr for a code or name that is not in the table. Names match
// without regard to case.
inline const ItemInfo* find_item(uint8_t code) {
    const uint8_t row = tables::detail::ITEM_ROWS[code];
    return row == tables::detail::NOT_LISTED ? nullptr : &tables::ITEMS[row];
}
const ItemInfo* find_item(std::string_view name);
inline const ParameterInfo* find_parameter(uint8_t code) {
    const uint8_t row = tables::detail::PARAMETER_ROWS[code];
    return row == tables::detail::NOT_LISTED ? nullptr : &tables::PARAMETERS[row];
}
const ParameterInfo* find_parameter(std::string_view name);
const ModeInfo* find_mode(uint8_t code);
const ModeInfo* find_mode(std::string_view name);
const ErrorBitInfo* find_error_bit(int bit);

// Why `value` is not one a parameter can hold, or "" when it is: an integer
// parameter takes whole numbers from 0 to 4294967295, MODE a named control
// mode (truncated toward zero, as the device reads it), the presets a byte, ADDRESS a device address, CAN_HIGH_SPEED 0 or 1.
// The protocol would carry any float; this is for tools that check what a
// person typed before sending it.
std::string parameter_value_problem(uint8_t code, float value);

// The model name of a ping reply's model code: "" for code 0 and for codes
// past the table.
std::string_view model_name_of(uint16_t model_code);

}  // namespace ocp_api
