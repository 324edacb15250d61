#include "ocp_api/number_format.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace ocp_api {

namespace {
constexpr float PLAIN_DIGITS_BELOW = 1e10f;
constexpr int FLOAT_ROUND_TRIP_DIGITS = 9;
}  // namespace

std::string format_number(float value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char text[48];
    if (value == std::trunc(value) && std::fabs(value) < PLAIN_DIGITS_BELOW) {
        std::snprintf(text, sizeof text, "%.0f", static_cast<double>(value));
        return text;
    }
    for (int digits = 1; digits <= FLOAT_ROUND_TRIP_DIGITS; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
        if (std::strtof(text, nullptr) == value) break;
    }
    return text;
}

bool parse_integer(const std::string& text, long long& value) {
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hexadecimal ? text.substr(2) : text;
    if (digits.empty() || digits[0] == '+' || digits[0] == ' ' || (hexadecimal && digits[0] == '-')) return false;
    std::size_t used = 0;
    try {
        value = std::stoll(digits, &used, hexadecimal ? 16 : 10);
    } catch (const std::exception&) {
        return false;
    }
    return used == digits.size();
}

}  // namespace ocp_api
