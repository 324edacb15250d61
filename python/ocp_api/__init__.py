"""Drive servo actuators on a CAN bus from Python.

The classes are those of the C++ library ``ocp_api`` with the same method
names: ``OrreryActuator`` drives one actuator through a transport (``OCP``),
``OrreryActuatorScanner`` finds actuators, ``OrreryActuatorVirtual`` simulates
one with no bus, and ``SimBus`` is a simulated bus with emulated actuators.
Enumerations are nested as in C++: ``OrreryActuator.OCP_Items.POS_FB_41``,
also by name: ``OrreryActuator.OCP_Items["POS_FB_41"]``. Diagnostic lines go to
``sys.stdout`` (the scanner's findings) and ``sys.stderr`` (everything else).

``ocp_api.aio`` is the asyncio layer for robot programs: awaitable calls that
raise ``ocp_api.aio.OcpTimeoutError`` (a ``TimeoutError``), typed replies and
feedback as an async iterator, and ``ocp_api.aio.Group``, the control loop over
an ``ActuatorGroup`` on the event loop.
"""

from ._ocp_api import (
    OCP,
    UNCHANGED,
    ActuatorGroup,
    ActuatorSnapshot,
    ActuatorStatistics,
    BusStatistics,
    CanLinkState,
    FaultRecord,
    FeedbackStatus,
    GroupSnapshot,
    GroupStatistics,
    TimingHistogram,
    TimingSummary,
    EmulatedActuator,
    FoundDevice,
    OrreryActuator,
    OrreryActuatorScanner,
    OrreryActuatorVirtual,
    CanBusCounters,
    CanDeviceHostCounters,
    PythonCanBridgeCounters,
    PythonCanDeviceHost,
    PythonCanTransport,
    ReceiveCallback,
    SimBus,
    SimBusCounters,
    SimBusOptions,
    SocketCanBus,
    __version__,
    bus_schemes,
    open_bus,
    scan_bus,
)

__all__ = [
    "OCP",
    "UNCHANGED",
    "ActuatorGroup",
    "ActuatorSnapshot",
    "ActuatorStatistics",
    "BusStatistics",
    "CanLinkState",
    "FaultRecord",
    "FeedbackStatus",
    "GroupSnapshot",
    "GroupStatistics",
    "TimingHistogram",
    "TimingSummary",
    "EmulatedActuator",
    "FoundDevice",
    "OrreryActuator",
    "OrreryActuatorScanner",
    "OrreryActuatorVirtual",
    "CanBusCounters",
    "CanDeviceHostCounters",
    "PythonCanBridgeCounters",
    "PythonCanDeviceHost",
    "PythonCanTransport",
    "ReceiveCallback",
    "SimBus",
    "SimBusCounters",
    "SimBusOptions",
    "SocketCanBus",
    "bus_schemes",
    "open_bus",
    "scan_bus",
]

# The classes live in the extension module; show them where users import them.
for _name in __all__:
    _object = globals()[_name]
    if isinstance(_object, type):
        _object.__module__ = __name__
del _name, _object
