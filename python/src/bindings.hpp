// The pieces of the `ocp_api` extension module, one function per concept.
#pragma once

#include <pybind11/pybind11.h>

#include <functional>

#include "callbacks.hpp"
#include "ocp_api/ocp.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api::python {

namespace py = pybind11;

using ActuatorClass = py::class_<OrreryActuator, Holder<OrreryActuator>>;
using VirtualClass = py::class_<OrreryActuatorVirtual>;

// OCP, ReceiveCallback and the closing of live transports at exit.
void bind_transport(py::module_& module);
// The enumerations, nested in both actuator classes. Run before any method
// that takes one is defined (its defaults are converted when defined).
void bind_enumerations(ActuatorClass& actuator, VirtualClass& simulated);
// OrreryActuator's methods, then OrreryActuatorScanner.
void define_actuator(py::module_& module, ActuatorClass& actuator);
void define_virtual_actuator(VirtualClass& simulated);
// SimBus, SimBusOptions, SimBusCounters, EmulatedActuator.
void bind_sim_bus(py::module_& module);

// ActuatorGroup, TimingHistogram and the named tuples of its snapshot and
// statistics. Run after the transports and their counters are bound.
void bind_actuator_group(py::module_& module);

// The library's diagnostic lines through sys.stdout and sys.stderr.
void bind_diagnostics(py::module_& module);

// PythonCanTransport and PythonCanDeviceHost.
void bind_python_can(py::module_& module);
// SocketCanBus, open_bus and bus_schemes.
void bind_socketcan(py::module_& module);

// Objects with a thread of their own register here while they live, so that
// they are closed before the interpreter shuts down and their threads never
// call into a dying interpreter. `key` is the object; `close` stops its thread.
// (untrack_transport is declared with the holder, which calls it.)
void track_transport(const void* key, std::function<void()> close);

}  // namespace ocp_api::python
