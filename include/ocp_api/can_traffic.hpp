// Watching a CAN bus from the side: frames seen on the bus (live or from a
// log) go in, whole messages of both directions come out, reassembled with the
// library's own ISO-TP receivers, together with the frames that are not ours
// and the places where the segmentation broke. The monitor sends nothing: the
// flow control its receivers would answer is dropped, and the flow control the
// real peers exchange is read and passed over.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_mapping.hpp"
#include "ocp_api/can_node.hpp"

namespace ocp_api::can {

struct TrafficEvent {
    enum class Type : uint8_t {
        message,              // a whole command or reply
        foreign_frame,        // a frame whose identifier is not one of ours
        broken_segmentation,  // a frame, or a time-out, that broke a message's segmentation
    };

    Type type = Type::message;
    std::chrono::microseconds time{0};  // as given with the frame that completed or revealed it
    int address = 0;                     // message, broken_segmentation
    Direction direction = Direction::to_device;
    int kind = 0;                        // replies: 0 streamed, 1 answer to GET_ITEMS
    std::vector<uint8_t> bytes;          // message: the whole message
    std::optional<CanFrame> frame;       // the frame at fault (none for a time-out)
    std::string problem;                 // what broke, for broken_segmentation
};

class TrafficMonitor {
public:
    TrafficMonitor();

    // Hands over one frame seen at `time` (times must not go backwards by more
    // than the ISO-TP time-outs); appends what it completes or reveals.
    void on_frame(const CanFrame& frame, std::chrono::microseconds time, std::vector<TrafficEvent>& events);
    // The input has ended: messages still half-received are reported broken.
    void finish(std::vector<TrafficEvent>& events);

    // Host side (replies) and device side (commands) together.
    NodeCounters counters() const;

private:
    void advance_to(std::chrono::microseconds time, std::vector<TrafficEvent>& events);
    void report_changes(const NodeCounters& before, std::chrono::microseconds time, const CanFrame* frame,
                        const std::optional<MappedId>& id, std::vector<TrafficEvent>& events) const;

    Node replies_;    // host role: reassembles what devices send
    Node commands_;   // device role: reassembles what the host sends
    std::chrono::microseconds last_time_{0};
};

}  // namespace ocp_api::can
