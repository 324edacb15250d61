// ocpctl's whole command line: the command tree, and what main() checks
// after parsing and before running the chosen command.
#pragma once

#include <memory>

#include <CLI/CLI.hpp>

#include "commands.hpp"

namespace ocpctl {

// The ocpctl command tree with every subcommand and option. Parsing fills
// `global` and, for the command given, stores in `runner` what runs it; no
// command runs and nothing is printed while parsing (help and version are
// reported as CLI::CallForHelp, CLI::CallForAllHelp and CLI::CallForVersion).
// `global` and `runner` must outlive the app.
std::unique_ptr<CLI::App> build_app(GlobalOptions& global, Runner& runner);

// Refuses global option values no command can use, with UsageError.
void check_global_options(const GlobalOptions& global);

}  // namespace ocpctl
