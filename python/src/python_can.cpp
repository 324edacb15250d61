// The python-can bridge: any python-can Bus as a CanLink, under the library's
// own CAN mapping and segmentation (CanBus on the host side, CanDeviceHost for
// emulated devices). Every adapter python-can supports can drive actuators.
//
// Frames cross between C++ and Python in batches, never one GIL round trip per
// frame on a C++ thread:
// - Reception is a python-can listener: a can.Notifier (the transport's own,
//   or one the program already runs on the bus, so other listeners keep
//   working) hands every message to it on the notifier's thread, which holds
//   the GIL anyway. It converts the message and puts the frame in a bounded
//   inbox; the CAN mapping's receive thread takes frames from there without
//   the GIL. No polling: an idle bridge waits on the notifier's recv.
// - Sending puts the frame in a small bounded outbox and returns. One sender
//   thread takes the GIL once for everything queued and calls bus.send for
//   each. A full outbox answers busy, so the frames wait in the CAN mapping's
//   own queues, where a STOP goes first and setpoints replace older ones.
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "bindings.hpp"
#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/emulated_actuator.hpp"

namespace ocp_api::python {
namespace {

// Frames received and not yet taken by the CAN mapping, at most. Beyond it the
// oldest frame is dropped (and counted): a late frame is worth less than a new one.
constexpr std::size_t INBOX_CAPACITY = 4096;
// Frames waiting for the sender thread, at most; more answer busy.
constexpr std::size_t OUTBOX_CAPACITY = 64;
constexpr std::size_t URGENT_ROOM = 8;
// A frame python-can refuses (adapter queue full) is tried this often, this far apart.
constexpr int SEND_ATTEMPTS = 5;
constexpr std::chrono::milliseconds SEND_RETRY_PAUSE{1};
// How often the transport's own notifier looks up from an idle bus.recv, which
// bounds how long close() waits for it.
constexpr double NOTIFIER_TIMEOUT_S = 0.2;

// What the bridge itself has carried, beside the CAN mapping's counters.
struct BridgeCounters {
    uint64_t frames_received = 0;  // messages the listener took as CAN frames
    uint64_t frames_ignored = 0;   // error, remote or malformed messages
    uint64_t inbox_drops = 0;      // received frames dropped because the inbox was full
    uint64_t inbox_peak = 0;       // the most frames ever waiting in the inbox
    uint64_t frames_sent = 0;      // frames bus.send took
    uint64_t send_batches = 0;     // GIL acquisitions of the sender thread
    uint64_t send_errors = 0;      // frames bus.send refused SEND_ATTEMPTS times
    uint64_t outbox_full = 0;      // sends answered busy because the outbox was full
};

// Frames from the listener to the CAN mapping's receive thread, and the link's
// state changes, in arrival order. Shared by the link and its listener, which
// Python may keep alive longer than the link.
class Inbox {
public:
    // On the notifier's thread.
    void push_frame(const CanFrame& frame) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (closed_) return;
            if (events_.size() >= INBOX_CAPACITY) {
                events_.pop_front();
                ++counters_.inbox_drops;
            }
            CanLinkEvent event;
            event.type = CanLinkEvent::Type::frame;
            event.frame = frame;
            events_.push_back(event);
            ++counters_.frames_received;
            counters_.inbox_peak = std::max<uint64_t>(counters_.inbox_peak, events_.size());
        }
        ready_.notify_one();
    }

    void push_state(CanLinkState state) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (closed_ || state == state_) return;
            state_ = state;
            CanLinkEvent event;
            event.type = CanLinkEvent::Type::state;
            event.state = state;
            events_.push_back(event);
        }
        ready_.notify_one();
    }

    void count_ignored() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++counters_.frames_ignored;
    }

    // On the CAN mapping's receive thread.
    CanLinkEvent pop(std::chrono::nanoseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait_for(lock, timeout, [this] { return woken_ || closed_ || !events_.empty(); });
        if (woken_ || events_.empty()) {
            woken_ = false;  // a wake() returns nothing, even with frames waiting
            return {};
        }
        const CanLinkEvent event = events_.front();
        events_.pop_front();
        return event;
    }

    void wake() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            woken_ = true;
        }
        ready_.notify_one();
    }

    void close() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
            events_.clear();
        }
        ready_.notify_all();
    }

    CanLinkState state() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return state_;
    }

    BridgeCounters counters() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return counters_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<CanLinkEvent> events_;
    CanLinkState state_ = CanLinkState::active;
    bool woken_ = false;
    bool closed_ = false;
    BridgeCounters counters_;
};

