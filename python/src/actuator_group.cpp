// ActuatorGroup from Python: the group's snapshot and statistics become named
// tuples with snake_case fields, times in seconds on the clock of
// time.monotonic() (statistics in microseconds, as the C++ summaries give them).
//
// The group's calls that send or take the group's locks release the GIL: a
// python-can transport needs the GIL to send, and the transports' receive
// threads need it to run Python callbacks.
#include <pybind11/stl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bindings.hpp"
#include "enumerations.hpp"
#include "ocp_api/actuator_group.hpp"
#include "ocp_api/identifiers.hpp"
#include "ocp_api/timing_histogram.hpp"

namespace ocp_api::python {
namespace {

using Item = OrreryActuator::OCP_Items;
using release_gil = py::call_guard<py::gil_scoped_release>;

// The record types and the members of the status enumerations, made once when
// the module is imported and kept for the life of the process, like the
// enumerations themselves.
struct RecordTypes {
    PyObject* feedback_status[3] = {};
    PyObject* link_state[5] = {};
    PyObject* fault = nullptr;
    PyObject* actuator_snapshot = nullptr;
    PyObject* group_snapshot = nullptr;
    PyObject* timing = nullptr;
    PyObject* actuator_statistics = nullptr;
    PyObject* bus_statistics = nullptr;
    PyObject* group_statistics = nullptr;
};

RecordTypes& types() {
    static RecordTypes instance;
    return instance;
}

py::handle borrowed(PyObject* object) { return py::handle(object); }

double seconds_since_epoch(GroupClock::time_point when) {
    return std::chrono::duration<double>(when.time_since_epoch()).count();
}

double seconds(std::chrono::nanoseconds duration) { return std::chrono::duration<double>(duration).count(); }

std::chrono::nanoseconds duration_from_seconds(double value, const char* name) {
    if (!std::isfinite(value)) throw py::value_error(std::string(name) + " must be a finite number of seconds");
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(value));
}

py::object link_state(const std::optional<CanLinkState>& link) {
    if (!link) return py::none();
    return py::reinterpret_borrow<py::object>(types().link_state[static_cast<std::size_t>(*link)]);
}

py::object timing_summary(const TimingHistogram& histogram) {
    const auto summary = histogram.summary();
    return borrowed(types().timing)(summary.p50_us, summary.p99_us, summary.max_us, summary.count);
}

py::object fault_record(const FaultRecord& fault) {
    const py::tuple descriptions = fault.present ? py::tuple(py::cast(fault.descriptions())) : py::tuple();
    return borrowed(types().fault)(fault.present, fault.error_word, fault.severe,
                                   fault.present ? py::object(py::float_(seconds_since_epoch(fault.when))) : py::none(),
                                   fault.count, descriptions);
}

// An item's name as a Python string, made once per item code and kept for the
// life of the process: a snapshot keys its values by them every period.
py::object item_name_object(uint8_t code) {
    static std::array<PyObject*, 256> names{};
    if (names[code] == nullptr) names[code] = py::str(std::string(item_code_name(code))).release().ptr();
    return py::reinterpret_borrow<py::object>(names[code]);
}

// The Python side of one ActuatorGroup: the group and the snapshot storage it
// refills every period (no allocation in C++ once filled). It holds no Python
// object, so it may be destroyed without the GIL.
class PythonGroup {
public:
    explicit PythonGroup(ActuatorGroupOptions options) : group_(std::move(options)) {}

    ActuatorGroup& group() { return group_; }

    py::object take_snapshot() {
        {
            py::gil_scoped_release release;
            group_.take_snapshot(snapshot_);
        }
        py::tuple actuators(snapshot_.actuators.size());
        for (std::size_t i = 0; i < snapshot_.actuators.size(); ++i) actuators[i] = actuator(snapshot_.actuators[i]);
        return borrowed(types().group_snapshot)(seconds_since_epoch(snapshot_.taken), snapshot_.number, actuators);
    }

