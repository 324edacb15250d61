// Commands of every queueing class into the host side of the CAN mapping,
// with hostile flow control, floods of first frames and time in between; and
// the same frames into a device side. Checks that a STOP is always the next
// frame out, that queues and reception slots stay within their bounds, that
// everything sent is a well-formed frame of the mapping, and that no deadline
// is left in the past.
//
// Input: operations until the input ends: 0 queue a command (address choice,
// class, length), 1 flow control from a device (address choice, status, block
// size, STmin), 2 a first frame from a device (address choice, announced
// length), 3 an arbitrary frame on a reply or command identifier, 4 advance
// the clock (16-bit count of 100 us).
#include <cstdint>
#include <numeric>

#include "ocp_api/can_mapping.hpp"
#include "can/can_node.hpp"
#include "support/fuzz_input.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_api::can;
using ocp_fuzz::require;

constexpr int ADDRESSES = 6;  // 0x21.. : few, so queues and slots fill up
constexpr int MAX_ROUNDS = 20000;

IsoTpOptions small_options(bool fd) {
    IsoTpOptions options;
    options.fd = fd;
    options.queue_limit = 4;
    options.max_open_receptions = 3;
    options.max_wait_frames = 3;
    return options;
}

int address_of(ocp_fuzz::FuzzInput& input) { return 0x21 + input.byte() % ADDRESSES; }

CanFrame frame_on(uint32_t id, const std::vector<uint8_t>& bytes, bool fd) {
    CanFrame frame;
    frame.id = id;
    frame.fd = fd || bytes.size() > 8;
    frame.len = static_cast<uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    return frame;
}

void check_host_frames(const std::vector<CanFrame>& frames, std::size_t from) {
    for (std::size_t i = from; i < frames.size(); ++i) {
        const CanFrame& frame = frames[i];
        const auto id = decode_id(frame.id);
        require(frame.extended && id.has_value(), "the host sends only identifiers of the mapping");
        require(id->direction == Direction::to_device, "the host sends towards devices");
        require(is_valid_frame_length(frame.len, frame.fd) && frame.len >= 8, "frames are padded to a valid length");
    }
}

bool is_stop_for(const CanFrame& frame, int address) {
    return frame.id == host_to_device_id(address) && frame.data[0] == 0x01 && frame.data[1] == 0x02;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    ocp_fuzz::FuzzInput input(data, size);
    const bool fd = (input.byte() & 1) != 0;
    const IsoTpOptions options = small_options(fd);
    Node host(Role::host, options);
    Node device(Role::device, options, [](int address) { return address >= 0x21 && address < 0x21 + ADDRESSES; });
    IsoTpTime now = IsoTpClock::time_point{} + std::chrono::hours(1);
    std::vector<CanFrame> out;
    std::vector<ReceivedMessage> messages;
    for (int round = 0; round < MAX_ROUNDS && !input.empty(); ++round) {
        const std::size_t before = out.size();
        switch (input.byte() % 5) {
            case 0: {  // a command of some class
                const int address = address_of(input);
                const auto message_class = static_cast<MessageClass>(input.byte() % 4);
                std::vector<uint8_t> message(1 + input.byte() % 100);
                std::iota(message.begin(), message.end(), uint8_t{1});
                if (message_class == MessageClass::safety) message = {0x02};
                const bool queued = host.queue(address, 0, message.data(), message.size(), message_class, now, out);
                if (message_class == MessageClass::safety) {
                    require(queued, "a STOP is never refused");
                    require(out.size() > before && is_stop_for(out[before], address), "a STOP is the next frame out");
                }
                break;
            }
            case 1: {  // flow control, of any status, from a device
                const int address = address_of(input);
                const uint8_t status = input.byte();
                const std::vector<uint8_t> fc{static_cast<uint8_t>(0x30 | (status & 0x0F)), input.byte(), input.byte()};
                host.on_frame(frame_on(device_to_host_id(address, 0), fc, fd), now, out, messages);
                break;
            }
            case 2: {  // a first frame, often never finished
                const int address = 0x10 + input.u16() % 0x3FEF;  // any address: a flood
                const uint16_t length = input.u16() & 0x0FFF;
                const std::vector<uint8_t> ff{static_cast<uint8_t>(0x10 | (length >> 8)), static_cast<uint8_t>(length), 1,
                                              2, 3, 4, 5, 6};
                host.on_frame(frame_on(device_to_host_id(address, input.byte() & 1), ff, fd), now, out, messages);
                break;
            }
            case 3: {  // anything on a reply or command identifier
                const int address = address_of(input);
                const bool to_host = (input.byte() & 1) != 0;
                std::vector<uint8_t> bytes = input.bytes(1 + input.byte() % 8);
                const CanFrame frame =
                    frame_on(to_host ? device_to_host_id(address, 0) : host_to_device_id(address), bytes, fd);
                std::vector<CanFrame> from_device;
                host.on_frame(frame, now, out, messages);
                device.on_frame(frame, now, from_device, messages);
                for (const CanFrame& sent : from_device)
                    require(decode_id(sent.id).has_value() && decode_id(sent.id)->direction == Direction::to_host,
                            "a device sends only towards the host");
                break;
            }
            default: {
                now += std::chrono::microseconds(100) * input.u16();
                host.on_time(now, out);
                device.on_time(now, out);
                break;
            }
        }
        check_host_frames(out, before);
        require(host.open_receptions() <= options.max_open_receptions, "half-open receptions stay within their slots");
        require(host.open_senders() <= ADDRESSES, "a sender per address at most");
        host.on_time(now, out);
        if (const auto deadline = host.deadline()) require(*deadline > now, "no deadline is left in the past");
        if (out.size() > 4096) out.clear();
        messages.clear();
    }
    return 0;
}
