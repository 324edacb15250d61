// Enumerator names as text, from the identifier tables, and the compile-time
// proof that the two classes' enumerations are twins and that the tables list
// their members in order.
#include "ocp_api/identifiers.hpp"


#include "ocp_api/identifier_tables.hpp"
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

// --- the tables list exactly the enumerations' identifiers, in order ----------

using Items = Codes::OCP_Items;
using Parameters = Codes::OCP_Parameters;
using Mode = Codes::Mode;

template <class Info, std::size_t N, class Enum>
constexpr bool lists_all(const std::array<Info, N>& table, const std::array<Enum, N>& all) {
    for (std::size_t i = 0; i < N; ++i) {
        if (table[i].code != static_cast<unsigned>(all[i])) return false;
    }
    return true;
}
static_assert(lists_all(tables::ITEMS, Codes::ALL_ITEMS));
static_assert(lists_all(tables::PARAMETERS, Codes::ALL_PARAMETERS));
static_assert(tables::MODES[0].code == code_of(P::Mode::TORQUE) && tables::MODES[3].code == code_of(P::Mode::IMPEDANCE));
static_assert(tables::MODELS[MODEL_CODE_CAN_ADAPTER].name == "CAN_ADAPTER");

template <class Info, std::size_t N>
constexpr bool codes_are_indices(const std::array<Info, N>& table) {
    for (std::size_t i = 0; i < N; ++i) {
        if (table[i].code != i) return false;
    }
    return true;
}
static_assert(codes_are_indices(tables::MODELS));

}  // namespace

namespace {

template <class Info>
std::string_view name_or_empty(const Info* info) {
    return info ? info->name : std::string_view();
}

template <class Info>
std::optional<uint8_t> code_or_nothing(const Info* info) {
    if (!info) return std::nullopt;
    return info->code;
}

}  // namespace

std::string_view item_code_name(uint8_t code) { return name_or_empty(find_item(code)); }
std::optional<uint8_t> item_code_from_name(std::string_view name) { return code_or_nothing(find_item(name)); }
std::string_view parameter_code_name(uint8_t code) { return name_or_empty(find_parameter(code)); }
std::optional<uint8_t> parameter_code_from_name(std::string_view name) {
    return code_or_nothing(find_parameter(name));
}
std::string_view mode_code_name(uint8_t code) { return name_or_empty(find_mode(code)); }
std::optional<uint8_t> mode_code_from_name(std::string_view name) { return code_or_nothing(find_mode(name)); }

}  // namespace ocp_api
