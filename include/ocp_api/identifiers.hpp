// Identifiers shared by the host and the device: feedback items, rates,
// parameters, control modes, performance presets and model codes.
//
// Each enumeration's value is its byte (or word) on the wire. The physical and
// the simulated actuator each have their own nested enumerations
// (OrreryActuator::Mode and OrreryActuatorVirtual::Mode are distinct types, so
// host code may overload on them), but both are stamped from the one list
// below, so their members, values and underlying types cannot drift apart.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace ocp_api {

class OrreryActuator;
class OrreryActuatorVirtual;

// The enumerations of one actuator class. Each class derives from its own
// instantiation (OrreryActuator : ActuatorIdentifiers<OrreryActuator>), which
// makes every enumeration a distinct type nested in that class.
template <class Owner>
struct ActuatorIdentifiers {
    // Feedback item codes. The value is the record code in a reply buffer.
    enum class OCP_Items : uint8_t {
        POS_FB_41 = 0x41,
        ITEM_42 = 0x42,
        POS_FB_43 = 0x43,
        ITEM_44 = 0x44,
        SPD_FB_45 = 0x45,
        ITEM_46 = 0x46,
        ITEM_47 = 0x47,
        ITEM_48 = 0x48,
        T_FB_49 = 0x49,
        ITEM_4A = 0x4A,
        REF_4B = 0x4B,
        POS_FB_4C = 0x4C,
        REF_4D = 0x4D,
        ITEM_4F = 0x4F,
        ITEM_50 = 0x50,
        ITEM_51 = 0x51,
        ITEM_52 = 0x52,
        ITEM_53 = 0x53,
        ITEM_54 = 0x54,
        REF_55 = 0x55,
        T_FB_56 = 0x56,
        ITEM_57 = 0x57,
        ITEM_58 = 0x58,
        ITEM_59 = 0x59,
        POWER_MEC_5A = 0x5A,
        I_DC_5B = 0x5B,
        ITEM_5C = 0x5C,
        POWER_5D = 0x5D,
        ITEM_5E = 0x5E,
        ITEM_5F = 0x5F,
        ITEM_60 = 0x60,
        ITEM_61 = 0x61,
        ITEM_62 = 0x62,
        VBUS_70 = 0x70,
        TEMP_AUX_71 = 0x71,
        TEMP_WINDING_72 = 0x72,
        POS_FB_73 = 0x73,
        ERRORS_90 = 0x90,
        ITEM_91 = 0x91,
        ITEM_92 = 0x92,
        ITEM_93 = 0x93,
        ITEM_94 = 0x94,
        ITEM_95 = 0x95,
        ITEM_96 = 0x96,
        ITEM_97 = 0x97,
        ITEM_98 = 0x98,
        ITEM_99 = 0x99,
        ITEM_9A = 0x9A,
    };

    // Feedback rates in Hz. Any value up to 10000 may be cast to Rates.
    enum class Rates : uint16_t {
        RATE_OFF = 0,
        RATE_1HZ = 1,
        RATE_10HZ = 10,
        RATE_50HZ = 50,
        RATE_100HZ = 100,
        RATE_200HZ = 200,
        RATE_500HZ = 500,
        RATE_1KHZ = 1000,
        RATE_2KHZ = 2000,
        RATE_5KHZ = 5000,
        RATE_10KHZ = 10000,
    };

    // Parameter identifiers. The value is the identifier byte of a parameter record.
    enum class OCP_Parameters : uint8_t {
        K_DAMP = 0x01,
        K_STIFF = 0x02,
        T_FF = 0x03,
        LIMIT_TORQUE = 0x04,
        LIMIT_POSITION_MAX = 0x05,
        LIMIT_POSITION_MIN = 0x06,
        LIMIT_SPEED_MAX = 0x07,
        LIMIT_SPEED_MIN = 0x08,
        PROFILE_POSITION_MAX = 0x09,
        PROFILE_POSITION_MIN = 0x0A,
        PROFILE_SPEED_MAX = 0x0B,
        PROFILE_SPEED_MIN = 0x0C,
        SETPOINT_AUX_0D = 0x0D,
        SETPOINT_AUX_0E = 0x0E,
        SETPOINT_AUX_0F = 0x0F,
        MODE = 0x30,
        SETPOINT = 0x31,
        TORQUE_PERFORMANCE = 0x40,
        SPEED_PERFORMANCE = 0x41,
        TUNING_42 = 0x42,
        TUNING_43 = 0x43,
        TUNING_44 = 0x44,
        SPEED_FF = 0x45,
        TUNING_46 = 0x46,
        TUNING_47 = 0x47,
        DEVICE_80 = 0x80,
        ADDRESS = 0x81,
        DEVICE_82 = 0x82,
        DEVICE_83 = 0x83,
        DEVICE_84 = 0x84,
        CAN_HIGH_SPEED = 0x85,
    };