    py::object statistics() const {
        const GroupStatistics statistics = without_gil([&] { return group_.statistics(); });
        py::tuple actuators(statistics.actuators.size());
        for (std::size_t i = 0; i < statistics.actuators.size(); ++i) {
            const ActuatorStatistics& a = statistics.actuators[i];
            actuators[i] = borrowed(types().actuator_statistics)(
                a.address, a.bus, timing_summary(a.feedback_age), a.fresh, a.stale, a.missing, a.setpoints_short,
                a.setpoints_full, a.setpoints_superseded, a.setpoints_refused, a.faults, a.restarts, a.pings);
        }
        py::tuple buses(statistics.buses.size());
        for (std::size_t b = 0; b < statistics.buses.size(); ++b) {
            const BusStatistics& bus = statistics.buses[b];
            py::object counters = py::none();
            if (const auto* sim = std::get_if<SimBusCounters>(&bus.counters)) counters = py::cast(*sim);
            if (const auto* can = std::get_if<CanBusCounters>(&bus.counters)) counters = py::cast(*can);
            buses[b] = borrowed(types().bus_statistics)(link_state(bus.link), counters);
        }
        return borrowed(types().group_statistics)(actuators, buses);
    }

private:
    py::object actuator(const ActuatorSnapshot& joint) const {
        py::dict values;
        py::dict words;
        for (std::size_t k = 0; k < joint.values.size(); ++k) {
            const py::object name = item_name_object(joint.item_codes[k]);
            values[name] = joint.values[k];
            words[name] = joint.words[k];
        }
        const bool arrived = joint.sequence != 0;
        return borrowed(types().actuator_snapshot)(
            joint.address, joint.bus,
            py::reinterpret_borrow<py::object>(types().feedback_status[static_cast<std::size_t>(joint.status)]),
            joint.sequence, arrived ? py::object(py::float_(seconds_since_epoch(joint.arrived))) : py::none(),
            arrived ? py::object(py::float_(seconds(joint.age))) : py::none(), values, words, joint.running,
            joint.answering, fault_record(joint.fault), link_state(joint.link));
    }

    ActuatorGroup group_;
    GroupSnapshot snapshot_;
};

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The watchdog of a control loop that runs on an asyncio event loop: a thread
// of its own that stops every actuator of the group when the period in
// progress has not ended `missed_periods` periods after its deadline. Being a
// thread, it acts while a callback blocks the event loop, which no task on
// that loop could. The loop calls beat() with each period's deadline before
// it waits for it, and idle() when it is not running a period.
class GroupWatchdog {
public:
    GroupWatchdog(PythonGroup& group, double period_s, int missed_periods)
        : group_(group.group()),
          period_ns_(std::chrono::duration_cast<std::chrono::nanoseconds>(
                         duration_from_seconds(period_s, "period")).count()),
          limit_ns_(period_ns_ * missed_periods) {
        if (period_ns_ <= 0) throw py::value_error("period must be positive");
        if (missed_periods <= 0) throw py::value_error("missed_periods must be positive");
        thread_ = std::thread([this] { watch(); });
    }
    ~GroupWatchdog() { close(); }
    GroupWatchdog(const GroupWatchdog&) = delete;
    GroupWatchdog& operator=(const GroupWatchdog&) = delete;

    // `deadline_s` is on the clock of time.monotonic() and loop.time().
    void beat(double deadline_s) { deadline_ns_.store(static_cast<int64_t>(std::llround(deadline_s * 1e9))); }
    void idle() { deadline_ns_.store(0); }
    bool tripped() const { return tripped_.load(); }

    void close() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable()) thread_.join();
    }

private:
    void watch() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!done_) {
            wake_.wait_for(lock, std::chrono::nanoseconds(period_ns_));
            const int64_t deadline = deadline_ns_.load();
            if (done_ || deadline == 0 || monotonic_ns() - deadline < limit_ns_) continue;
            if (!tripped_.exchange(true)) group_.stop_all();
        }
    }

    ActuatorGroup& group_;
    const int64_t period_ns_;
    const int64_t limit_ns_;
    std::atomic<int64_t> deadline_ns_{0};
    std::atomic<bool> tripped_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
    std::thread thread_;
};

// The group owns C++ objects whose destructor sends (a STOP to every
// actuator): destroyed without the GIL, like the transports.
using GroupHolder = Holder<PythonGroup>;

