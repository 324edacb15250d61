// Tooling (ocpctl dump and scope): not needed to drive actuators.
//
// Watching a CAN bus from the side: frames seen on the bus (live or from a
// log) go in, whole messages of both directions come out, reassembled with the
// library's own ISO-TP receivers, together with the frames that are not ours
// and the places where the segmentation broke. The monitor sends nothing: the
// flow control its receivers would answer is dropped, and the flow control the
// real peers exchange is read and passed over.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ocp_api/can_link.hpp"
#include "ocp_api/can_mapping.hpp"
#include "ocp_api/isotp_options.hpp"

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

// The other way round: the frames of one whole message as they appear on the
// bus when its receiver keeps up: a single frame, or the first frame, the
// receiver's flow control (continue, no block limit, no gap) and the
// consecutive frames. Empty for an empty message or one longer than 4095
// bytes. Throws std::invalid_argument for an invalid `id`.
std::vector<CanFrame> frames_of_message(const MappedId& id, const std::vector<uint8_t>& message,
                                        const IsoTpOptions& options = {});

class TrafficMonitor {
public:
    TrafficMonitor();
    ~TrafficMonitor();
    TrafficMonitor(TrafficMonitor&&) noexcept;
    TrafficMonitor& operator=(TrafficMonitor&&) noexcept;

    // Hands over one frame seen at `time` (times must not go backwards by more
    // than the ISO-TP time-outs); appends what it completes or reveals.
    void on_frame(const CanFrame& frame, std::chrono::microseconds time, std::vector<TrafficEvent>& events);
    // The input has ended: messages still half-received are reported broken.
    void finish(std::vector<TrafficEvent>& events);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ocp_api::can
