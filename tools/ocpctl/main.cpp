// ocpctl: find, configure, command and watch actuators from a terminal.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "app.hpp"
#include "suggest.hpp"

namespace {

// Prints one diagnostic line; every message goes through here so that an
// argument of any length never floods the terminal, and control characters
// in it are written out.
void print_error(const std::string& message, int argc, char** argv) {
    std::fprintf(stderr, "ocpctl: %s\n", ocpctl::printable(ocpctl::shorten_arguments(message, argc, argv)).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    // A closed output pipe shows up as a failed write, which the commands
    // handle (stop the device, exit 141), instead of killing the process.
    std::signal(SIGPIPE, SIG_IGN);

    ocpctl::GlobalOptions global;
    ocpctl::Runner runner;
    const std::unique_ptr<CLI::App> command_line = ocpctl::build_app(global, runner);
    CLI::App& app = *command_line;

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        const std::string unknown = ocpctl::describe_unknown_command(app, argc, argv);
        print_error((unknown.empty() ? std::string(error.what()) : unknown) + " (see ocpctl --help)", argc, argv);
        return ocpctl::EXIT_USAGE;
    }
    try {
        ocpctl::check_global_options(global);
        return runner();
    } catch (const ocpctl::UsageError& error) {
        print_error(error.what(), argc, argv);
        return ocpctl::EXIT_USAGE;
    } catch (const ocpctl::Interrupted& interrupted) {
        print_error(interrupted.what(), argc, argv);
        return 128 + interrupted.signal;
    } catch (const ocpctl::DeviceError& error) {
        print_error(error.what(), argc, argv);
        return ocpctl::EXIT_DEVICE;
    } catch (const std::exception& error) {
        print_error(error.what(), argc, argv);
        return ocpctl::EXIT_DEVICE;
    }
}