ActuatorGroup::Extras extras_from(const py::handle& given) {
    ActuatorGroup::Extras extras = ActuatorGroup::unchanged_extras();
    if (given.is_none()) return extras;
    const auto values = given.cast<std::vector<py::object>>();
    if (values.size() > extras.size()) {
        throw py::value_error("at most " + std::to_string(extras.size()) + " extra arguments, got " +
                              std::to_string(values.size()));
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        extras[i] = values[i].is_none() ? UNCHANGED : values[i].cast<float>();
    }
    return extras;
}

py::object named_tuple(py::module_& module, const char* name, std::vector<std::string> fields, const char* doc) {
    py::object type = py::module_::import("collections").attr("namedtuple")(name, fields, py::arg("module") = "ocp_api");
    type.attr("__doc__") = doc;
    module.attr(name) = type;
    return type;
}

template <std::size_t N>
py::object string_enumeration(py::module_& module, const char* name, const std::array<const char*, N>& names,
                              PyObject* (&members)[N], const char* doc) {
    std::vector<std::string> member_names(names.begin(), names.end());
    py::object type = py::module_::import("enum").attr("StrEnum")(name, member_names, py::arg("module") = "ocp_api");
    type.attr("__doc__") = doc;
    for (std::size_t i = 0; i < N; ++i) members[i] = py::object(type.attr(names[i])).release().ptr();
    module.attr(name) = type;
    return type;
}

}  // namespace

