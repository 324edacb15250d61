"""asyncio for robot programs: the same library, written the way Python robot
programs are written.

- ``async with`` buses and actuators: leaving an actuator's block stops it and
  disconnects it, leaving a bus's block closes it, whatever ended the block.
- Calls that wait for a device (``connect``, ``ping``, ``get_parameters``,
  ``get_items``, ``scan``) are awaitables that never block the event loop (the
  waiting happens on a worker thread with the GIL released) and raise
  ``OcpTimeoutError``, a ``TimeoutError``, instead of printing and returning
  an empty result.
- Replies are typed: ``Ping``, ``Parameters`` and ``Feedback`` carry the
  device's address, the values and the time they arrived (``time.monotonic()``).
- Setpoints take named keyword arguments; a value left out is left unchanged.
- Feedback is an async iterator. The transport's receive thread hands each
  reply to the event loop with ``call_soon_threadsafe``, at most one hand-over
  pending at a time: a consumer slower than the stream gets the latest reply,
  never an ever longer queue (``FeedbackStream.coalesced`` counts the skipped).
- ``Group`` drives many actuators on any number of buses as one robot: a
  periodic loop on the event loop (absolute deadlines, missed periods skipped,
  a watchdog), a snapshot of every actuator's feedback each period, and the
  loop's and the group's statistics; ``async with`` stops every actuator.

::

    import asyncio
    from ocp_api import aio

    async def main():
        async with aio.open_bus("sim") as bus:
            for device in await bus.scan(0x20, 0x24):
                async with bus.actuator(device.address) as joint:
                    limits = await joint.get_parameters("LIMIT_TORQUE", "LIMIT_SPEED_MAX")
                    print(joint, limits["LIMIT_TORQUE"])

    asyncio.run(main())
"""

import asyncio
import dataclasses
import enum
import inspect
import math
import sys
import threading
import time
from typing import Any, Awaitable, Callable, Dict, Iterable, List, Mapping, Optional, Union

from . import _ocp_api

OrreryActuator = _ocp_api.OrreryActuator
Items = OrreryActuator.OCP_Items
ParameterIds = OrreryActuator.OCP_Parameters
Mode = OrreryActuator.Mode
FeedbackStatus = _ocp_api.FeedbackStatus
GroupSnapshot = _ocp_api.GroupSnapshot
ActuatorSnapshot = _ocp_api.ActuatorSnapshot

__all__ = [
    "OcpTimeoutError",
    "Ping",
    "Parameters",
    "Feedback",
    "Device",
    "Bus",
    "Actuator",
    "FeedbackStream",
    "open_bus",
    "python_can_bus",
    "Group",
    "LoopEnd",
    "LoopResult",
    "LoopStatistics",
    "GroupSnapshot",
    "ActuatorSnapshot",
    "FeedbackStatus",
    "Items",
    "ParameterIds",
    "Mode",
]


class OcpTimeoutError(TimeoutError):
    """A device did not answer in time. ``address`` is the device's (None for a
    scan), ``operation`` the call that waited."""

    def __init__(self, message: str, address: Optional[int], operation: str):
        super().__init__(message)
        self.address = address
        self.operation = operation


class _Values:
    """Values by enumeration member or by its name: ``reply[Items.POS_FB_4C]``
    and ``reply["POS_FB_4C"]`` are the same. ``values`` is the dict itself."""

    def _key(self, key):
        return self._enumeration[key] if isinstance(key, str) else key

    def __getitem__(self, key) -> float:
        return self.values[self._key(key)]

    def __contains__(self, key) -> bool:
        try:
            return self._key(key) in self.values
        except KeyError:
            return False

    def __iter__(self):
        return iter(self.values)

    def __len__(self) -> int:
        return len(self.values)

    def keys(self):
        return self.values.keys()

    def items(self):
        return self.values.items()

    def by_name(self) -> Dict[str, float]:
        """The values keyed by the members' names."""
        return {key.name: value for key, value in self.values.items()}


