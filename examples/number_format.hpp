// How the demo and ocpctl print a number, so that one value reads the same
// everywhere: the shortest text that reads back as the same float (0.1, 2.5,
// 0.99751127), whole numbers without exponent up to 10 digits (20000,
// 4294967296), and "nan" for an absent value.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

inline std::string format_number(float value) {
    if (std::isnan(value)) return "nan";
    char text[48];
    if (value == std::trunc(value) && std::fabs(value) < 1e10f) {
        std::snprintf(text, sizeof text, "%.0f", static_cast<double>(value));
        return text;
    }
    for (int digits = 6; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
        if (std::strtof(text, nullptr) == value) break;
    }
    return text;
}
