// Friendlier parse errors: naming a mistyped command with the nearest real
// one, and keeping echoed arguments short.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace ocpctl {

// Edit distance counting a swap of two neighbouring letters as one edit
// ("sacn" is one edit from "scan").
std::size_t edit_distance(const std::string& a, const std::string& b);

// The candidate closest to `word`, or "" when there are none.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates);

// Walks the command line through the app's subcommands; when a word stands
// where a subcommand is expected but names none, returns a message such as
// "unknown command 'sacn'; did you mean 'scan'?"; otherwise "".
std::string describe_unknown_command(const CLI::App& app, int argc, const char* const* argv);

// `message` with every over-long word and every over-long command-line
// argument in it cut short.
std::string shorten_arguments(const std::string& message, int argc, const char* const* argv);

}  // namespace ocpctl
