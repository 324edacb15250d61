// ocpctl list items|params: every identifier with its code, wire type and
// meaning, so that no manual is needed to pick one.
#include <cstdio>
#include <string>

#include "catalogue.hpp"
#include "commands.hpp"

namespace ocpctl {

namespace {

constexpr const char* ROW = "%-6s %-20s %-5s %-15s %s\n";

int list_items() {
    std::printf(ROW, "CODE", "NAME", "TYPE", "UNIT", "MEANING");
    for (const auto item : ocp_api::OrreryActuator::ALL_ITEMS)
        std::printf(ROW, code_text(item).c_str(), std::string(ocp_api::item_name(item)).c_str(),
                    std::string(item_wire_type(item)).c_str(), std::string(item_unit(item)).c_str(),
                    std::string(item_meaning(item)).c_str());
    return 0;
}

int list_parameters() {
    std::printf(ROW, "CODE", "NAME", "TYPE", "UNIT", "MEANING");
    for (const auto parameter : ocp_api::OrreryActuator::ALL_PARAMETERS)
        std::printf(ROW, code_text(parameter).c_str(), std::string(ocp_api::parameter_name(parameter)).c_str(),
                    std::string(parameter_wire_type(parameter)).c_str(),
                    std::string(parameter_unit(parameter)).c_str(),
                    std::string(parameter_meaning(parameter)).c_str());
    return 0;
}

}  // namespace

void add_list_command(CLI::App& app, Runner& runner) {
    CLI::App* list = app.add_subcommand("list", "List feedback items or parameters with codes, types, units and meanings");
    list->require_subcommand(1);
    list->footer("Names and codes are accepted alike wherever an item or parameter is expected.\n"
                 "Examples:\n  ocpctl list items\n  ocpctl list params");
    list->add_subcommand("items", "Every feedback item (48)")->callback([&runner] { runner = list_items; });
    list->add_subcommand("params", "Every parameter (31)")->callback([&runner] { runner = list_parameters; });
}

}  // namespace ocpctl