    // Control modes; the value is the byte of the mode command and of parameter MODE.
    // Values below 5 are not named but are passed to the device unchanged.
    enum class Mode : uint8_t {
        TORQUE = 5,
        SPEED = 6,
        POSITION = 7,
        IMPEDANCE = 8,
    };

    // Performance presets. Their meaning is the device's; the library only carries
    // the byte. Other values may be cast in.
    enum class TorquePerformance : uint8_t {
        PRESET_0 = 0,
        PRESET_1 = 1,
        PRESET_2 = 2,
        PRESET_3 = 3,
    };

    enum class SpeedPerformance : uint8_t {
        PRESET_0 = 0,
        PRESET_1 = 1,
        PRESET_2 = 2,
        PRESET_3 = 3,
    };

    // Every valid feedback item, in ascending code order.
    static constexpr std::array<OCP_Items, 48> ALL_ITEMS = {
        OCP_Items::POS_FB_41,    OCP_Items::ITEM_42,         OCP_Items::POS_FB_43, OCP_Items::ITEM_44,
        OCP_Items::SPD_FB_45,    OCP_Items::ITEM_46,         OCP_Items::ITEM_47,   OCP_Items::ITEM_48,
        OCP_Items::T_FB_49,      OCP_Items::ITEM_4A,         OCP_Items::REF_4B,    OCP_Items::POS_FB_4C,
        OCP_Items::REF_4D,       OCP_Items::ITEM_4F,         OCP_Items::ITEM_50,   OCP_Items::ITEM_51,
        OCP_Items::ITEM_52,      OCP_Items::ITEM_53,         OCP_Items::ITEM_54,   OCP_Items::REF_55,
        OCP_Items::T_FB_56,      OCP_Items::ITEM_57,         OCP_Items::ITEM_58,   OCP_Items::ITEM_59,
        OCP_Items::POWER_MEC_5A, OCP_Items::I_DC_5B,         OCP_Items::ITEM_5C,   OCP_Items::POWER_5D,
        OCP_Items::ITEM_5E,      OCP_Items::ITEM_5F,         OCP_Items::ITEM_60,   OCP_Items::ITEM_61,
        OCP_Items::ITEM_62,      OCP_Items::VBUS_70,         OCP_Items::TEMP_AUX_71, OCP_Items::TEMP_WINDING_72,
        OCP_Items::POS_FB_73,    OCP_Items::ERRORS_90,       OCP_Items::ITEM_91,   OCP_Items::ITEM_92,
        OCP_Items::ITEM_93,      OCP_Items::ITEM_94,         OCP_Items::ITEM_95,   OCP_Items::ITEM_96,
        OCP_Items::ITEM_97,      OCP_Items::ITEM_98,         OCP_Items::ITEM_99,   OCP_Items::ITEM_9A,
    };

    // Every parameter, in the order in which a full read requests them.
    static constexpr std::array<OCP_Parameters, 31> ALL_PARAMETERS = {
        OCP_Parameters::K_DAMP,          OCP_Parameters::K_STIFF,
        OCP_Parameters::T_FF,            OCP_Parameters::LIMIT_TORQUE,
        OCP_Parameters::LIMIT_POSITION_MAX, OCP_Parameters::LIMIT_POSITION_MIN,
        OCP_Parameters::LIMIT_SPEED_MAX, OCP_Parameters::LIMIT_SPEED_MIN,
        OCP_Parameters::PROFILE_POSITION_MAX, OCP_Parameters::PROFILE_POSITION_MIN,
        OCP_Parameters::PROFILE_SPEED_MAX, OCP_Parameters::PROFILE_SPEED_MIN,
        OCP_Parameters::SETPOINT_AUX_0D, OCP_Parameters::SETPOINT_AUX_0E,
        OCP_Parameters::SETPOINT_AUX_0F, OCP_Parameters::MODE,
        OCP_Parameters::SETPOINT,        OCP_Parameters::TORQUE_PERFORMANCE,
        OCP_Parameters::SPEED_PERFORMANCE, OCP_Parameters::TUNING_42,
        OCP_Parameters::TUNING_43,       OCP_Parameters::TUNING_44,
        OCP_Parameters::SPEED_FF,        OCP_Parameters::TUNING_46,
        OCP_Parameters::TUNING_47,       OCP_Parameters::DEVICE_80,
        OCP_Parameters::ADDRESS,         OCP_Parameters::DEVICE_82,
        OCP_Parameters::DEVICE_83,       OCP_Parameters::DEVICE_84,
        OCP_Parameters::CAN_HIGH_SPEED,
    };
};

// The enumerations of the two actuator classes.
using PhysicalIdentifiers = ActuatorIdentifiers<OrreryActuator>;
using VirtualIdentifiers = ActuatorIdentifiers<OrreryActuatorVirtual>;

