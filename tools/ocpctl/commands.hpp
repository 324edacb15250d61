// The ocpctl subcommands. Each add_* registers one (or a family) on the app;
// when the user picks it, its runner is stored and main() runs it after
// parsing, so that every argument is checked before the bus is opened.
#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "cli_support.hpp"

namespace ocpctl {

using Runner = std::function<int()>;

void add_scan_command(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_device_commands(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_motion_commands(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_simulate_command(CLI::App& app, Runner& runner);
void add_demo_command(CLI::App& app, Runner& runner);
void add_list_command(CLI::App& app, Runner& runner);
void add_dump_command(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_emulate_command(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_scope_command(CLI::App& app, const GlobalOptions& global, Runner& runner);
void add_plan_command(CLI::App& app, Runner& runner);
void add_loop_command(CLI::App& app, const GlobalOptions& global, Runner& runner);

}  // namespace ocpctl
