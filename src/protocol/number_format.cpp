#include "ocp_api/number_format.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>

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

}  // namespace ocp_api