// Which of the six enumerations a type is, whichever class it is nested in;
// NONE for any other type.
enum class IdentifierKind { NONE, ITEM, RATE, PARAMETER, MODE, TORQUE_PERFORMANCE, SPEED_PERFORMANCE };

template <class Enum, class Identifiers>
constexpr IdentifierKind identifier_kind_in() {
    if (std::is_same_v<Enum, typename Identifiers::OCP_Items>) return IdentifierKind::ITEM;
    if (std::is_same_v<Enum, typename Identifiers::Rates>) return IdentifierKind::RATE;
    if (std::is_same_v<Enum, typename Identifiers::OCP_Parameters>) return IdentifierKind::PARAMETER;
    if (std::is_same_v<Enum, typename Identifiers::Mode>) return IdentifierKind::MODE;
    if (std::is_same_v<Enum, typename Identifiers::TorquePerformance>) return IdentifierKind::TORQUE_PERFORMANCE;
    if (std::is_same_v<Enum, typename Identifiers::SpeedPerformance>) return IdentifierKind::SPEED_PERFORMANCE;
    return IdentifierKind::NONE;
}

template <class Enum>
inline constexpr IdentifierKind identifier_kind_v =
    identifier_kind_in<Enum, PhysicalIdentifiers>() != IdentifierKind::NONE
        ? identifier_kind_in<Enum, PhysicalIdentifiers>()
        : identifier_kind_in<Enum, VirtualIdentifiers>();

// The wire code of an identifier (its value in its underlying type).
template <class Identifier>
constexpr auto code_of(Identifier identifier) {
    static_assert(identifier_kind_v<Identifier> != IdentifierKind::NONE, "not an actuator identifier");
    return static_cast<std::underlying_type_t<Identifier>>(identifier);
}

// The same identifier as the other class spells it, e.g.
// identifier_cast<OrreryActuatorVirtual::Mode>(OrreryActuator::Mode::SPEED).
template <class To, class From>
constexpr To identifier_cast(From identifier) {
    static_assert(identifier_kind_v<From> != IdentifierKind::NONE, "not an actuator identifier");
    static_assert(identifier_kind_v<To> == identifier_kind_v<From>, "identifiers of different kinds");
    return static_cast<To>(code_of(identifier));
}

// Model codes reported in a ping reply; the index into the model table
// (identifier_tables.hpp).
inline constexpr uint16_t MODEL_CODE_UNKNOWN = 0;
inline constexpr uint16_t MODEL_CODE_CAN_ADAPTER = 5;

// Enumerator names as text, for tools, logs and bindings, by wire code.
// Lookups by name are case-insensitive; unknown codes give "" and unknown names
// std::nullopt.
std::string_view item_code_name(uint8_t code);
std::optional<uint8_t> item_code_from_name(std::string_view name);
std::string_view parameter_code_name(uint8_t code);
std::optional<uint8_t> parameter_code_from_name(std::string_view name);
std::string_view mode_code_name(uint8_t code);  // "" for unnamed values
std::optional<uint8_t> mode_code_from_name(std::string_view name);

// The same lookups in terms of either class's enumerations:
// item_name(OrreryActuator::OCP_Items::POS_FB_41) is "POS_FB_41", and
// item_from_name<OrreryActuatorVirtual::OCP_Items>("pos_fb_41") finds it.
template <class Item>
std::string_view item_name(Item item) {
    static_assert(identifier_kind_v<Item> == IdentifierKind::ITEM, "not a feedback item");
    return item_code_name(code_of(item));
}

template <class Item>
std::optional<Item> item_from_name(std::string_view name) {
    static_assert(identifier_kind_v<Item> == IdentifierKind::ITEM, "not a feedback item");
    const auto code = item_code_from_name(name);
    if (!code) return std::nullopt;
    return static_cast<Item>(*code);
}

template <class Parameter>
std::string_view parameter_name(Parameter parameter) {
    static_assert(identifier_kind_v<Parameter> == IdentifierKind::PARAMETER, "not a parameter");
    return parameter_code_name(code_of(parameter));
}

template <class Parameter>
std::optional<Parameter> parameter_from_name(std::string_view name) {
    static_assert(identifier_kind_v<Parameter> == IdentifierKind::PARAMETER, "not a parameter");
    const auto code = parameter_code_from_name(name);
    if (!code) return std::nullopt;
    return static_cast<Parameter>(*code);
}

template <class ModeType>
std::string_view mode_name(ModeType mode) {
    static_assert(identifier_kind_v<ModeType> == IdentifierKind::MODE, "not a control mode");
    return mode_code_name(code_of(mode));
}

template <class ModeType>
std::optional<ModeType> mode_from_name(std::string_view name) {
    static_assert(identifier_kind_v<ModeType> == IdentifierKind::MODE, "not a control mode");
    const auto code = mode_code_from_name(name);
    if (!code) return std::nullopt;
    return static_cast<ModeType>(*code);
}

}  // namespace ocp_api
