// ocpctl's text helpers on their own: number format, values with their
// meaning, nearest-command suggestions and cut arguments.
#include <gtest/gtest.h>

#include <cmath>

#include "ocpctl/catalogue.hpp"
#include "ocpctl/cli_support.hpp"
#include "ocpctl/suggest.hpp"

namespace {

using OCP_Items = ocp_api::OrreryActuator::OCP_Items;
using OCP_Parameters = ocp_api::OrreryActuator::OCP_Parameters;

TEST(OcpctlFormat, ShortestTextThatReadsBackAsTheSameFloat) {
    EXPECT_EQ(ocpctl::format_value(0.1f), "0.1");
    EXPECT_EQ(ocpctl::format_value(2.5f), "2.5");
    EXPECT_EQ(ocpctl::format_value(-0.5f), "-0.5");
    EXPECT_EQ(ocpctl::format_value(20000.0f), "20000");
    EXPECT_EQ(ocpctl::format_value(4294967296.0f), "4294967296");
    EXPECT_EQ(ocpctl::format_value(1e20f), "1e+20");
    EXPECT_EQ(ocpctl::format_value(0.99751127f), "0.99751127");
    EXPECT_EQ(ocpctl::format_value(1.0f / 3.0f), "0.33333334");
    EXPECT_EQ(ocpctl::format_value(NAN), "nan");
    for (const float value : {0.1f, 1.0f / 3.0f, 9.4652176e-05f, -123456.789f, 3.4028235e38f})
        EXPECT_EQ(std::strtof(ocpctl::format_value(value).c_str(), nullptr), value) << value;
}

TEST(OcpctlFormat, ValuesWithTheirMeaning) {
    EXPECT_EQ(ocpctl::describe_value(OCP_Parameters::MODE, 7.0f), "7 (POSITION)");
    EXPECT_EQ(ocpctl::describe_value(OCP_Parameters::MODE, 3.0f), "3");
    EXPECT_EQ(ocpctl::describe_value(OCP_Parameters::ADDRESS, 33.0f), "0x21");
    EXPECT_EQ(ocpctl::describe_value(OCP_Parameters::CAN_HIGH_SPEED, 1.0f), "1 (on)");
    EXPECT_EQ(ocpctl::describe_value(OCP_Parameters::LIMIT_TORQUE, 2.5f), "2.5");
    EXPECT_EQ(ocpctl::describe_value(OCP_Items::ERRORS_90, 0.0f), "0x00000000 (no error)");
    EXPECT_EQ(ocpctl::describe_value(OCP_Items::ERRORS_90, 65537.0f),
              "0x00010001 (Overtemperature, Current maximum)");
    EXPECT_EQ(ocpctl::describe_value(OCP_Items::ERRORS_90, 2.0f), "0x00000002 (unknown bits 0x00000002)");
    EXPECT_EQ(ocpctl::describe_value(OCP_Items::ERRORS_90, 4294967296.0f), "4294967296") << "not a 32-bit word";
    EXPECT_EQ(ocpctl::describe_value(OCP_Items::VBUS_70, 48.0f), "48");
}

TEST(OcpctlFormat, CatalogueTypesAndCodes) {
    EXPECT_EQ(ocpctl::item_wire_type(OCP_Items::ITEM_4A), "i32");
    EXPECT_EQ(ocpctl::item_wire_type(OCP_Items::ERRORS_90), "u32");
    EXPECT_EQ(ocpctl::parameter_wire_type(OCP_Parameters::MODE), "mode");
    EXPECT_EQ(ocpctl::code_text(OCP_Items::POS_FB_4C), "0x4c");
    EXPECT_EQ(ocpctl::code_text(OCP_Parameters::K_DAMP), "0x01");
    EXPECT_TRUE(ocpctl::parameter_is_integer(OCP_Parameters::ADDRESS));
    EXPECT_TRUE(ocpctl::parameter_is_integer(OCP_Parameters::DEVICE_80));
    EXPECT_FALSE(ocpctl::parameter_is_integer(OCP_Parameters::CAN_HIGH_SPEED));
    for (const auto parameter : ocp_api::OrreryActuator::ALL_PARAMETERS) EXPECT_FALSE(ocpctl::parameter_meaning(parameter).empty());
}

TEST(OcpctlSuggest, NearestCommand) {
    EXPECT_EQ(ocpctl::edit_distance("sacn", "scan"), 1u);
    EXPECT_EQ(ocpctl::edit_distance("", "scan"), 4u);
    EXPECT_EQ(ocpctl::edit_distance("stram", "stream"), 1u);
    const std::vector<std::string> commands = {"scan", "stream", "simulate", "stop"};
    EXPECT_EQ(ocpctl::nearest("sacn", commands), "scan");
    EXPECT_EQ(ocpctl::nearest("SIMULAT", commands), "simulate");
    EXPECT_EQ(ocpctl::nearest("x", {}), "");
}

TEST(OcpctlSuggest, LongTextsAreCut) {
    EXPECT_EQ(ocpctl::shorten("0x21"), "0x21");
    EXPECT_EQ(ocpctl::shorten(std::string(200, 'a')), std::string(200, 'a'));
    EXPECT_EQ(ocpctl::shorten(std::string(201, 'a')), std::string(60, 'a') + "... (201 characters)");
    const std::string huge = "a b" + std::string(100000, 'c');
    const char* argv[] = {"ocpctl", huge.c_str()};
    EXPECT_EQ(ocpctl::shorten_arguments("invalid address '" + huge + "'", 2, argv),
              "invalid address 'a b" + std::string(57, 'c') + "... (100003 characters)'");
}

TEST(OcpctlSuggest, ControlCharactersAreWrittenOut) {
    EXPECT_EQ(ocpctl::printable("MODE"), "MODE");
    EXPECT_EQ(ocpctl::printable("a\nb\r\tc"), "a\\nb\\r\\tc");
    EXPECT_EQ(ocpctl::printable(std::string("\x1b[2J\x7f\0z", 7)), "\\x1b[2J\\x7f\\x00z");
    EXPECT_EQ(ocpctl::printable("caf\xc3\xa9 \\n"), "caf\xc3\xa9 \\n");
}

}  // namespace