@dataclasses.dataclass(frozen=True)
class Ping:
    """A device's answer to a ping."""
    address: int
    model: str
    firmware: str
    arrival: float       # time.monotonic() when the answer was in
    round_trip: float    # seconds from asking to the answer


@dataclasses.dataclass(frozen=True, eq=True)
class Parameters(_Values):
    """Parameter values read from one device."""
    address: int
    values: Dict[Any, float]
    arrival: float
    _enumeration = ParameterIds


@dataclasses.dataclass(frozen=True, eq=True)
class Feedback(_Values):
    """Items from one device: a streamed reply or the answer to ``get_items``."""
    address: int
    values: Dict[Any, float]
    arrival: float
    _enumeration = Items


@dataclasses.dataclass(frozen=True)
class Device:
    """A device found by ``Bus.scan``."""
    address: int
    model: str
    model_code: int
    firmware: str


def _members(enumeration, keys: Iterable) -> List:
    """Enumeration members from members or their names."""
    return [enumeration[key] if isinstance(key, str) else enumeration(key) for key in keys]


def _unchanged(value: Optional[float]) -> float:
    return _ocp_api.UNCHANGED if value is None else float(value)


_TIMEOUT_LINES = ("Timeout waiting for parameters", "Timeout waiting for feedback items")


async def _wait_in_thread(function, *args):
    """Runs ``function(*args)`` on a worker thread, its diagnostic lines
    collected rather than printed; returns (result, timed_out_line or None).
    Lines that are not time-outs still go to sys.stderr."""

    def call():
        return _ocp_api._call_capturing_diagnostics(lambda: function(*args))

    result, lines = await asyncio.get_running_loop().run_in_executor(None, call)
    timed_out = None
    for line in lines:
        if line in _TIMEOUT_LINES and timed_out is None:
            timed_out = line
        else:
            print(line, file=sys.stderr)
    return result, timed_out


class FeedbackStream:
    """Streamed feedback of one actuator as an async iterator of ``Feedback``.

    Use it in ``async with``, or ``close()`` it: closing stops the device's
    streaming and removes the callback. A consumer slower than the stream sees
    the latest reply each time; ``coalesced`` counts the replies it skipped,
    ``received`` all replies that arrived."""

    def __init__(self, actuator: "Actuator", loop: asyncio.AbstractEventLoop):
        self._actuator = actuator
        self._loop = loop
        self._latest: Optional[Feedback] = None  # not yet taken by the iteration
        self._newest: Optional[Feedback] = None  # whether taken or not
        self._waiter: Optional[asyncio.Future] = None
        self._handover_pending = False
        self._lock = threading.Lock()
        self._closed = False
        self.received = 0
        self.coalesced = 0

    # Runs on the transport's receive thread (with the GIL).
    def _on_feedback(self, address: int, values: Dict[Any, float]) -> None:
        reply = Feedback(address, values, time.monotonic())
        with self._lock:
            if self._latest is not None:
                self.coalesced += 1
            self._latest = reply
            self._newest = reply
            self.received += 1
            if self._handover_pending:
                return
            self._handover_pending = True
        try:
            self._loop.call_soon_threadsafe(self._hand_over)
        except RuntimeError:  # the event loop is closed; nobody is waiting any more
            pass

    # Runs on the event loop.
    def _hand_over(self) -> None:
        with self._lock:
            self._handover_pending = False
        if self._waiter is not None and not self._waiter.done():
            self._waiter.set_result(None)

    def _take(self) -> Optional[Feedback]:
        with self._lock:
            reply, self._latest = self._latest, None
        return reply

    @property
    def newest(self) -> Optional[Feedback]:
        """The newest reply so far (None before the first), without waiting and
        whether or not the iteration has taken it: what a periodic control loop
        reads each period."""
        with self._lock:
            return self._newest

    def __aiter__(self):
        return self

    async def __anext__(self) -> Feedback:
        while True:
            if self._closed:
                raise StopAsyncIteration
            reply = self._take()
            if reply is not None:
                return reply
            self._waiter = self._loop.create_future()
            try:
                await self._waiter
            finally:
                self._waiter = None

    async def next(self, timeout: Optional[float] = None) -> Feedback:
        """The next reply; ``OcpTimeoutError`` when none came within ``timeout`` s."""
        try:
            return await asyncio.wait_for(self.__anext__(), timeout)
        except asyncio.TimeoutError:
            address = self._actuator.address
            raise OcpTimeoutError(f"address 0x{address:02x}: no feedback within {timeout} s", address,
                                  "feedback") from None

    def close(self) -> None:
        """Stops streaming and ends the iteration."""
        if self._closed:
            return
        self._closed = True
        self._actuator._stream_closed(self)
        if self._waiter is not None and not self._waiter.done():
            self._waiter.set_result(None)

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc_info):
        self.close()
        return False


