// What identifiers and values mean, for people: the meaning of every feedback
// item and parameter, their wire types, and values printed with what they
// stand for (a mode by name, an address in hex, the error word's bits).
#pragma once

#include <string>
#include <string_view>

#include <ocp_api/identifiers.hpp>

namespace ocpctl {

std::string_view item_meaning(ocp_api::OCP_Items item);
std::string_view parameter_meaning(ocp_api::OCP_Parameters parameter);

// "f32", "u32", "i32" or "mode": how the 4 value bytes travel.
std::string_view item_wire_type(ocp_api::OCP_Items item);
std::string_view parameter_wire_type(ocp_api::OCP_Parameters parameter);

// True for parameters whose values are whole numbers (integers on the wire,
// the mode, the address).
bool parameter_is_integer(ocp_api::OCP_Parameters parameter);

// "0x4c": an identifier's code as ocpctl prints and accepts it.
std::string code_text(ocp_api::OCP_Items item);
std::string code_text(ocp_api::OCP_Parameters parameter);

// A value with its meaning where one is known: "7 (POSITION)", "0x21",
// "0x00010001 (Overtemperature, Current maximum)", or the plain number.
std::string describe_value(ocp_api::OCP_Parameters parameter, float value);
std::string describe_value(ocp_api::OCP_Items item, float value);

}  // namespace ocpctl
