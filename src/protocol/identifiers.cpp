// Enumerator names as text. The tables follow the enumerations of
// identifiers.hpp member for member.
#include "ocp_api/identifiers.hpp"

#include <algorithm>
#include <cctype>

namespace ocp_api {
namespace {

template <typename Enum>
struct Named {
    Enum value;
    std::string_view name;
};

constexpr Named<OCP_Items> ITEM_NAMES[] = {
    {OCP_Items::POS_FB_41, "POS_FB_41"},
    {OCP_Items::ITEM_42, "ITEM_42"},
    {OCP_Items::POS_FB_43, "POS_FB_43"},
    {OCP_Items::ITEM_44, "ITEM_44"},
    {OCP_Items::SPD_FB_45, "SPD_FB_45"},
    {OCP_Items::ITEM_46, "ITEM_46"},
    {OCP_Items::ITEM_47, "ITEM_47"},
    {OCP_Items::ITEM_48, "ITEM_48"},
    {OCP_Items::T_FB_49, "T_FB_49"},
    {OCP_Items::ITEM_4A, "ITEM_4A"},
    {OCP_Items::REF_4B, "REF_4B"},
    {OCP_Items::POS_FB_4C, "POS_FB_4C"},
    {OCP_Items::REF_4D, "REF_4D"},
    {OCP_Items::ITEM_4F, "ITEM_4F"},
    {OCP_Items::ITEM_50, "ITEM_50"},
    {OCP_Items::ITEM_51, "ITEM_51"},
    {OCP_Items::ITEM_52, "ITEM_52"},
    {OCP_Items::ITEM_53, "ITEM_53"},
    {OCP_Items::ITEM_54, "ITEM_54"},
    {OCP_Items::REF_55, "REF_55"},
    {OCP_Items::T_FB_56, "T_FB_56"},
    {OCP_Items::ITEM_57, "ITEM_57"},
    {OCP_Items::ITEM_58, "ITEM_58"},
    {OCP_Items::ITEM_59, "ITEM_59"},
    {OCP_Items::POWER_MEC_5A, "POWER_MEC_5A"},
    {OCP_Items::I_DC_5B, "I_DC_5B"},
    {OCP_Items::ITEM_5C, "ITEM_5C"},
    {OCP_Items::POWER_5D, "POWER_5D"},
    {OCP_Items::ITEM_5E, "ITEM_5E"},
    {OCP_Items::ITEM_5F, "ITEM_5F"},
    {OCP_Items::ITEM_60, "ITEM_60"},
    {OCP_Items::ITEM_61, "ITEM_61"},
    {OCP_Items::ITEM_62, "ITEM_62"},
    {OCP_Items::VBUS_70, "VBUS_70"},
    {OCP_Items::TEMP_AUX_71, "TEMP_AUX_71"},
    {OCP_Items::TEMP_WINDING_72, "TEMP_WINDING_72"},
    {OCP_Items::POS_FB_73, "POS_FB_73"},
    {OCP_Items::ERRORS_90, "ERRORS_90"},
    {OCP_Items::ITEM_91, "ITEM_91"},
    {OCP_Items::ITEM_92, "ITEM_92"},
    {OCP_Items::ITEM_93, "ITEM_93"},
    {OCP_Items::ITEM_94, "ITEM_94"},
    {OCP_Items::ITEM_95, "ITEM_95"},
    {OCP_Items::ITEM_96, "ITEM_96"},
    {OCP_Items::ITEM_97, "ITEM_97"},
    {OCP_Items::ITEM_98, "ITEM_98"},
    {OCP_Items::ITEM_99, "ITEM_99"},
    {OCP_Items::ITEM_9A, "ITEM_9A"},
};

constexpr Named<OCP_Parameters> PARAMETER_NAMES[] = {
    {OCP_Parameters::K_DAMP, "K_DAMP"},
    {OCP_Parameters::K_STIFF, "K_STIFF"},
    {OCP_Parameters::T_FF, "T_FF"},
    {OCP_Parameters::LIMIT_TORQUE, "LIMIT_TORQUE"},
    {OCP_Parameters::LIMIT_POSITION_MAX, "LIMIT_POSITION_MAX"},
    {OCP_Parameters::LIMIT_POSITION_MIN, "LIMIT_POSITION_MIN"},
    {OCP_Parameters::LIMIT_SPEED_MAX, "LIMIT_SPEED_MAX"},
    {OCP_Parameters::LIMIT_SPEED_MIN, "LIMIT_SPEED_MIN"},
    {OCP_Parameters::PROFILE_POSITION_MAX, "PROFILE_POSITION_MAX"},
    {OCP_Parameters::PROFILE_POSITION_MIN, "PROFILE_POSITION_MIN"},
    {OCP_Parameters::PROFILE_SPEED_MAX, "PROFILE_SPEED_MAX"},
    {OCP_Parameters::PROFILE_SPEED_MIN, "PROFILE_SPEED_MIN"},
    {OCP_Parameters::SETPOINT_AUX_0D, "SETPOINT_AUX_0D"},
    {OCP_Parameters::SETPOINT_AUX_0E, "SETPOINT_AUX_0E"},
    {OCP_Parameters::SETPOINT_AUX_0F, "SETPOINT_AUX_0F"},
    {OCP_Parameters::MODE, "MODE"},
    {OCP_Parameters::SETPOINT, "SETPOINT"},
    {OCP_Parameters::TORQUE_PERFORMANCE, "TORQUE_PERFORMANCE"},
    {OCP_Parameters::SPEED_PERFORMANCE, "SPEED_PERFORMANCE"},
    {OCP_Parameters::TUNING_42, "TUNING_42"},
    {OCP_Parameters::TUNING_43, "TUNING_43"},
    {OCP_Parameters::TUNING_44, "TUNING_44"},
    {OCP_Parameters::SPEED_FF, "SPEED_FF"},
    {OCP_Parameters::TUNING_46, "TUNING_46"},
    {OCP_Parameters::TUNING_47, "TUNING_47"},
    {OCP_Parameters::DEVICE_80, "DEVICE_80"},
    {OCP_Parameters::ADDRESS, "ADDRESS"},
    {OCP_Parameters::DEVICE_82, "DEVICE_82"},
    {OCP_Parameters::DEVICE_83, "DEVICE_83"},
    {OCP_Parameters::DEVICE_84, "DEVICE_84"},
    {OCP_Parameters::CAN_HIGH_SPEED, "CAN_HIGH_SPEED"},
};

constexpr Named<Mode> MODE_NAMES[] = {
    {Mode::TORQUE, "TORQUE"},
    {Mode::SPEED, "SPEED"},
    {Mode::POSITION, "POSITION"},
    {Mode::IMPEDANCE, "IMPEDANCE"},
};

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
           });
}

template <typename Enum, std::size_t N>
std::string_view name_in(const Named<Enum> (&table)[N], Enum value) {
    for (const auto& entry : table) {
        if (entry.value == value) return entry.name;
    }
    return {};
}

template <typename Enum, std::size_t N>
std::optional<Enum> value_in(const Named<Enum> (&table)[N], std::string_view name) {
    for (const auto& entry : table) {
        if (equal_ignoring_case(entry.name, name)) return entry.value;
    }
    return std::nullopt;
}

}  // namespace

std::string_view item_name(OCP_Items item) { return name_in(ITEM_NAMES, item); }
std::optional<OCP_Items> item_from_name(std::string_view name) { return value_in(ITEM_NAMES, name); }
std::string_view parameter_name(OCP_Parameters parameter) { return name_in(PARAMETER_NAMES, parameter); }
std::optional<OCP_Parameters> parameter_from_name(std::string_view name) { return value_in(PARAMETER_NAMES, name); }
std::string_view mode_name(Mode mode) { return name_in(MODE_NAMES, mode); }
std::optional<Mode> mode_from_name(std::string_view name) { return value_in(MODE_NAMES, name); }

}  // namespace ocp_api