class Actuator:
    """One actuator, the asyncio way. ``async with`` connects it on entry
    (``OcpTimeoutError`` when it does not answer) and stops and disconnects it
    on exit."""

    def __init__(self, bus: "Bus", address: int, connect_timeout: float = 1.0):
        self._bus = bus
        self._driver = OrreryActuator(bus.transport, address)
        self._connect_timeout = connect_timeout
        self._stream: Optional[FeedbackStream] = None

    @property
    def driver(self) -> OrreryActuator:
        """The mirror-class actuator underneath, for anything not wrapped here."""
        return self._driver

    @property
    def address(self) -> int:
        return self._driver.address

    @property
    def model(self) -> str:
        return self._driver.model_name

    @property
    def firmware(self) -> str:
        return self._driver.firmware_version

    @property
    def connected(self) -> bool:
        return self._driver.connected

    @property
    def mode(self):
        return self._driver.mode

    def __repr__(self) -> str:
        return repr(self._driver).replace("<OrreryActuator", "<aio.Actuator", 1)

    async def __aenter__(self):
        await self.connect(self._connect_timeout)
        return self

    async def __aexit__(self, *exc_info):
        self.close()
        return False

    def close(self) -> None:
        """Stops the actuator and disconnects it: no reply reaches it any more."""
        if self._stream is not None:
            self._stream.close()
        self._driver.disconnect()

    # --- waiting for the device --------------------------------------------
    def _timeout(self, what: str, operation: str) -> OcpTimeoutError:
        return OcpTimeoutError(f"address 0x{self.address:02x}: {what}", self.address, operation)

    async def _ping(self, method, timeout: float, operation: str) -> Ping:
        asked = time.monotonic()
        answered, _ = await _wait_in_thread(method, timeout)
        if not answered:
            raise self._timeout(f"no answer to a ping within {timeout} s", operation)
        arrival = time.monotonic()
        return Ping(self.address, self.model, self.firmware, arrival, arrival - asked)

    async def connect(self, timeout: float = 1.0) -> Ping:
        """Pings the device and marks it connected; ``OcpTimeoutError`` when silent."""
        return await self._ping(self._driver.connect, timeout, "connect")

    async def ping(self, timeout: float = 1.0) -> Ping:
        """Pings the device; ``OcpTimeoutError`` when it does not answer in time."""
        return await self._ping(self._driver.send_ping, timeout, "ping")

    async def get_parameters(self, *ids: Union[str, Any], timeout: float = 1.0) -> Parameters:
        """Reads parameters (members of ``ParameterIds`` or their names)."""
        wanted = _members(ParameterIds, ids)
        values, timed_out = await _wait_in_thread(self._driver.get_parameters, wanted, timeout)
        if timed_out:
            raise self._timeout(timed_out, "get_parameters")
        return Parameters(self.address, {key: values[key] for key in wanted if key in values}, time.monotonic())

    async def get_items(self, *items: Union[str, Any], timeout: float = 1.0) -> Feedback:
        """Asks once for feedback items (members of ``Items`` or their names)."""
        wanted = _members(Items, items)
        values, timed_out = await _wait_in_thread(self._driver.getItemsBlocking, wanted, timeout)
        if timed_out:
            raise self._timeout(timed_out, "get_items")
        return Feedback(self.address, values, time.monotonic())

    def set_parameters(self, values: Optional[Mapping] = None, **by_name: float) -> None:
        """Writes parameters: ``set_parameters(LIMIT_TORQUE=2.5)`` or a mapping."""
        merged = {}
        for key, value in list((values or {}).items()) + list(by_name.items()):
            merged[_members(ParameterIds, [key])[0]] = float(value)
        self._driver.set_parameters(merged)

    # --- commands: sent at once, nothing to wait for ------------------------
    def start(self) -> None:
        self._driver.start()

    def stop(self) -> None:
        self._driver.stop()

    def set_mode(self, mode: Union[str, Any]) -> None:
        self._driver.change_mode(_members(Mode, [mode])[0])

    def set_torque(self, torque: float, *, aux_0d: Optional[float] = None, aux_0e: Optional[float] = None,
                   aux_0f: Optional[float] = None, a5: Optional[float] = None) -> None:
        """TORQUE mode (switched to when needed) and its setpoint."""
        self._driver.change_torque_setpoint(float(torque), _unchanged(aux_0d), _unchanged(aux_0e),
                                            _unchanged(aux_0f), _unchanged(a5))

    def set_speed(self, speed: float, *, speed_ff: Optional[float] = None, t_ff: Optional[float] = None,
                  aux_0d: Optional[float] = None, aux_0e: Optional[float] = None) -> None:
        """SPEED mode (switched to when needed) and its setpoint."""
        self._driver.change_speed_setpoint(float(speed), _unchanged(speed_ff), _unchanged(aux_0e),
                                           _unchanged(aux_0d), _unchanged(t_ff))

    def set_position(self, position: float, *, speed_ff: Optional[float] = None, t_ff: Optional[float] = None,
                     aux_0d: Optional[float] = None, aux_0e: Optional[float] = None,
                     aux_0f: Optional[float] = None) -> None:
        """POSITION mode (switched to when needed) and its setpoint."""
        self._driver.change_position_setpoint(float(position), _unchanged(speed_ff), _unchanged(aux_0e),
                                              _unchanged(aux_0d), _unchanged(aux_0f), _unchanged(t_ff))

    def set_impedance(self, position: float, *, speed_ff: Optional[float] = None,
                      k_stiff: Optional[float] = None, k_damp: Optional[float] = None,
                      t_ff: Optional[float] = None, a5: Optional[float] = None, a7: Optional[float] = None,
                      a8: Optional[float] = None) -> None:
        """IMPEDANCE mode (switched to when needed) and its setpoint."""
        self._driver.change_impedance_setpoint(float(position), _unchanged(speed_ff), _unchanged(k_stiff),
                                               _unchanged(k_damp), _unchanged(a5), _unchanged(t_ff),
                                               _unchanged(a7), _unchanged(a8))

    # --- streamed feedback ---------------------------------------------------
    def feedback(self, *items: Union[str, Any], rate_hz: Optional[int] = None) -> FeedbackStream:
        """Streams ``items`` at ``rate_hz`` and returns the async iterator of the
        replies. With no items, iterates what the device already streams. A new
        stream replaces the actuator's earlier one."""
        if self._stream is not None:
            self._stream.close()
        stream = FeedbackStream(self, asyncio.get_running_loop())
        self._stream = stream
        self._driver.set_feedback_callback(stream._on_feedback)
        if items:
            self._driver.setFeedbackItems(_members(Items, items))
        if rate_hz is not None:
            self._driver.setFeedbackRate(int(rate_hz))
        return stream

    def _stream_closed(self, stream: FeedbackStream) -> None:
        if self._stream is stream:
            self._stream = None
            self._driver.set_feedback_callback(None)
            self._driver.setFeedbackRate(0)