// The python-can listener: a callable taking can.Message, with python-can's
// on_error and stop. Runs on the notifier's thread with the GIL.
class BridgeListener {
public:
    explicit BridgeListener(std::shared_ptr<Inbox> inbox) : inbox_(std::move(inbox)) {}

    void on_message_received(const py::handle& message) const {
        CanFrame frame;
        if (!to_frame(message, frame)) {
            inbox_->count_ignored();
            return;
        }
        inbox_->push_frame(frame);
    }

    // The notifier's recv failed (bus shut down, adapter gone); its thread ends.
    void on_error(const py::handle&) const { inbox_->push_state(CanLinkState::down); }

    void stop() const {}

private:
    static bool to_frame(const py::handle& message, CanFrame& frame) {
        try {
            if (message.attr("is_error_frame").cast<bool>() || message.attr("is_remote_frame").cast<bool>()) {
                return false;
            }
            const py::object data = message.attr("data");
            Py_buffer view;
            if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) {
                PyErr_Clear();
                return false;
            }
            const auto length = static_cast<std::size_t>(view.len);
            if (length <= CanFrame::MAX_DATA) {
                std::copy_n(static_cast<const uint8_t*>(view.buf), length, frame.data.begin());
            }
            PyBuffer_Release(&view);
            if (length > CanFrame::MAX_DATA) return false;
            frame.len = static_cast<uint8_t>(length);
            frame.id = message.attr("arbitration_id").cast<uint32_t>();
            frame.extended = message.attr("is_extended_id").cast<bool>();
            frame.fd = message.attr("is_fd").cast<bool>();
            frame.brs = message.attr("bitrate_switch").cast<bool>();
            return true;
        } catch (const std::exception&) {
            PyErr_Clear();
            return false;  // a message that is no CAN frame: not ours
        }
    }

    std::shared_ptr<Inbox> inbox_;
};

// A CanLink over a python-can Bus.
class PythonCanLink : public CanLink {
public:
    // Needs the GIL. Without `notifier` the link runs its own can.Notifier on `bus`.
    PythonCanLink(py::object bus, bool fd, py::object notifier)
        : bus_(share_object(std::move(bus))),
          message_type_(share_object(py::module_::import("can").attr("Message"))),
          operation_error_(share_object(py::module_::import("can").attr("CanOperationError"))),
          fd_(fd),
          inbox_(std::make_shared<Inbox>()) {
        listener_ = share_object(py::cast(BridgeListener(inbox_)));
        if (notifier.is_none()) {
            py::list listeners;
            listeners.append(*listener_);
            notifier_ = share_object(py::module_::import("can").attr("Notifier")(
                *bus_, listeners, py::arg("timeout") = NOTIFIER_TIMEOUT_S));
            own_notifier_ = true;
        } else {
            notifier.attr("add_listener")(*listener_);
            notifier_ = share_object(std::move(notifier));
        }
        // Room beyond the capacity for STOPs, which are never refused.
        outbox_.reserve(OUTBOX_CAPACITY + URGENT_ROOM);
        sending_.reserve(OUTBOX_CAPACITY + URGENT_ROOM);
        sender_ = std::thread([this] { run_sender(); });
    }

    ~PythonCanLink() override { detach(); }
    PythonCanLink(const PythonCanLink&) = delete;
    PythonCanLink& operator=(const PythonCanLink&) = delete;

    bool fd() const override { return fd_; }

