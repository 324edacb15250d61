// ocpctl demo: the simulated-bus walk-through of examples/sim_demo.
#include "commands.hpp"
#include "sim_demo.hpp"

namespace ocpctl {

void add_demo_command(CLI::App& app, Runner& runner) {
    CLI::App* demo = app.add_subcommand("demo", "Walk through the library on a simulated bus (about 5 s)");
    demo->footer("Example:\n  ocpctl demo");
    demo->callback([&runner] { runner = [] { return run_sim_demo(); }; });
}

}  // namespace ocpctl