class Bus:
    """A transport (any ``ocp_api.OCP``) for asyncio programs; ``async with``
    closes it on exit."""

    def __init__(self, transport):
        self.transport = transport

    def __repr__(self) -> str:
        return f"<aio.Bus {type(self.transport).__name__}>"

    def actuator(self, address: int, connect_timeout: float = 1.0) -> Actuator:
        """The actuator at ``address``; connect it with ``await`` or ``async with``."""
        return Actuator(self, address, connect_timeout)

    async def scan(self, first_address: int = 0x10, last_address: int = 0x3FFE, *, attempts: int = 1,
                   answer_period: float = 0.05) -> List[Device]:
        """The devices answering a ping on the range, in address order.
        ``OcpTimeoutError`` when none answered."""
        found, _ = await _wait_in_thread(_ocp_api.scan_bus, self.transport, first_address, last_address,
                                         attempts, answer_period)
        if not found:
            raise OcpTimeoutError(f"no device answered on 0x{first_address:02x}..0x{last_address:02x}", None,
                                  "scan")
        return [Device(d.address, d.model, d.model_code, d.firmware) for d in found]

    async def close(self) -> None:
        """Closes the transport (its receive thread stops; on a worker thread)."""
        await asyncio.get_running_loop().run_in_executor(None, self.transport.close)

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc_info):
        await self.close()
        return False


