// Any command line for ocpctl, parsed by the tool's own command tree without
// running the command: parsing either picks a command (and stores what runs
// it) or fails with a CLI::ParseError, which ocpctl turns into one message
// (naming the nearest command for a mistyped one); help and version requests
// give their text. Global options a parse accepted are then either usable or
// refused with ocpctl's UsageError. Nothing else is thrown, nothing exits and
// nothing is printed.
//
// Input: the arguments after the program's name, separated by NUL bytes.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "app.hpp"
#include "suggest.hpp"
#include "support/fuzz_input.hpp"

namespace {

using ocp_fuzz::require;

// Command lines people type are a few dozen words of a few dozen characters;
// longer ones only slow the search down.
constexpr std::size_t MOST_ARGUMENTS = 32;
constexpr std::size_t LONGEST_ARGUMENT = 256;

bool split_arguments(const uint8_t* data, std::size_t size, std::vector<std::string>& arguments) {
    arguments.assign(1, "ocpctl");
    std::string current;
    for (std::size_t i = 0; i <= size; ++i) {
        if (i == size || data[i] == 0) {
            arguments.push_back(current);
            current.clear();
            if (arguments.size() > MOST_ARGUMENTS + 1) return false;
            continue;
        }
        current += static_cast<char>(data[i]);
        if (current.size() > LONGEST_ARGUMENT) return false;
    }
    return true;
}

void check_refusal(const CLI::App& app, const CLI::ParseError& error, int argc, const char* const* argv) {
    require(error.get_exit_code() != 0, "a parse error with exit status 0");
    const std::string unknown = ocpctl::describe_unknown_command(app, argc, argv);
    const std::string message = ocpctl::shorten_arguments(unknown.empty() ? std::string(error.what()) : unknown, argc, argv);
    require(!message.empty(), "a parse error without a message");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments;
    if (!split_arguments(data, size, arguments)) return 0;
    std::vector<const char*> argv;
    for (const auto& argument : arguments) argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(arguments.size());

    ocpctl::GlobalOptions global;
    ocpctl::Runner runner;
    const auto app = ocpctl::build_app(global, runner);
    try {
        app->parse(argc, argv.data());
    } catch (const CLI::CallForHelp&) {
        require(!app->help().empty(), "no help text");
        return 0;
    } catch (const CLI::CallForAllHelp&) {
        require(!app->help("", CLI::AppFormatMode::All).empty(), "no help text");
        return 0;
    } catch (const CLI::CallForVersion& version) {
        require(std::string(version.what()).rfind("ocpctl ", 0) == 0, "a version text without the program's name");
        return 0;
    } catch (const CLI::ParseError& error) {
        check_refusal(*app, error, argc, argv.data());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parsing threw: %s\n", error.what());
        require(false, "parsing threw something other than a CLI::ParseError");
    }
    require(static_cast<bool>(runner), "a command line that parsed without choosing a command");
    try {
        ocpctl::check_global_options(global);
    } catch (const ocpctl::UsageError& refused) {
        require(refused.what()[0] != '\0', "a refused option without a message");
    }
    return 0;
}
