// Frames, time and fault injection into one emulated device, checking that it
// keeps a valid address, that its replies are whole records from where it is,
// and that a device that must not answer stays quiet.
//
// Input: a sequence of operations, each an operation byte and its arguments:
// a frame (length byte, then the bytes), advancing the simulated clock (16-bit
// step count), injecting an error word, a power cycle, silencing the device,
// or switching its firmware limits on or off.
#include <cstdint>

#include "emulation/emulated_device.hpp"
#include "ocp_api/wire.hpp"
#include "support/fuzz_input.hpp"
#include "support/records.hpp"

namespace {

using ocp_api::detail::EmulatedDevice;
using ocp_fuzz::require;
namespace wire = ocp_api::wire;

constexpr int ADDRESS = 0x21;
constexpr uint16_t MODEL_CODE = 3;
constexpr uint16_t FIRMWARE_WORD = 0x0842;
constexpr std::size_t MAX_FRAME_BYTES = 64;
// Bounds the physics stepped per input so each input runs in milliseconds.
constexpr int64_t MAX_STEPS_PER_INPUT = 200000;

enum class Operation { FRAME, ADVANCE, INJECT_ERRORS, POWER_CYCLE, SILENCE, LIMITS };

Operation operation_of(uint8_t byte) {
    switch (byte % 8) {
        case 3: return Operation::LIMITS;
        case 4: return Operation::ADVANCE;
        case 5: return Operation::INJECT_ERRORS;
        case 6: return Operation::POWER_CYCLE;
        case 7: return Operation::SILENCE;
        default: return Operation::FRAME;  // frames are what the fuzzer should explore most
    }
}

void check_replies(const EmulatedDevice::Replies& replies, int64_t from_step, int64_t to_step) {
    for (const auto& reply : replies) {
        require(wire::is_valid_device_address(reply.address), "a reply comes from a valid device address");
        require(reply.step >= from_step && reply.step <= to_step, "a reply belongs to the steps just taken");
        require(reply.kind == wire::REPLY_STREAMED || reply.kind == wire::REPLY_REQUESTED,
                "a reply has one of the two kinds");
        // (An item reply may hold no record: streaming with no items chosen, or
        // a GET_ITEMS that named none the device knows.)
        require(ocp_fuzz::is_whole_device_reply(reply.bytes), "every reply is made of whole records");
    }
}

// A device enforcing its limits reports a newly reached limit condition with a
// streamed error record, after the answer to the frame if the frame asked.
bool is_limit_report(const ocp_api::detail::DeviceReply& reply) {
    return reply.kind == wire::REPLY_STREAMED && reply.bytes.size() == wire::RECORD_SIZE &&
           reply.bytes[0] == static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS);
}

void check_frame_replies(const EmulatedDevice& device, const wire::Frame& frame, bool was_answering,
                         EmulatedDevice::Replies replies) {
    if (!was_answering || frame.empty()) {
        require(replies.empty(), "a device that is not answering sends nothing");
        return;
    }
    if (!replies.empty() && is_limit_report(replies.back())) {
        require(device.enforces_limits(), "only a device enforcing its limits reports them unasked");
        require(wire::read_u32(&replies.back().bytes[1]) == device.error_word(),
                "a limit report carries the device's error word");
        replies.pop_back();
    }
    const auto command = static_cast<wire::Command>(frame[0]);
    const bool asks = command == wire::Command::PING || command == wire::Command::GET_ITEMS ||
                      command == wire::Command::GET_PARAMETERS;
    require(replies.size() == (asks ? 1u : 0u), "a device answers exactly the frames that ask");
    if (command == wire::Command::PING) {
        const auto& bytes = replies.front().bytes;
        require(bytes[0] == static_cast<uint8_t>(wire::RecordCode::PING_REPLY), "a ping gets a ping reply");
        require(wire::read_u16(&bytes[wire::PING_MODEL_OFFSET]) == device.model_code() &&
                    wire::read_u16(&bytes[wire::PING_FIRMWARE_OFFSET]) == device.firmware_word(),
                "a ping reply carries the device's model and firmware");
    }
    if (command == wire::Command::GET_ITEMS)
        require(replies.front().kind == wire::REPLY_REQUESTED, "an item request gets a requested reply");
    if (command == wire::Command::GET_PARAMETERS)
        require(replies.front().bytes[0] == static_cast<uint8_t>(wire::RecordCode::PARAMETERS),
                "a parameter request gets a parameters record");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    ocp_fuzz::FuzzInput input(data, size);
    EmulatedDevice device(ADDRESS, MODEL_CODE, FIRMWARE_WORD, 0);
    int64_t now = 0;
    int64_t stepped = 0;
    while (!input.empty()) {
        EmulatedDevice::Replies replies;
        switch (operation_of(input.byte())) {
            case Operation::FRAME: {
                const wire::Frame frame = input.bytes(input.byte() % (MAX_FRAME_BYTES + 1));
                const bool answering = device.answering(now);
                device.handle_frame(frame, now, replies);
                check_replies(replies, now, now);
                check_frame_replies(device, frame, answering, replies);
                break;
            }
            case Operation::ADVANCE: {
                const int64_t steps = input.u16();
                if (stepped + steps > MAX_STEPS_PER_INPUT) return 0;
                device.advance_to(now + steps, replies);
                check_replies(replies, now + 1, now + steps);
                now += steps;
                stepped += steps;
                break;
            }
            case Operation::INJECT_ERRORS: {
                const bool answering = device.answering(now);
                device.inject_errors(input.u32(), now, replies);
                check_replies(replies, now, now);
                require(replies.size() == (answering ? 1u : 0u), "an injected error word is reported once");
                break;
            }
            case Operation::POWER_CYCLE: device.power_cycle(); break;
            case Operation::SILENCE: device.set_silent(input.byte() & 1); break;
            case Operation::LIMITS: device.set_enforce_limits(input.byte() & 1); break;
        }
        require(wire::is_valid_device_address(device.address()), "the device's address stays valid");
        require(device.next_stream_step() == EmulatedDevice::NEVER || device.next_stream_step() > now,
                "the next streamed tick lies in the future");
        require(device.model_code() == MODEL_CODE && device.firmware_word() == FIRMWARE_WORD,
                "a device's model and firmware never change");
    }
    return 0;
}