def open_bus(bus: str) -> Bus:
    """A bus by its text, as ``ocp_api.open_bus``: "sim", "socketcan:can0", ..."""
    return Bus(_ocp_api.open_bus(bus))


def python_can_bus(can_bus, fd: bool = False) -> Bus:
    """Any python-can ``Bus`` through the library's CAN mapping."""
    return Bus(_ocp_api.PythonCanTransport(can_bus, fd=fd))


# --- the control-loop group ---------------------------------------------------

class LoopEnd(enum.StrEnum):
    """Why ``Group.run`` returned."""
    duration_elapsed = "duration_elapsed"
    stop_requested = "stop_requested"
    watchdog = "watchdog"            # periods missed in a row: every actuator was stopped
    feedback_lost = "feedback_lost"  # stop_when_missing_for: every actuator was stopped


@dataclasses.dataclass(frozen=True)
class LoopResult:
    end: LoopEnd
    periods: int  # periods the callback ran in


@dataclasses.dataclass(frozen=True)
class LoopStatistics:
    """How well ``Group.run`` kept time, since the group was made or its
    statistics were reset. Times are ``ocp_api.TimingSummary`` in microseconds."""
    periods: int                     # callbacks run
    missed_periods: int              # deadlines skipped because the loop was late
    watchdog_trips: int
    period_error: Any                # wake-up time minus the deadline of the period served
    callback_time: Any               # from wake-up to the end of the period


# The further arguments of each mode's full command, in the order the group
# takes them: the keyword names of Actuator.set_torque / set_speed / ...
_SETPOINT_EXTRAS = {
    Mode.TORQUE: ("aux_0d", "aux_0e", "aux_0f", "a5"),
    Mode.SPEED: ("speed_ff", "aux_0e", "aux_0d", "t_ff"),
    Mode.POSITION: ("speed_ff", "aux_0e", "aux_0d", "aux_0f", "t_ff"),
    Mode.IMPEDANCE: ("speed_ff", "k_stiff", "k_damp", "a5", "t_ff", "a7", "a8"),
}

PeriodCallback = Callable[[Any, "Group"], Optional[Awaitable[None]]]