void bind_actuator_group(py::module_& module) {
    RecordTypes& t = types();
    // The order of the members is the order of the C++ enumerators.
    string_enumeration<3>(module, "FeedbackStatus", {"fresh", "stale", "missing"}, t.feedback_status,
                          "How old an actuator's latest feedback is at a snapshot: fresh (arrived since the\n"
                          "previous snapshot), stale (older, within stale_after), missing (older, or never).\n"
                          "Members are strings: status == \"fresh\" holds for FeedbackStatus.fresh.");
    string_enumeration<5>(module, "CanLinkState", {"active", "error_warning", "error_passive", "bus_off", "down"},
                          t.link_state, "The state of a CAN link, as its controller reports it.");
    t.fault = named_tuple(module, "FaultRecord", {"present", "error_word", "severe", "when", "count", "descriptions"},
                          "The last error record a device sent: the word as sent, severe (a bit at or above 16:\n"
                          "the device stopped), when it arrived (time.monotonic() seconds, None before any),\n"
                          "the records with bits set so far and one description per bit set.")
                  .release()
                  .ptr();
    t.actuator_snapshot =
        named_tuple(module, "ActuatorSnapshot",
                    {"address", "bus", "status", "sequence", "arrival", "age", "values", "words", "running",
                     "answering", "fault", "link"},
                    "One actuator at one snapshot: its bus index, FeedbackStatus, the number of streamed\n"
                    "replies so far, when the latest arrived (time.monotonic() seconds) and its age at the\n"
                    "snapshot in seconds (both None before the first), the values and the exact 32-bit\n"
                    "words by item name (NaN and 0 until an item arrived), running (as far as the host\n"
                    "knows), answering, the last FaultRecord and the bus's CanLinkState (None without one).")
            .release()
            .ptr();
    t.group_snapshot = named_tuple(module, "GroupSnapshot", {"taken", "number", "actuators"},
                                   "Every actuator of a group at one moment (time.monotonic() seconds); number is\n"
                                   "1 for the first snapshot; actuators in the order they were added.")
                           .release()
                           .ptr();
    t.timing = named_tuple(module, "TimingSummary", {"p50_us", "p99_us", "max_us", "count"},
                           "A timing histogram's median, 99th percentile and maximum in microseconds\n"
                           "(percentiles within 1/16 relative), and how many durations it holds.")
                   .release()
                   .ptr();
    t.actuator_statistics =
        named_tuple(module, "ActuatorStatistics",
                    {"address", "bus", "feedback_age", "fresh", "stale", "missing", "setpoints_short", "setpoints_full",
                     "setpoints_superseded", "setpoints_refused", "faults", "restarts", "pings"},
                    "One actuator's counts since the group was made or its statistics reset; feedback_age\n"
                    "is a TimingSummary of the age at each snapshot that had a value.")
            .release()
            .ptr();
    t.bus_statistics = named_tuple(module, "BusStatistics", {"link", "counters"},
                                   "One bus of a group: its CanLinkState (None without one) and the transport's\n"
                                   "counters (SimBusCounters, CanBusCounters, or None).")
                           .release()
                           .ptr();
    t.group_statistics = named_tuple(module, "GroupStatistics", {"actuators", "buses"},
                                     "Per actuator in the order added, per bus in the order first seen.")
                             .release()
                             .ptr();

    py::class_<TimingHistogram>(module, "TimingHistogram", R"doc(
A histogram of durations with fixed buckets, the one the C++ loop runner uses:
recording never allocates, percentiles are within 1/16 relative.)doc")
        .def(py::init<>())
        .def(
            "record", [](TimingHistogram& h, double duration) { h.record(duration_from_seconds(duration, "duration")); },
            py::arg("seconds"), "Records a duration in seconds; negative ones count as 0.")
        .def("reset", &TimingHistogram::reset)
        .def_property_readonly("count", &TimingHistogram::count)
        .def_property_readonly("max", [](const TimingHistogram& h) { return seconds(h.max()); }, "In seconds.")
        .def(
            "percentile",
            [](const TimingHistogram& h, double q) {
                if (!(q > 0.0 && q <= 1.0)) throw py::value_error("the quantile must be in (0, 1]");
                return seconds(h.percentile(q));
            },
            py::arg("q"), "The q-th quantile (0 < q <= 1) in seconds; 0 when empty.")
        .def("summary", &timing_summary, "A TimingSummary in microseconds.");

    py::class_<PythonGroup, GroupHolder>(module, "ActuatorGroup", R"doc(
Actuators on any number of buses driven together, as the joints of one robot:
set up in one call, read as one snapshot per control period, commanded with one
setpoint each per period in the smallest frame that carries it. Leaving a
``with`` block, deleting the group or ``stop_all`` stops every actuator.

``take_snapshot``, ``set_setpoint``, ``send_setpoints`` and ``maintain`` belong
to one thread, the control loop's; ``stop``, ``stop_all``, ``statistics`` and
``reset_statistics`` are safe from any thread. ``ocp_api.aio.Group`` runs the
loop on an asyncio event loop.)doc")
        .def(py::init([](double stale_after, double silent_after, double ping_interval, double stop_when_missing_for) {
                 ActuatorGroupOptions options;
                 options.stale_after = duration_from_seconds(stale_after, "stale_after");
                 options.silent_after = duration_from_seconds(silent_after, "silent_after");
                 options.ping_interval = duration_from_seconds(ping_interval, "ping_interval");
                 options.stop_when_missing_for = duration_from_seconds(stop_when_missing_for, "stop_when_missing_for");
                 return GroupHolder(new PythonGroup(std::move(options)));
             }),
             py::arg("stale_after") = 0.02, py::arg("silent_after") = 0.2, py::arg("ping_interval") = 0.2,
             py::arg("stop_when_missing_for") = 0.0,
             "Durations in seconds; ValueError for one that is not positive (stop_when_missing_for:\n"
             "0 leaves the group running when feedback goes missing).")
        .def(
            "add", [](PythonGroup& self, OCP& bus, int address) { return self.group().add(bus, address); },
            py::arg("bus"), py::arg("address"), py::keep_alive<1, 2>(), release_gil(),
            "Adds the actuator at ``address`` on ``bus`` (any transport: SimBus, SocketCanBus,\n"
            "PythonCanTransport, ...) and returns its index. Sends nothing. ValueError for an address\n"
            "outside 0x10..0x3FFE or one this or another group already drives on that bus.")
        .def("__len__", [](PythonGroup& self) { return self.group().size(); })
        .def(
            "address",
            [](PythonGroup& self, std::size_t index) {
                if (index >= self.group().size()) throw py::index_error("no actuator " + std::to_string(index));
                return self.group().address(index);
            },
            py::arg("index"))
        .def(
            "set_up",
            [](PythonGroup& self, std::vector<Item> items, int feedback_rate_hz, OrreryActuator::Mode mode) {
                self.group().set_up(GroupSetup{std::move(items), feedback_rate_hz, mode});
            },
            py::arg("items"), py::arg("feedback_rate_hz") = 1000, py::arg("mode") = OrreryActuator::Mode::IMPEDANCE,
            release_gil(),
            "Sends every actuator STOP, the feedback items and rate and the mode; leaves them stopped.\n"
            "Kept: a device that falls silent and answers again is set up again (and left stopped).\n"
            "ValueError for a rate outside 1..10000.")
        .def(
            "start",
            [](PythonGroup& self, std::size_t index) {
                if (index >= self.group().size()) throw py::index_error("no actuator " + std::to_string(index));
                py::gil_scoped_release release;
                self.group().start(index);
            },
            py::arg("index"))
        .def("start_all", [](PythonGroup& self) { self.group().start_all(); }, release_gil())
        .def(
            "stop",
            [](PythonGroup& self, std::size_t index) {
                if (index >= self.group().size()) throw py::index_error("no actuator " + std::to_string(index));
                py::gil_scoped_release release;
                self.group().stop(index);
            },
            py::arg("index"))
        .def("stop_all", [](PythonGroup& self) { self.group().stop_all(); }, release_gil(),
             "Sends every actuator a STOP. Safe from any thread.")
        .def("take_snapshot", &PythonGroup::take_snapshot, "The group now, as a GroupSnapshot.")
        .def(
            "set_setpoint",
            [](PythonGroup& self, std::size_t index, float value, const py::object& extras) {
                if (index >= self.group().size()) throw py::index_error("no actuator " + std::to_string(index));
                if (extras.is_none()) return self.group().set_setpoint(index, value);
                return self.group().set_setpoint(index, value, extras_from(extras));
            },
            py::arg("index"), py::arg("value"), py::arg("extras") = py::none(),
            "The mode's main setpoint for the next send_setpoints(), and optionally up to 7 further\n"
            "arguments of the mode's full command in the driver's order (None or NaN: unchanged).\n"
            "False, and counted, for a non-finite value: the previous setpoint stays in force.")
        .def("send_setpoints", [](PythonGroup& self) { return self.group().send_setpoints(); }, release_gil(),
             "Sends the setpoints set since the last call, each in the smallest frame; returns the frames sent.")
        .def("maintain", [](PythonGroup& self) { self.group().maintain(); }, release_gil(),
             "Pings silent devices and sets up again those that answer. Once per period.")
        .def_property_readonly("feedback_lost", [](PythonGroup& self) { return self.group().feedback_lost(); })
        .def("statistics", &PythonGroup::statistics, "The counts so far, as GroupStatistics.")
        .def("reset_statistics", [](PythonGroup& self) { self.group().reset_statistics(); }, release_gil())
        .def("__enter__", [](const py::object& self) { return self; })
        .def(
            "__exit__",
            [](PythonGroup& self, const py::object&, const py::object&, const py::object&) {
                without_gil([&] { self.group().stop_all(); });
                return false;
            },
            "Stops every actuator at the end of a ``with`` block, however it ends.");

    py::class_<GroupWatchdog, Holder<GroupWatchdog>>(module, "_GroupWatchdog", R"doc(
The watchdog thread of ``ocp_api.aio.Group.run``: stops every actuator of the
group when the period whose deadline ``beat`` gave has not ended
``missed_periods`` periods after it, even while the event loop is blocked.
``close`` (or deleting it) stops the thread.)doc")
        .def(py::init([](PythonGroup& group, double period_s, int missed_periods) {
                 return Holder<GroupWatchdog>(new GroupWatchdog(group, period_s, missed_periods));
             }),
             py::arg("group"), py::arg("period_s"), py::arg("missed_periods"), py::keep_alive<1, 2>())
        .def("beat", &GroupWatchdog::beat, py::arg("deadline_s"))
        .def("idle", &GroupWatchdog::idle)
        .def_property_readonly("tripped", &GroupWatchdog::tripped)
        .def("close", &GroupWatchdog::close, release_gil());
}

}  // namespace ocp_api::python
