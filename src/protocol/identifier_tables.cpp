// Look-ups into the identifier tables by name (codes are found through the
// index in the header), a walk of the table, which only tools and bindings do.
#include "ocp_api/identifier_tables.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "protocol/codes.hpp"

namespace ocp_api {

namespace {

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
           });
}

template <class Info, std::size_t N>
const Info* named(const std::array<Info, N>& table, std::string_view name) {
    for (const Info& row : table) {
        if (equal_ignoring_case(row.name, name)) return &row;
    }
    return nullptr;
}

}  // namespace

const ItemInfo* find_item(std::string_view name) { return named(tables::ITEMS, name); }
const ParameterInfo* find_parameter(std::string_view name) { return named(tables::PARAMETERS, name); }

const ModeInfo* find_mode(uint8_t code) {
    for (const ModeInfo& row : tables::MODES) {
        if (row.code == code) return &row;
    }
    return nullptr;
}

const ModeInfo* find_mode(std::string_view name) { return named(tables::MODES, name); }

const ErrorBitInfo* find_error_bit(int bit) {
    for (const ErrorBitInfo& row : tables::ERROR_BITS) {
        if (row.bit == bit) return &row;
    }
    return nullptr;
}

namespace {

using Parameter = Codes::OCP_Parameters;

bool is_whole(float value) { return std::isfinite(value) && value == std::trunc(value); }

std::string modes_text() {
    std::string text;
    for (const ModeInfo& mode : tables::MODES)
        text += (text.empty() ? "" : ", ") + std::to_string(mode.code) + " " + std::string(mode.name);
    return text;
}

}  // namespace

std::string parameter_value_problem(uint8_t code, float value) {
    const ParameterInfo* parameter = find_parameter(code);
    if (parameter == nullptr) return "no such parameter";
    if (std::isnan(value)) return "not a number";
    switch (code) {
        case static_cast<uint8_t>(Parameter::MODE):
            // The device truncates a mode toward zero, so 7.9 is taken as 7.
            if (!(value >= 0.0f && value < 256.0f) || !find_mode(static_cast<uint8_t>(value)))
                return "not a control mode (" + modes_text() + ")";
            return "";
        case static_cast<uint8_t>(Parameter::TORQUE_PERFORMANCE):
        case static_cast<uint8_t>(Parameter::SPEED_PERFORMANCE):
            if (!is_whole(value) || value < 0.0f || value > 255.0f) return "not a preset from 0 to 255";
            return "";
        case static_cast<uint8_t>(Parameter::ADDRESS):
            // Range first: converting a float beyond int's range is undefined.
            if (!is_whole(value) || !(value >= 0.0f && value <= 65535.0f) ||
                !wire::is_valid_device_address(static_cast<int>(value)))
                return "not a device address from 0x10 to 0x3ffe";
            return "";
        case static_cast<uint8_t>(Parameter::CAN_HIGH_SPEED):
            if (value != 0.0f && value != 1.0f) return "not 0 (off) or 1 (on)";
            return "";
        default: break;
    }
    if (parameter->type == wire::ValueType::U32 && (!is_whole(value) || value < 0.0f || !(value < 4294967296.0f)))
        return "not a whole number from 0 to 4294967295";
    if (std::isinf(value)) return "not finite";
    return "";
}

std::string_view model_name_of(uint16_t model_code) {
    return model_code < tables::MODELS.size() ? tables::MODELS[model_code].name : tables::MODELS[0].name;
}

}  // namespace ocp_api
