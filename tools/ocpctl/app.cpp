#include "app.hpp"

#include <string>

#include <ocp_api/version.hpp>

#include "bus.hpp"

namespace ocpctl {

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

}  // namespace

std::unique_ptr<CLI::App> build_app(GlobalOptions& global, Runner& runner) {
    auto app = std::make_unique<CLI::App>(OVERVIEW, "ocpctl");
    app->footer(EXAMPLES);
    app->set_version_flag("--version", std::string("ocpctl ") + ocp_api::VERSION_TEXT);
    app->require_subcommand(1);
    app->fallthrough();  // global options may follow the subcommand

    app->add_option("--bus", global.bus, bus_option_help())->capture_default_str();
    app->add_option("--timeout", global.timeout_s, "Seconds to wait for a device's answer")->capture_default_str();

    add_scan_command(*app, global, runner);
    add_device_commands(*app, global, runner);
    add_motion_commands(*app, global, runner);
    add_loop_command(*app, global, runner);
    add_simulate_command(*app, runner);
    add_demo_command(*app, runner);
    add_list_command(*app, runner);
    add_dump_command(*app, global, runner);
    add_emulate_command(*app, global, runner);
    add_scope_command(*app, global, runner);
    add_plan_command(*app, runner);
    return app;
}

void check_global_options(const GlobalOptions& global) {
    if (!(global.timeout_s > 0.0f) || global.timeout_s > 3600.0f)
        throw UsageError("--timeout " + format_value(global.timeout_s) + " is not a number of seconds in (0, 3600]");
}

}  // namespace ocpctl
