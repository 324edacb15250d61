// How long a CAN or CAN-FD frame occupies the bus: its exact length in bits,
// from the start-of-frame bit through the interframe space, and the time that
// takes at a nominal bit rate (and, for CAN-FD frames with the bit-rate
// switch, a data bit rate). The timed virtual channel and the capacity
// planner both use these, so what the planner predicts is what the channel
// simulates.
#pragma once

#include <chrono>
#include <cstdint>

#include "ocp_api/can_link.hpp"

namespace ocp_api {

struct CanBitRates {
    uint32_t nominal = 500000;  // bit/s of the arbitration phase (and all of a classic frame)
    uint32_t data = 0;          // bit/s of a CAN-FD data phase when the frame switches; 0: the nominal rate
};

// Throws std::invalid_argument for a nominal rate outside 10 kbit/s..1 Mbit/s
// or a data rate (when not 0) outside nominal..15 Mbit/s.
void validate(const CanBitRates& rates);

enum class StuffBits : uint8_t {
    actual,  // counted on the frame's own bits (CRC included on classic CAN)
    none,    // no dynamic stuff bits at all: the shortest the frame can be
    worst,   // the most stuff bits a frame of this format and length can have
};

// The bits of one frame, split by the bit rate they are sent at.
struct CanFrameBits {
    uint32_t nominal = 0;  // at the nominal bit rate
    uint32_t data = 0;     // at the data bit rate (CAN-FD frames with the bit-rate switch only)
    uint32_t stuff = 0;    // dynamic stuff bits included in the two above
    uint32_t total() const { return nominal + data; }
};

// Classic frames: start of frame, arbitration and control fields, data and
// CRC-15 are stuffed; the CRC delimiter, the acknowledgement slot and
// delimiter, 7 bits of end of frame and 3 of interframe space are not.
// CAN-FD frames: the same up to the data field; then the stuff count and the
// CRC-17 (up to 16 data bytes) or CRC-21 with their fixed stuff bits. With
// the bit-rate switch, the bits after the BRS bit up to the CRC delimiter are
// data-phase bits. Throws std::invalid_argument for a length no frame of its
// kind has (is_valid_frame_length).
CanFrameBits can_frame_bits(const CanFrame& frame, StuffBits stuffing = StuffBits::actual);

// The time `bits` take at `rates`.
std::chrono::nanoseconds can_bits_duration(const CanFrameBits& bits, const CanBitRates& rates);

// The time one frame occupies the bus.
inline std::chrono::nanoseconds can_frame_duration(const CanFrame& frame, const CanBitRates& rates,
                                                   StuffBits stuffing = StuffBits::actual) {
    return can_bits_duration(can_frame_bits(frame, stuffing), rates);
}

// The arbitration priority of a frame: lower wins. An 11-bit identifier beats
// an extended one with the same first 11 bits.
uint64_t can_arbitration_key(const CanFrame& frame);

}  // namespace ocp_api
