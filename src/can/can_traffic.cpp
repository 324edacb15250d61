// The passive monitor: two nodes of the mapping, one per direction, whose
// flow control goes nowhere.
#include "ocp_api/can_traffic.hpp"

#include <algorithm>

#include "can/can_node.hpp"
#include "can/isotp.hpp"

namespace ocp_api::can {

namespace {

IsoTpTime at(std::chrono::microseconds time) {
    return IsoTpTime(std::chrono::duration_cast<IsoTpClock::duration>(time));
}

// Some other node on the bus asks for flow control; the monitor's receivers
// take what comes without pacing it.
IsoTpOptions monitor_options() { return IsoTpOptions{}; }

// What broke, judged from how the segmentation counters moved; empty when
// nothing did.
std::string what_broke(const IsoTpCounters& before, const IsoTpCounters& after) {
    if (after.timeouts > before.timeouts) return "message cut short: its next frame did not come in time";
    if (after.receptions_refused > before.receptions_refused)
        return "first frame ignored: too many messages half-received at once";
    if (after.receptions_evicted > before.receptions_evicted)
        return "message cut short: dropped to make room for a known sender";
    if (after.overflows > before.overflows) return "first frame announces more than 4095 bytes";
    if (after.segmentation_errors > before.segmentation_errors) {
        return after.dropped > before.dropped ? "segmentation broken: the half-received message is dropped"
                                              : "malformed ISO-TP frame";
    }
    if (after.ignored_frames > before.ignored_frames) return "consecutive frame without a first frame";
    return {};
}

}  // namespace

class TrafficMonitor::Impl {
public:
    Impl();
    void on_frame(const CanFrame& frame, std::chrono::microseconds time, std::vector<TrafficEvent>& events);
    void finish(std::vector<TrafficEvent>& events);

private:
    // Host side (replies) and device side (commands) together.
    NodeCounters counters() const;
    void advance_to(std::chrono::microseconds time, std::vector<TrafficEvent>& events);
    void report_changes(const NodeCounters& before, std::chrono::microseconds time, const CanFrame* frame,
                        const std::optional<MappedId>& id, std::vector<TrafficEvent>& events) const;

    Node replies_;    // host role: reassembles what devices send
    Node commands_;   // device role: reassembles what the host sends
    std::chrono::microseconds last_time_{0};
};

TrafficMonitor::Impl::Impl() : replies_(Role::host, monitor_options()), commands_(Role::device, monitor_options()) {}

NodeCounters TrafficMonitor::Impl::counters() const {
    NodeCounters total = replies_.counters();
    const NodeCounters other = commands_.counters();
    total.isotp += other.isotp;
    total.frames_in += other.frames_in;
    total.foreign_frames += other.foreign_frames;
    return total;
}

void TrafficMonitor::Impl::on_frame(const CanFrame& frame, std::chrono::microseconds time,
                              std::vector<TrafficEvent>& events) {
    advance_to(time, events);
    const std::optional<MappedId> id = frame.extended ? decode_id(frame.id) : std::nullopt;
    if (!id) {
        TrafficEvent foreign;
        foreign.type = TrafficEvent::Type::foreign_frame;
        foreign.time = time;
        foreign.frame = frame;
        events.push_back(std::move(foreign));
        return;
    }
    if (is_flow_control(frame)) return;  // the peers pacing each other

    Node& node = id->direction == Direction::to_host ? replies_ : commands_;
    const NodeCounters before = counters();
    std::vector<CanFrame> unsent_flow_control;
    std::vector<ReceivedMessage> messages;
    node.on_frame(frame, at(last_time_), unsent_flow_control, messages);
    report_changes(before, time, &frame, id, events);
    for (auto& received : messages) {
        TrafficEvent message;
        message.type = TrafficEvent::Type::message;
        message.time = time;
        message.address = received.address;
        message.direction = id->direction;
        message.kind = received.kind;
        message.bytes = std::move(received.bytes);
        events.push_back(std::move(message));
    }
}

void TrafficMonitor::Impl::finish(std::vector<TrafficEvent>& events) {
    const auto after_every_timeout = last_time_ + std::chrono::duration_cast<std::chrono::microseconds>(
                                                      monitor_options().n_cr + monitor_options().n_bs);
    advance_to(after_every_timeout, events);
}

// Lets the receivers' time-outs run up to `time`. A frame logged slightly out
// of order (two interfaces, two clocks) does not turn time back.
void TrafficMonitor::Impl::advance_to(std::chrono::microseconds time, std::vector<TrafficEvent>& events) {
    last_time_ = std::max(last_time_, time);
    const NodeCounters before = counters();
    std::vector<CanFrame> unsent;
    replies_.on_time(at(last_time_), unsent);
    commands_.on_time(at(last_time_), unsent);
    report_changes(before, last_time_, nullptr, std::nullopt, events);
}

void TrafficMonitor::Impl::report_changes(const NodeCounters& before, std::chrono::microseconds time,
                                    const CanFrame* frame, const std::optional<MappedId>& id,
                                    std::vector<TrafficEvent>& events) const {
    std::string problem = what_broke(before.isotp, counters().isotp);
    if (problem.empty()) return;
    TrafficEvent broken;
    broken.type = TrafficEvent::Type::broken_segmentation;
    broken.time = time;
    if (id) {
        broken.address = id->address;
        broken.direction = id->direction;
        broken.kind = id->kind;
    }
    if (frame) broken.frame = *frame;
    broken.problem = std::move(problem);
    events.push_back(std::move(broken));
}

std::vector<CanFrame> frames_of_message(const MappedId& id, const std::vector<uint8_t>& message,
                                        const IsoTpOptions& options) {
    const uint32_t data_id = encode_id(id);
    const uint32_t flow_control_id = encode_id(flow_control_partner(id));
    // A sender and a receiver of the library itself, so the frames are the
    // ones a transport of it sends, padding and flow control included.
    const IsoTpTime start{};
    IsoTpSender sender(options);
    IsoTpReceiver receiver(flow_control_id, options);
    std::vector<CanFrame> frames;
    if (!sender.queue(data_id, message, start, frames)) return {};
    std::vector<CanFrame> flow_control;
    if (!sender.idle()) {
        receiver.accept(frames.front(), start, flow_control);
        for (const CanFrame& frame : flow_control) {
            frames.push_back(frame);
            sender.on_flow_control(frame, start, frames);
        }
        for (auto now = start; !sender.idle();) {
            now += std::chrono::milliseconds(1);
            sender.on_time(now, frames);
        }
    }
    return frames;
}

TrafficMonitor::TrafficMonitor() : impl_(std::make_unique<Impl>()) {}
TrafficMonitor::~TrafficMonitor() = default;
TrafficMonitor::TrafficMonitor(TrafficMonitor&&) noexcept = default;
TrafficMonitor& TrafficMonitor::operator=(TrafficMonitor&&) noexcept = default;

void TrafficMonitor::on_frame(const CanFrame& frame, std::chrono::microseconds time,
                              std::vector<TrafficEvent>& events) {
    impl_->on_frame(frame, time, events);
}

void TrafficMonitor::finish(std::vector<TrafficEvent>& events) { impl_->finish(events); }

}  // namespace ocp_api::can
