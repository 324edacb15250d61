// Arbitrary frames and time into the host side of the CAN mapping, checking
// that whatever it reassembles is a whole message of ours, that what it sends
// back is well-formed flow control, that no deadline runs away, and that after
// any garbage a clean segmented reply still arrives whole.
//
// Input: a flags byte (bit 0: CAN-FD), a 16-bit length of the clean reply sent
// at the end, then operations: a frame (identifier choice, length, flags,
// bytes) or advancing the clock (16-bit count of 100 us).
#include <cstdint>
#include <numeric>

#include "ocp_api/can_mapping.hpp"
#include "can/can_node.hpp"
#include "support/fuzz_input.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_api::can;
using ocp_fuzz::require;

constexpr int ADDRESS = 0x21;
constexpr int MAX_ROUNDS = 10000;

uint32_t identifier_of(ocp_fuzz::FuzzInput& input) {
    switch (input.byte() % 4) {
        case 0: return device_to_host_id(ADDRESS, 0);
        case 1: return device_to_host_id(ADDRESS, 1);
        case 2: return host_to_device_id(ADDRESS);
        default: return input.u32();
    }
}

CanFrame frame_of(ocp_fuzz::FuzzInput& input) {
    CanFrame frame;
    frame.id = identifier_of(input) & 0x1FFFFFFF;
    frame.len = static_cast<uint8_t>(input.byte() % (CanFrame::MAX_DATA + 1));
    const uint8_t flags = input.byte();  // bit 0: CAN-FD, bit 1: an 11-bit identifier
    frame.fd = frame.len > 8 || (flags & 1) != 0;
    frame.extended = (flags & 2) == 0;
    const std::vector<uint8_t> bytes = input.bytes(frame.len);
    std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    return frame;
}

void check_sent(const std::vector<CanFrame>& frames, bool fd) {
    for (const CanFrame& frame : frames) {
        const auto id = decode_id(frame.id);
        require(frame.extended && id.has_value(), "the host sends only identifiers of the mapping");
        require(id->direction == Direction::to_device, "flow control goes towards a device");
        require(frame.len == 8 && frame.fd == fd, "flow control is one 8-byte frame of the link's kind");
        require(frame.data[0] == 0x30 || frame.data[0] == 0x32, "the host sends only continue or overflow");
    }
}

void check_received(const std::vector<ReceivedMessage>& messages) {
    for (const auto& message : messages) {
        require(message.address >= 0 && message.address <= MAX_ADDRESS, "a message comes from an address of the mapping");
        require(message.kind == 0 || message.kind == 1, "a message has one of the two kinds");
        require(!message.bytes.empty() && message.bytes.size() <= ISOTP_MAX_MESSAGE, "a message has 1..4095 bytes");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    ocp_fuzz::FuzzInput input(data, size);
    IsoTpOptions options;
    options.fd = (input.byte() & 1) != 0;
    const std::size_t clean_length = 1 + input.u16() % ISOTP_MAX_MESSAGE;

    Node host(Role::host, options);
    IsoTpTime now{};
    uint64_t frames_fed = 0;
    std::vector<CanFrame> out;
    std::vector<ReceivedMessage> messages;
    while (!input.empty()) {
        const uint8_t operation = input.byte();
        if (operation % 4 == 3) {
            now += std::chrono::microseconds(100) * input.u16();
            host.on_time(now, out);
        } else {
            host.on_frame(frame_of(input), now, out, messages);
            ++frames_fed;
        }
        check_sent(out, options.fd);
        check_received(messages);
        out.clear();
        messages.clear();
        if (const auto deadline = host.deadline())
            require(*deadline <= now + std::max(options.n_bs, options.n_cr), "no deadline runs away");
    }
    require(host.counters().frames_in == frames_fed, "every frame is counted");

    // A clean reply from the device now arrives whole, whatever came before.
    Node device(Role::device, options);
    std::vector<uint8_t> clean(clean_length);
    std::iota(clean.begin(), clean.end(), uint8_t{1});
    std::vector<CanFrame> to_host;
    require(device.queue(ADDRESS, 1, clean, now, to_host), "the device queues a valid reply");
    std::vector<ReceivedMessage> at_device;
    for (int round = 0; round < MAX_ROUNDS && !to_host.empty(); ++round) {
        std::vector<CanFrame> to_device;
        for (const CanFrame& frame : to_host) host.on_frame(frame, now, to_device, messages);
        to_host.clear();
        check_sent(to_device, options.fd);
        for (const CanFrame& frame : to_device) device.on_frame(frame, now, to_host, at_device);
    }
    require(messages.size() == 1 && messages[0].kind == 1 && messages[0].bytes == clean,
            "a clean reply arrives whole after any garbage");
    return 0;
}
