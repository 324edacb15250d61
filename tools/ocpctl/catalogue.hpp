// What identifiers and values mean, for people: the meaning of every feedback
// item and parameter, their wire types, and values printed with what they
// stand for (a mode by name, an address in hex, the error word's bits).
#pragma once

#include <string>
#include <string_view>

#include "cli_support.hpp"

namespace ocpctl {

// From the library's identifier tables.
std::string_view item_meaning(Item item);
std::string_view parameter_meaning(Parameter parameter);
std::string_view item_unit(Item item);
std::string_view parameter_unit(Parameter parameter);

// "f32", "u32", "i32" or "mode": how the 4 value bytes travel.
std::string_view item_wire_type(Item item);
std::string_view parameter_wire_type(Parameter parameter);

// True for parameters whose values are whole numbers (integers on the wire,
// the mode, the address).
bool parameter_is_integer(Parameter parameter);

// "0x4c": an identifier's code as ocpctl prints and accepts it.
std::string code_text(Item item);
std::string code_text(Parameter parameter);

// A value with its meaning where one is known: "7 (POSITION)", "0x21",
// "0x00010001 (Overtemperature, Current maximum)", or the plain number.
std::string describe_value(Parameter parameter, float value);
std::string describe_value(Item item, float value);

}  // namespace ocpctl
