// How the library and its tools print a number, so that one value reads the
// same everywhere (the traffic decoder, ocpctl, the demo): whole numbers
// below 10^10 in plain digits (20000, 4294967296, -3), any other finite value
// as the shortest text that reads back as the same float (0.1, 2.5,
// 0.99751127, 1.5e+10), and "nan", "inf" and "-inf" for the rest.
#pragma once

#include <string>

namespace ocp_api {

std::string format_number(float value);

}  // namespace ocp_api
