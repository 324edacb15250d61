// ocpctl: find, configure, command and watch actuators from a terminal.
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <ocp_api/version.hpp>

#include "bus.hpp"
#include "commands.hpp"
#include "suggest.hpp"

namespace {

const char* const OVERVIEW =
    "ocpctl: scan, configure, command and watch servo actuators on a CAN bus.\n"
    "Every command takes --bus (default: sim, a simulated bus with emulated\n"
    "actuators at 0x21, 0x22 and 0x23, so it works on any machine).";

const char* const EXAMPLES =
    "Examples:\n"
    "  ocpctl scan\n"
    "  ocpctl info 0x21\n"
    "  ocpctl params get 0x21 LIMIT_TORQUE MODE\n"
    "  ocpctl params set 0x21 LIMIT_TORQUE=2.5\n"
    "  ocpctl params dump 0x21 --out 0x21.json\n"
    "  ocpctl list items\n"
    "  ocpctl move 0x21 --mode position --setpoint 1.0 --for 2\n"
    "  ocpctl stream 0x21 --items POS_FB_4C,SPD_FB_45 --rate 200 --duration 1\n"
    "  ocpctl loop 0x21 0x22 0x23 --rate 1000 --for 5 --json\n"
    "  ocpctl simulate --mode speed --setpoint 2 --load 0.5 --plot speed.svg\n"
    "  ocpctl --bus sim:0x21,0x40 scan --json\n"
    "  ocpctl scan --fast\n"
    "  ocpctl dump --log session.log\n"
    "  ocpctl scope 0x21 0x22\n"
    "  ocpctl plan --can fd:1M/5M --actuators 4 --rate 1000\n"
    "\n"
    "Standard output carries results only; progress and diagnostics go to\n"
    "standard error. Exit status: 0 done, 1 a device or bus did not answer,\n"
    "2 bad arguments (nothing was sent), 128+N stopped by signal N; a reader\n"
    "that closes the output pipe (ocpctl stream ... | head) ends the command\n"
    "quietly with 141, as SIGPIPE would, after the device is stopped.\n"
    "Commands that move a device stop it when ocpctl exits; the others leave it as they found it.";

// Prints one diagnostic line; every message goes through here so that an
// argument of any length never floods the terminal.
void print_error(const std::string& message, int argc, char** argv) {
    std::fprintf(stderr, "ocpctl: %s\n", ocpctl::shorten_arguments(message, argc, argv).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    // A closed output pipe shows up as a failed write, which the commands
    // handle (stop the device, exit 141), instead of killing the process.
    std::signal(SIGPIPE, SIG_IGN);

    CLI::App app{OVERVIEW, "ocpctl"};
    app.footer(EXAMPLES);
    app.set_version_flag("--version", std::string("ocpctl ") + ocp_api::VERSION_TEXT);
    app.require_subcommand(1);
    app.fallthrough();  // global options may follow the subcommand

    ocpctl::GlobalOptions global;
    app.add_option("--bus", global.bus, ocpctl::bus_option_help())->capture_default_str();
    app.add_option("--timeout", global.timeout_s, "Seconds to wait for a device's answer")->capture_default_str();

    ocpctl::Runner runner;
    ocpctl::add_scan_command(app, global, runner);
    ocpctl::add_device_commands(app, global, runner);
    ocpctl::add_motion_commands(app, global, runner);
    ocpctl::add_loop_command(app, global, runner);
    ocpctl::add_simulate_command(app, runner);
    ocpctl::add_demo_command(app, runner);
    ocpctl::add_list_command(app, runner);
    ocpctl::add_dump_command(app, global, runner);
    ocpctl::add_emulate_command(app, global, runner);
    ocpctl::add_scope_command(app, global, runner);
    ocpctl::add_plan_command(app, runner);

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
        if (!(global.timeout_s > 0.0f) || global.timeout_s > 3600.0f)
            throw ocpctl::UsageError("--timeout " + ocpctl::format_value(global.timeout_s) +
                                     " is not a number of seconds in (0, 3600]");
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
