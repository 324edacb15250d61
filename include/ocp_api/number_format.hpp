// How the library and its tools print and read a number, so that one value
// reads the same everywhere (the traffic decoder, ocpctl, the demo): whole numbers
// below 10^10 in plain digits (20000, 4294967296, -3), any other finite value
// as the shortest text that reads back as the same float (0.1, 2.5,
// 0.99751127, 1.5e+10), and "nan", "inf" and "-inf" for the rest.
#pragma once

#include <string>

namespace ocp_api {

std::string format_number(float value);

// Reads a whole decimal or 0x-prefixed hexadecimal integer, the one rule for
// every address, code and length the library and its tools take as text:
// never octal (010 is ten), no sign before a hexadecimal number, no spaces.
// False when `text` is anything else or out of range.
bool parse_integer(const std::string& text, long long& value);

}  // namespace ocp_api