    SendResult send_frame(const CanFrame& frame) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return SendResult::failed;
            if (outbox_.size() >= OUTBOX_CAPACITY) {
                ++outbox_full_;
                return SendResult::busy;
            }
            outbox_.push_back(frame);
        }
        work_.notify_one();
        return SendResult::sent;
    }

    // A STOP goes ahead of every frame in the outbox, full or not.
    SendResult send_urgent_frame(const CanFrame& frame) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return SendResult::failed;
            outbox_.insert(outbox_.begin(), frame);
        }
        work_.notify_one();
        return SendResult::sent;
    }

    CanLinkEvent receive(std::chrono::nanoseconds timeout) override { return inbox_->pop(timeout); }

    void wake() override { inbox_->wake(); }

    // Stops the sender thread and leaves the notifier (stopping it when it is
    // the link's own). Safe to call more than once, with or without the GIL.
    void detach() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            stopping_ = true;
        }
        work_.notify_all();
        without_gil([this] {
            if (sender_.joinable()) sender_.join();
        });
        inbox_->close();
        if (interpreter_finalizing()) return;
        py::gil_scoped_acquire gil;
        try {
            if (own_notifier_) {
                notifier_->attr("stop")();
            } else {
                notifier_->attr("remove_listener")(*listener_);
            }
        } catch (py::error_already_set& error) {
            report_unraisable(error, "ocp_api python-can bridge: leaving the notifier");
        }
    }

    BridgeCounters counters() const {
        BridgeCounters counters = inbox_->counters();
        std::lock_guard<std::mutex> lock(mutex_);
        counters.frames_sent = frames_sent_;
        counters.send_batches = send_batches_;
        counters.send_errors = send_errors_;
        counters.outbox_full = outbox_full_;
        return counters;
    }

private:
    void run_sender() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            work_.wait(lock, [this] { return stopping_ || !outbox_.empty(); });
            if (stopping_) return;
            sending_.swap(outbox_);  // both keep their reserved capacity: no allocation
            lock.unlock();
            const auto [sent, failed] = send_batch();
            sending_.clear();
            lock.lock();
            frames_sent_ += sent;
            send_errors_ += failed;
            ++send_batches_;
        }
    }

    // Sends every frame of sending_ with one GIL acquisition; (sent, failed).
    std::pair<uint64_t, uint64_t> send_batch() {
        uint64_t sent = 0;
        uint64_t failed = 0;
        if (interpreter_finalizing()) return {0, sending_.size()};
        py::gil_scoped_acquire gil;
        for (const CanFrame& frame : sending_) {
            if (send_one(frame)) {
                ++sent;
            } else {
                ++failed;
            }
        }
        if (failed > 0 && sent == 0) {
            mark_down();
        } else if (sent > 0) {
            inbox_->push_state(CanLinkState::active);
        }
        return {sent, failed};
    }

    bool send_one(const CanFrame& frame) {
        py::object message;
        try {
            message = (*message_type_)(
                py::arg("arbitration_id") = frame.id, py::arg("is_extended_id") = frame.extended,
                py::arg("is_fd") = frame.fd, py::arg("bitrate_switch") = frame.brs,
                py::arg("data") = py::bytes(reinterpret_cast<const char*>(frame.data.data()), frame.len));
        } catch (py::error_already_set&) {
            return false;
        }
        for (int attempt = 1;; ++attempt) {
            try {
                bus_->attr("send")(message);
                return true;
            } catch (py::error_already_set& error) {
                // python-can reports a full transmit queue and a bus that is
                // gone alike; a few short retries cover the first.
                if (!error.matches(*operation_error_) || attempt == SEND_ATTEMPTS) return false;
            }
            py::gil_scoped_release release;
            std::this_thread::sleep_for(SEND_RETRY_PAUSE);
        }
    }

    void mark_down() { inbox_->push_state(CanLinkState::down); }

    const SharedObject bus_;
    const SharedObject message_type_;
    const SharedObject operation_error_;
    const bool fd_;
    const std::shared_ptr<Inbox> inbox_;
    SharedObject listener_;
    SharedObject notifier_;
    bool own_notifier_ = false;

    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::vector<CanFrame> outbox_;   // guarded by mutex_
    std::vector<CanFrame> sending_;  // only the sender thread
    bool stopping_ = false;
    uint64_t frames_sent_ = 0;
    uint64_t send_batches_ = 0;
    uint64_t send_errors_ = 0;
    uint64_t outbox_full_ = 0;
    std::thread sender_;
};

CanBusOptions host_options(bool fd) {
    CanBusOptions options;
    options.isotp.fd = fd;
    return options;
}

CanDeviceHostOptions device_options(bool fd, double time_scale) {
    CanDeviceHostOptions options;
    options.isotp.fd = fd;
    options.time_scale = time_scale;
    return options;
}

// The OCP transport over a python-can Bus; closed at interpreter exit.
class PythonCanTransport : public CanBus {
public:
    PythonCanTransport(py::object bus, bool fd, py::object notifier)
        : PythonCanTransport(new PythonCanLink(std::move(bus), fd, std::move(notifier)), fd) {}
    ~PythonCanTransport() override { untrack_transport(this); }
    PythonCanTransport(const PythonCanTransport&) = delete;
    PythonCanTransport& operator=(const PythonCanTransport&) = delete;