class Group:
    """Actuators on any number of buses driven together, as the joints of one
    robot, with a periodic control loop on the event loop.

    ::

        async with aio.Group() as group:
            group.add(bus, 0x21)
            group.set_up("POS_FB_4C", "SPD_FB_45", feedback_rate_hz=1000, mode="POSITION")
            await group.wait_for_feedback()
            group.start_all()
            result = await group.run(period, rate_hz=500, duration=2.0)

    Leaving the ``async with`` block stops every actuator, however it ends; so
    does ``run`` when the callback raises, when the run is cancelled and when
    its watchdog trips. The loop runs on the event loop's thread, so the
    callback may use the group directly; the group's own calls release the GIL.
    """

    def __init__(self, *, stale_after: float = 0.02, silent_after: float = 0.2, ping_interval: float = 0.2,
                 stop_when_missing_for: Optional[float] = None):
        self._group = _ocp_api.ActuatorGroup(stale_after, silent_after, ping_interval,
                                             stop_when_missing_for or 0.0)
        self._extras = _SETPOINT_EXTRAS[Mode.IMPEDANCE]
        self._period_error = _ocp_api.TimingHistogram()
        self._callback_time = _ocp_api.TimingHistogram()
        self._periods = 0
        self._missed_periods = 0
        self._watchdog_trips = 0
        self._running = False
        self._stop_requested = False
        self._tripped = False
        self._wake: Optional[asyncio.Future] = None
        self._last_snapshot = None

    @property
    def group(self):
        """The ``ocp_api.ActuatorGroup`` underneath."""
        return self._group

    def __len__(self) -> int:
        return len(self._group)

    def __repr__(self) -> str:
        addresses = ", ".join(f"0x{self._group.address(i):02x}" for i in range(len(self._group)))
        return f"<aio.Group [{addresses}]{' running' if self._running else ''}>"

    @property
    def addresses(self) -> List[int]:
        return [self._group.address(index) for index in range(len(self._group))]

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc_info):
        self.request_stop()
        self._group.stop_all()
        return False

    # --- set-up and commands ---------------------------------------------------
    def add(self, bus, address: int) -> int:
        """Adds the actuator at ``address`` on ``bus`` (an ``aio.Bus`` or any
        ``ocp_api.OCP`` transport) and returns its index. ``ValueError`` for an
        address that this or another group already drives on that bus."""
        return self._group.add(bus.transport if isinstance(bus, Bus) else bus, address)

    def set_up(self, *items: Union[str, Any], feedback_rate_hz: int = 1000, mode: Union[str, Any] = "IMPEDANCE") -> None:
        """Sends every actuator STOP, the feedback items and rate and the mode,
        and leaves them stopped. A device that restarts is set up again, and
        left stopped, by the loop."""
        chosen = _members(Mode, [mode])[0]
        self._group.set_up(_members(Items, items), int(feedback_rate_hz), chosen)
        self._extras = _SETPOINT_EXTRAS[chosen]

    def start(self, index: int) -> None:
        self._group.start(index)

    def start_all(self) -> None:
        self._group.start_all()

    def stop(self, index: int) -> None:
        self._group.stop(index)

    def stop_all(self) -> None:
        """Sends every actuator a STOP."""
        self._group.stop_all()

    def set_setpoint(self, index: int, value: float, **extras: Optional[float]) -> bool:
        """The mode's main setpoint for actuator ``index``, sent at the end of
        the period; keyword arguments are the further ones of the mode's full
        command, named as in ``Actuator.set_position`` etc. (left out:
        unchanged). Only the 5-byte setpoint frame goes out while they stay the
        same. False, and counted, for a non-finite value."""
        if not extras:
            return self._group.set_setpoint(index, value)
        arguments = [None] * len(self._extras)
        for name, extra in extras.items():
            try:
                arguments[self._extras.index(name)] = extra
            except ValueError:
                raise TypeError(f"set_setpoint() got an unexpected keyword argument {name!r} for this mode "
                                f"(takes {', '.join(self._extras)})") from None
        return self._group.set_setpoint(index, value, arguments)

    def send_setpoints(self) -> int:
        """Sends the setpoints set since the last call (``run`` does it each period)."""
        return self._group.send_setpoints()

    # --- reading ----------------------------------------------------------------
    def snapshot(self):
        """Takes a snapshot now (``run`` takes one each period): an
        ``ocp_api.GroupSnapshot``. The fresh/stale/missing counts include it."""
        self._last_snapshot = self._group.take_snapshot()
        return self._last_snapshot

    @property
    def last_snapshot(self):
        """The snapshot of the latest period (None before the first)."""
        return self._last_snapshot

    async def wait_for_feedback(self, timeout: float = 1.0, poll: float = 0.005):
        """Waits until every actuator's feedback has arrived at least once,
        taking snapshots every ``poll`` s and keeping the devices set up (as
        the loop does each period); returns the last snapshot.
        ``OcpTimeoutError`` naming the silent addresses when some have not
        answered within ``timeout`` s."""
        loop = asyncio.get_running_loop()
        give_up = loop.time() + timeout
        while True:
            snapshot = self.snapshot()
            silent = [joint.address for joint in snapshot.actuators if joint.sequence == 0]
            if not silent:
                return snapshot
            self._group.maintain()
            if loop.time() >= give_up:
                listed = ", ".join(f"0x{address:02x}" for address in silent)
                raise OcpTimeoutError(f"no feedback within {timeout} s from {listed}",
                                      silent[0] if len(silent) == 1 else None, "wait_for_feedback")
            await asyncio.sleep(poll)

    def statistics(self):
        """Per actuator and per bus counts: an ``ocp_api.GroupStatistics``."""
        return self._group.statistics()

    def loop_statistics(self) -> LoopStatistics:
        """How well ``run`` kept time, as a ``LoopStatistics``."""
        return LoopStatistics(self._periods, self._missed_periods, self._watchdog_trips,
                              self._period_error.summary(), self._callback_time.summary())

    def reset_statistics(self) -> None:
        """Resets the group's and the loop's statistics."""
        self._group.reset_statistics()
        self._period_error.reset()
        self._callback_time.reset()
        self._periods = self._missed_periods = self._watchdog_trips = 0

    # --- the loop -------------------------------------------------------------------
    def request_stop(self) -> None:
        """Ends a running ``run`` before its next period (the actuators keep
        their state; leaving ``async with`` stops them). Call it on the event
        loop's thread; from another, ``loop.call_soon_threadsafe(group.request_stop)``."""
        self._stop_requested = True
        if self._wake is not None and not self._wake.done():
            self._wake.set_result(None)

    def _trip(self, task: asyncio.Task) -> None:
        """A coroutine callback has not ended in time: the watchdog thread
        stops the actuators; this ends the run."""
        self._group.stop_all()
        self._tripped = True
        task.cancel()

    async def run(self, callback: PeriodCallback, *, rate_hz: float, duration: Optional[float] = None,
                  watchdog_missed_periods: int = 10) -> LoopResult:
        """Runs ``callback(snapshot, group)`` (a function or a coroutine
        function) once a period at ``rate_hz`` until ``duration`` s have passed
        (None: until ``request_stop``), then sends the setpoints it set and
        keeps the devices set up.

        Periods follow absolute deadlines on ``loop.time()``: the callback's
        own time does not shift the next one; when the loop wakes whole periods
        late it skips them (counted as missed), never running them in a burst.
        The watchdog stops every actuator and ends the run (``LoopEnd.watchdog``)
        when ``watchdog_missed_periods`` periods in a row are missed, or a
        period has not ended that many periods after its deadline: it is a
        thread of its own, so it stops the actuators even while a callback
        blocks the event loop; a coroutine callback that overruns so is
        cancelled. 0 switches the watchdog off. When the callback raises, or
        the run is cancelled, every actuator is stopped and the exception
        passes on."""
        if not rate_hz > 0 or not math.isfinite(rate_hz):
            raise ValueError(f"rate_hz must be a positive number, not {rate_hz}")
        if watchdog_missed_periods < 0:
            raise ValueError("watchdog_missed_periods must not be negative")
        if self._running:
            raise RuntimeError("Group.run is already running")
        loop = asyncio.get_running_loop()
        task = asyncio.current_task()
        period = 1.0 / rate_hz
        limit = watchdog_missed_periods * period
        self._running = True
        self._stop_requested = False
        self._tripped = False
        periods = 0
        start = loop.time()
        end = math.inf if duration is None else start + duration
        # Deadlines are counted in whole periods from the start, not summed:
        # no rounding error builds up over a long run.
        number = 1
        deadline = start + period
        missed_in_row = 0
        result_end = LoopEnd.duration_elapsed
        watchdog = (_ocp_api._GroupWatchdog(self._group, period, watchdog_missed_periods)
                    if watchdog_missed_periods else None)
        try:
            while True:
                if watchdog is not None and watchdog.tripped:
                    result_end = LoopEnd.watchdog
                    break
                if self._stop_requested:
                    result_end = LoopEnd.stop_requested
                    break
                if deadline > end:
                    break
                if watchdog is not None:
                    watchdog.beat(deadline)
                self._wake = loop.create_future()
                timer = loop.call_at(deadline, _set_unless_done, self._wake)
                try:
                    await self._wake
                finally:
                    timer.cancel()
                    self._wake = None
                if self._stop_requested:
                    result_end = LoopEnd.stop_requested
                    break
                woke = loop.time()
                skipped = 0
                if woke - deadline >= period:
                    skipped = int((woke - deadline) // period)
                    if deadline + skipped * period > end:
                        # Woke past the end of the run: the deadlines up to the
                        # end were all missed, none after it belongs to the run.
                        self._missed_periods += int((end - deadline) // period) + 1
                        break
                    number += skipped
                    deadline = start + number * period
                    missed_in_row += skipped
                else:
                    missed_in_row = 0
                if watchdog_missed_periods and missed_in_row >= watchdog_missed_periods:
                    self._group.stop_all()
                    self._missed_periods += skipped
                    result_end = LoopEnd.watchdog
                    break
                snapshot = self._last_snapshot = self._group.take_snapshot()
                if self._group.feedback_lost:
                    self._group.stop_all()
                    result_end = LoopEnd.feedback_lost
                    break
                outcome = callback(snapshot, self)
                if inspect.isawaitable(outcome):
                    overrun = loop.call_at(deadline + limit, self._trip, task) if watchdog is not None else None
                    try:
                        await outcome
                    finally:
                        if overrun is not None:
                            overrun.cancel()
                if watchdog is not None and watchdog.tripped:
                    # The watchdog stopped the actuators while the callback
                    # ran: its setpoints stay unsent.
                    result_end = LoopEnd.watchdog
                    break
                self._group.send_setpoints()
                self._group.maintain()
                done = loop.time()
                periods += 1
                self._periods += 1
                self._missed_periods += skipped
                self._period_error.record(woke - deadline)
                self._callback_time.record(done - woke)
                number += 1
                deadline = start + number * period
        except asyncio.CancelledError:
            self._group.stop_all()
            if not self._tripped:
                raise
            task.uncancel()
            result_end = LoopEnd.watchdog
        except BaseException:
            self._group.stop_all()
            raise
        finally:
            if watchdog is not None:
                watchdog.close()
                if watchdog.tripped:
                    result_end = LoopEnd.watchdog
            self._running = False
            self._stop_requested = False
        if result_end == LoopEnd.watchdog:
            self._watchdog_trips += 1
        return LoopResult(result_end, periods)


def _set_unless_done(future: asyncio.Future) -> None:
    if not future.done():
        future.set_result(None)
