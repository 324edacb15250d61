// The `ocp_api._ocp_api` extension module, re-exported by the `ocp_api` package.
#include "bindings.hpp"
#include "ocp_api/version.hpp"

namespace ocp_api::python {
namespace {

constexpr const char* ACTUATOR_DOC = R"doc(
One actuator at one bus address, driven through a transport (``OCP``).

Commands are fire-and-forget. Calls that wait for an answer (``connect``,
``getItemsBlocking``, ``get_parameters``, ...) release the GIL while they wait
and report a time-out as one line on ``sys.stderr`` with an empty result
(``ocp_api.aio`` raises instead).
Feedback and error callbacks run on the transport's receive thread holding the
GIL; they may call back into the actuator.)doc";

constexpr const char* VIRTUAL_DOC = R"doc(
The simulated actuator: the command surface of a physical actuator over a
fixed-step motor model (0.1 ms per step). Nothing runs in the background: time
passes only inside ``step`` and ``start_steps``. Use one object from one thread.)doc";

}  // namespace
}  // namespace ocp_api::python

PYBIND11_MODULE(_ocp_api, module) {
    using namespace ocp_api::python;
    module.doc() = "Drive servo actuators on a CAN bus: the ocp_api library from Python.";
    module.attr("__version__") = ocp_api::VERSION_TEXT;

    bind_diagnostics(module);
    bind_transport(module);
    ActuatorClass actuator(module, "OrreryActuator", ACTUATOR_DOC);
    VirtualClass simulated(module, "OrreryActuatorVirtual", VIRTUAL_DOC);
    bind_enumerations(actuator, simulated);
    define_actuator(module, actuator);
    define_virtual_actuator(simulated);
    bind_sim_bus(module);
    bind_python_can(module);
    bind_socketcan(module);
    bind_actuator_group(module);
    module.attr("UNCHANGED") = ocp_api::UNCHANGED;
}