    // Also leaves the notifier: a closed transport takes no more frames.
    void close() override {
        CanBus::close();
        link_->detach();
    }

    BridgeCounters bridge_counters() const { return link_->counters(); }

private:
    PythonCanTransport(PythonCanLink* link, bool fd)
        : CanBus(std::unique_ptr<CanLink>(link), host_options(fd)), link_(link) {
        track_transport(this, [this] { close(); });
    }

    PythonCanLink* const link_;  // owned by CanBus
};

// Emulated actuators answering on a python-can Bus; closed at interpreter exit.
class PythonCanDeviceHost : public CanDeviceHost {
public:
    PythonCanDeviceHost(py::object bus, bool fd, double time_scale, py::object notifier)
        : PythonCanDeviceHost(new PythonCanLink(std::move(bus), fd, std::move(notifier)), fd, time_scale) {}
    ~PythonCanDeviceHost() override { untrack_transport(this); }
    PythonCanDeviceHost(const PythonCanDeviceHost&) = delete;
    PythonCanDeviceHost& operator=(const PythonCanDeviceHost&) = delete;

    void close() {
        CanDeviceHost::close();
        link_->detach();
    }

    BridgeCounters bridge_counters() const { return link_->counters(); }

private:
    PythonCanDeviceHost(PythonCanLink* link, bool fd, double time_scale)
        : CanDeviceHost(std::unique_ptr<CanLink>(link), device_options(fd, time_scale)), link_(link) {
        track_transport(this, [this] { close(); });
    }

    PythonCanLink* const link_;  // owned by CanDeviceHost
};

}  // namespace

