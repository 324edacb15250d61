// Enumerator names as text, and the compile-time proof that the two classes'
// enumerations are twins. The tables follow the enumerations of
// identifiers.hpp member for member.
#include "ocp_api/identifiers.hpp"

#include <algorithm>
#include <cctype>

#include "protocol/codes.hpp"

namespace ocp_api {
namespace {

// --- the two classes' enumerations are distinct types with equal members -------

template <class A, class B>
constexpr bool same_underlying_type() {
    return std::is_same_v<std::underlying_type_t<A>, std::underlying_type_t<B>>;
}

template <class A, class B, std::size_t N>
constexpr bool same_codes(const std::array<A, N>& a, const std::array<B, N>& b) {
    for (std::size_t i = 0; i < N; ++i) {
        if (static_cast<unsigned>(a[i]) != static_cast<unsigned>(b[i])) return false;
    }
    return true;
}

using P = PhysicalIdentifiers;
using V = VirtualIdentifiers;

static_assert(!std::is_same_v<P::OCP_Items, V::OCP_Items>);
static_assert(!std::is_same_v<P::Rates, V::Rates>);
static_assert(!std::is_same_v<P::OCP_Parameters, V::OCP_Parameters>);
static_assert(!std::is_same_v<P::Mode, V::Mode>);
static_assert(!std::is_same_v<P::TorquePerformance, V::TorquePerformance>);
static_assert(!std::is_same_v<P::SpeedPerformance, V::SpeedPerformance>);

static_assert(std::is_same_v<std::underlying_type_t<P::OCP_Items>, uint8_t>);
static_assert(std::is_same_v<std::underlying_type_t<P::Rates>, uint16_t>);
static_assert(std::is_same_v<std::underlying_type_t<P::OCP_Parameters>, uint8_t>);
static_assert(std::is_same_v<std::underlying_type_t<P::Mode>, uint8_t>);
static_assert(std::is_same_v<std::underlying_type_t<P::TorquePerformance>, uint8_t>);
static_assert(std::is_same_v<std::underlying_type_t<P::SpeedPerformance>, uint8_t>);
static_assert(same_underlying_type<P::OCP_Items, V::OCP_Items>());
static_assert(same_underlying_type<P::Rates, V::Rates>());
static_assert(same_underlying_type<P::OCP_Parameters, V::OCP_Parameters>());
static_assert(same_underlying_type<P::Mode, V::Mode>());
static_assert(same_underlying_type<P::TorquePerformance, V::TorquePerformance>());
static_assert(same_underlying_type<P::SpeedPerformance, V::SpeedPerformance>());

static_assert(same_codes(P::ALL_ITEMS, V::ALL_ITEMS));
static_assert(same_codes(P::ALL_PARAMETERS, V::ALL_PARAMETERS));
static_assert(code_of(P::Mode::TORQUE) == code_of(V::Mode::TORQUE) && code_of(V::Mode::TORQUE) == 5);
static_assert(code_of(P::Mode::IMPEDANCE) == code_of(V::Mode::IMPEDANCE) && code_of(V::Mode::IMPEDANCE) == 8);
static_assert(code_of(P::Rates::RATE_10KHZ) == code_of(V::Rates::RATE_10KHZ));
static_assert(identifier_kind_v<P::SpeedPerformance> == IdentifierKind::SPEED_PERFORMANCE);
static_assert(identifier_kind_v<V::TorquePerformance> == IdentifierKind::TORQUE_PERFORMANCE);
static_assert(identifier_kind_v<int> == IdentifierKind::NONE);

// --- names ----------------------------------------------------------------------

using Items = Codes::OCP_Items;
using Parameters = Codes::OCP_Parameters;
using Mode = Codes::Mode;

template <typename Enum>
struct Named {
    Enum value;
    std::string_view name;
};

constexpr Named<Items> ITEM_NAMES[] = {
    {Items::POS_FB_41, "POS_FB_41"},
    {Items::ITEM_42, "ITEM_42"},
    {Items::POS_FB_43, "POS_FB_43"},
    {Items::ITEM_44, "ITEM_44"},
    {Items::SPD_FB_45, "SPD_FB_45"},
    {Items::ITEM_46, "ITEM_46"},
    {Items::ITEM_47, "ITEM_47"},
    {Items::ITEM_48, "ITEM_48"},
    {Items::T_FB_49, "T_FB_49"},
    {Items::ITEM_4A, "ITEM_4A"},
    {Items::REF_4B, "REF_4B"},
    {Items::POS_FB_4C, "POS_FB_4C"},
    {Items::REF_4D, "REF_4D"},
    {Items::ITEM_4F, "ITEM_4F"},
    {Items::ITEM_50, "ITEM_50"},
    {Items::ITEM_51, "ITEM_51"},
    {Items::ITEM_52, "ITEM_52"},
    {Items::ITEM_53, "ITEM_53"},
    {Items::ITEM_54, "ITEM_54"},
    {Items::REF_55, "REF_55"},
    {Items::T_FB_56, "T_FB_56"},
    {Items::ITEM_57, "ITEM_57"},
    {Items::ITEM_58, "ITEM_58"},
    {Items::ITEM_59, "ITEM_59"},
    {Items::POWER_MEC_5A, "POWER_MEC_5A"},
    {Items::I_DC_5B, "I_DC_5B"},
    {Items::ITEM_5C, "ITEM_5C"},
    {Items::POWER_5D, "POWER_5D"},
    {Items::ITEM_5E, "ITEM_5E"},
    {Items::ITEM_5F, "ITEM_5F"},
    {Items::ITEM_60, "ITEM_60"},
    {Items::ITEM_61, "ITEM_61"},
    {Items::ITEM_62, "ITEM_62"},
    {Items::VBUS_70, "VBUS_70"},
    {Items::TEMP_AUX_71, "TEMP_AUX_71"},
    {Items::TEMP_WINDING_72, "TEMP_WINDING_72"},
    {Items::POS_FB_73, "POS_FB_73"},
    {Items::ERRORS_90, "ERRORS_90"},
    {Items::ITEM_91, "ITEM_91"},
    {Items::ITEM_92, "ITEM_92"},
    {Items::ITEM_93, "ITEM_93"},
    {Items::ITEM_94, "ITEM_94"},
    {Items::ITEM_95, "ITEM_95"},
    {Items::ITEM_96, "ITEM_96"},
    {Items::ITEM_97, "ITEM_97"},
    {Items::ITEM_98, "ITEM_98"},
    {Items::ITEM_99, "ITEM_99"},
    {Items::ITEM_9A, "ITEM_9A"},
};

constexpr Named<Parameters> PARAMETER_NAMES[] = {
    {Parameters::K_DAMP, "K_DAMP"},
    {Parameters::K_STIFF, "K_STIFF"},
    {Parameters::T_FF, "T_FF"},
    {Parameters::LIMIT_TORQUE, "LIMIT_TORQUE"},
    {Parameters::LIMIT_POSITION_MAX, "LIMIT_POSITION_MAX"},
    {Parameters::LIMIT_POSITION_MIN, "LIMIT_POSITION_MIN"},
    {Parameters::LIMIT_SPEED_MAX, "LIMIT_SPEED_MAX"},
    {Parameters::LIMIT_SPEED_MIN, "LIMIT_SPEED_MIN"},
    {Parameters::PROFILE_POSITION_MAX, "PROFILE_POSITION_MAX"},
    {Parameters::PROFILE_POSITION_MIN, "PROFILE_POSITION_MIN"},
    {Parameters::PROFILE_SPEED_MAX, "PROFILE_SPEED_MAX"},
    {Parameters::PROFILE_SPEED_MIN, "PROFILE_SPEED_MIN"},
    {Parameters::SETPOINT_AUX_0D, "SETPOINT_AUX_0D"},
    {Parameters::SETPOINT_AUX_0E, "SETPOINT_AUX_0E"},
    {Parameters::SETPOINT_AUX_0F, "SETPOINT_AUX_0F"},
    {Parameters::MODE, "MODE"},
    {Parameters::SETPOINT, "SETPOINT"},
    {Parameters::TORQUE_PERFORMANCE, "TORQUE_PERFORMANCE"},
    {Parameters::SPEED_PERFORMANCE, "SPEED_PERFORMANCE"},
    {Parameters::TUNING_42, "TUNING_42"},
    {Parameters::TUNING_43, "TUNING_43"},
    {Parameters::TUNING_44, "TUNING_44"},
    {Parameters::SPEED_FF, "SPEED_FF"},
    {Parameters::TUNING_46, "TUNING_46"},
    {Parameters::TUNING_47, "TUNING_47"},
    {Parameters::DEVICE_80, "DEVICE_80"},
    {Parameters::ADDRESS, "ADDRESS"},
    {Parameters::DEVICE_82, "DEVICE_82"},
    {Parameters::DEVICE_83, "DEVICE_83"},
    {Parameters::DEVICE_84, "DEVICE_84"},
    {Parameters::CAN_HIGH_SPEED, "CAN_HIGH_SPEED"},
};

constexpr Named<Mode> MODE_NAMES[] = {
    {Mode::TORQUE, "TORQUE"},
    {Mode::SPEED, "SPEED"},
    {Mode::POSITION, "POSITION"},
    {Mode::IMPEDANCE, "IMPEDANCE"},
};

// Every name table lists exactly the identifiers of the enumeration, in order.
template <class Enum, std::size_t N, std::size_t M>
constexpr bool lists_all(const Named<Enum> (&table)[N], const std::array<Enum, M>& all) {
    if (N != M) return false;
    for (std::size_t i = 0; i < N; ++i) {
        if (table[i].value != all[i]) return false;
    }
    return true;
}
static_assert(lists_all(ITEM_NAMES, Codes::ALL_ITEMS));
static_assert(lists_all(PARAMETER_NAMES, Codes::ALL_PARAMETERS));

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
           });
}

template <typename Enum, std::size_t N>
std::string_view name_in(const Named<Enum> (&table)[N], uint8_t code) {
    for (const auto& entry : table) {
        if (static_cast<uint8_t>(entry.value) == code) return entry.name;
    }
    return {};
}

template <typename Enum, std::size_t N>
std::optional<uint8_t> code_in(const Named<Enum> (&table)[N], std::string_view name) {
    for (const auto& entry : table) {
        if (equal_ignoring_case(entry.name, name)) return static_cast<uint8_t>(entry.value);
    }
    return std::nullopt;
}

}  // namespace

std::string_view item_code_name(uint8_t code) { return name_in(ITEM_NAMES, code); }
std::optional<uint8_t> item_code_from_name(std::string_view name) { return code_in(ITEM_NAMES, name); }
std::string_view parameter_code_name(uint8_t code) { return name_in(PARAMETER_NAMES, code); }
std::optional<uint8_t> parameter_code_from_name(std::string_view name) { return code_in(PARAMETER_NAMES, name); }
std::string_view mode_code_name(uint8_t code) { return name_in(MODE_NAMES, code); }
std::optional<uint8_t> mode_code_from_name(std::string_view name) { return code_in(MODE_NAMES, name); }

}  // namespace ocp_api