void bind_python_can(py::module_& module) {
    using release_gil = py::call_guard<py::gil_scoped_release>;

    py::class_<BridgeListener>(module, "_PythonCanListener", R"doc(
The python-can listener of a bridge: a can.Notifier calls it with every
message; it keeps the CAN frames for the bridge's receive thread.)doc")
        .def("__call__", &BridgeListener::on_message_received, py::arg("message"))
        .def("on_message_received", &BridgeListener::on_message_received, py::arg("message"))
        .def("on_error", &BridgeListener::on_error, py::arg("error"))
        .def("stop", &BridgeListener::stop);

    py::class_<BridgeCounters>(module, "PythonCanBridgeCounters", "What a python-can bridge has carried so far.")
        .def_readonly("frames_received", &BridgeCounters::frames_received, "Messages taken as CAN frames.")
        .def_readonly("frames_ignored", &BridgeCounters::frames_ignored, "Error, remote or malformed messages.")
        .def_readonly("inbox_drops", &BridgeCounters::inbox_drops,
                      "Received frames dropped, oldest first, because 4096 were waiting.")
        .def_readonly("inbox_peak", &BridgeCounters::inbox_peak, "The most received frames ever waiting.")
        .def_readonly("frames_sent", &BridgeCounters::frames_sent, "Frames bus.send took.")
        .def_readonly("send_batches", &BridgeCounters::send_batches, "Times the sender thread took the GIL.")
        .def_readonly("send_errors", &BridgeCounters::send_errors, "Frames bus.send refused, after retries.")
        .def_readonly("outbox_full", &BridgeCounters::outbox_full,
                      "Sends answered busy because 64 frames were waiting for bus.send.");

    py::class_<CanBusCounters>(module, "CanBusCounters", "What a CAN transport has carried so far.")
        .def_readonly("frames_in", &CanBusCounters::frames_in)
        .def_readonly("frames_out", &CanBusCounters::frames_out)
        .def_readonly("messages_in", &CanBusCounters::messages_in)
        .def_readonly("messages_out", &CanBusCounters::messages_out)
        .def_readonly("foreign_frames", &CanBusCounters::foreign_frames)
        .def_readonly("segmentation_errors", &CanBusCounters::segmentation_errors)
        .def_readonly("timeouts", &CanBusCounters::timeouts)
        .def_readonly("drops", &CanBusCounters::drops)
        .def_readonly("link_errors", &CanBusCounters::link_errors)
        .def_readonly("replies_unclaimed", &CanBusCounters::replies_unclaimed)
        .def_readonly("restarts", &CanBusCounters::restarts);

    py::class_<PythonCanTransport, OCP, Holder<PythonCanTransport>>(module, "PythonCanTransport", R"doc(
Actuators through any python-can ``Bus``: the library's CAN identifiers and
segmentation over the frames python-can sends and receives.

``fd=True`` sends CAN-FD frames (the bus must carry them). Frames arrive
through a python-can listener: pass ``notifier=`` a ``can.Notifier`` already
running on ``bus`` to share it with the program's other listeners; without one
the transport runs its own. Frames leave through one sender thread that takes
the GIL once for all frames waiting and calls ``bus.send`` for each. Callbacks
run on the transport's receive thread. The transport keeps ``bus`` alive and
never shuts it down: close it (or leave its ``with`` block) before
``bus.shutdown()``.)doc")
        .def(py::init([](py::object bus, bool fd, py::object notifier) {
                 return Holder<PythonCanTransport>(new PythonCanTransport(bus, fd, notifier));
             }),
             py::arg("bus"), py::arg("fd") = false, py::arg("notifier") = py::none())
        .def("counters", &PythonCanTransport::counters, release_gil())
        .def("bridge_counters", &PythonCanTransport::bridge_counters, release_gil())
        .def_property_readonly("fd", &PythonCanTransport::fd);

    py::class_<CanDeviceHostCounters>(module, "CanDeviceHostCounters", "What a device host has carried so far.")
        .def_readonly("frames_in", &CanDeviceHostCounters::frames_in)
        .def_readonly("frames_out", &CanDeviceHostCounters::frames_out)
        .def_readonly("commands_in", &CanDeviceHostCounters::commands_in)
        .def_readonly("replies_out", &CanDeviceHostCounters::replies_out)
        .def_readonly("foreign_frames", &CanDeviceHostCounters::foreign_frames)
        .def_readonly("segmentation_errors", &CanDeviceHostCounters::segmentation_errors)
        .def_readonly("timeouts", &CanDeviceHostCounters::timeouts)
        .def_readonly("drops", &CanDeviceHostCounters::drops)
        .def_readonly("link_errors", &CanDeviceHostCounters::link_errors);

    py::class_<PythonCanDeviceHost, Holder<PythonCanDeviceHost>>(module, "PythonCanDeviceHost", R"doc(
Emulated actuators answering on a python-can ``Bus``, exactly as devices on a
real bus would (same identifiers, same segmentation): for trying host code on
an adapter or a python-can ``virtual`` channel without actuators.

Its thread runs the devices' physics in step with the wall clock times
``time_scale``. Frames arrive and leave as for ``PythonCanTransport``
(``notifier=`` shares a running ``can.Notifier``).)doc")
        .def(py::init([](py::object bus, bool fd, double time_scale, py::object notifier) {
                 return Holder<PythonCanDeviceHost>(new PythonCanDeviceHost(bus, fd, time_scale, notifier));
             }),
             py::arg("bus"), py::arg("fd") = false, py::arg("time_scale") = 1.0, py::arg("notifier") = py::none())
        .def("bridge_counters", &PythonCanDeviceHost::bridge_counters, release_gil())
        .def("add_actuator", &PythonCanDeviceHost::add_actuator, py::arg("address"), py::arg("model_code") = 3,
             py::arg("firmware_word") = 0x0842, py::return_value_policy::reference_internal, release_gil(),
             "Adds an emulated actuator; ValueError for a bad or taken address.")
        .def("remove_actuator", &PythonCanDeviceHost::remove_actuator, py::arg("address"), release_gil(),
             "Removes the device at ``address``; earlier references to it must not be used.")
        .def("actuator", &PythonCanDeviceHost::actuator, py::arg("address"),
             py::return_value_policy::reference_internal, release_gil(),
             "The emulated actuator now at ``address``; IndexError when there is none.")
        .def("actuator_count", &PythonCanDeviceHost::actuator_count, release_gil())
        .def("counters", &PythonCanDeviceHost::counters, release_gil())
        .def("close", &PythonCanDeviceHost::close, release_gil(),
             "Stops the host's thread; the devices stay and answer nothing.")
        .def("__enter__", [](const py::object& self) { return self; })
        .def(
            "__exit__",
            [](PythonCanDeviceHost& self, const py::object&, const py::object&, const py::object&) {
                self.close();
                return false;
            },
            py::call_guard<py::gil_scoped_release>());
}

}  // namespace ocp_api::python
