// Any bytes into the typed codec, as a command frame and as a reply buffer:
// whatever decodes without a problem encodes back to exactly the same bytes,
// every record the reply walk reads encodes back to the bytes it was read
// from, and the traffic decoder agrees with the codec on which commands are
// well formed.
//
// Input: the bytes themselves.
#include <cstdint>
#include <vector>

#include "ocp_api/codec.hpp"
#include "ocp_api/message_decoder.hpp"
#include "support/fuzz_input.hpp"

namespace {

using namespace ocp_api::codec;
using ocp_fuzz::require;
using Bytes = std::vector<uint8_t>;

// Decodes as `Message`; true when it read the frame without a problem, in
// which case encoding gives the frame back.
template <class Message>
bool round_trip(const Bytes& frame) {
    const auto decoded = Message::decode(frame);
    require(decoded.ok() || !decoded.problem.empty(), "a bad frame without a reason");
    if (!decoded.ok()) return false;
    require(decoded.complete(), "a frame without a problem but values missing");
    require(decoded.value.encode() == frame, "a command does not encode back to its bytes");
    return true;
}

bool command_round_trip(const Bytes& frame) {
    switch (static_cast<Command>(frame[0])) {
        case Command::START: return round_trip<Start>(frame);
        case Command::STOP: return round_trip<Stop>(frame);
        case Command::SET_MODE: return round_trip<SetMode>(frame);
        case Command::SET_SETPOINT: return round_trip<SetSetpoint>(frame);
        case Command::SET_FEEDBACK_RATE: return round_trip<SetFeedbackRate>(frame);
        case Command::SET_FEEDBACK_ITEMS: return round_trip<SetFeedbackItems>(frame);
        case Command::SET_HOME_POSITION: return round_trip<SetHomePosition>(frame);
        case Command::SET_PARAMETERS: return round_trip<SetParameters>(frame);
        case Command::GET_PARAMETERS: return round_trip<GetParameters>(frame);
        case Command::SET_TORQUE_PERFORMANCE: return round_trip<SetTorquePerformance>(frame);
        case Command::SET_SPEED_PERFORMANCE: return round_trip<SetSpeedPerformance>(frame);
        case Command::GET_ITEMS: return round_trip<GetItems>(frame);
        case Command::SET_SETPOINT_EXT: return round_trip<SetSetpointExt>(frame);
        case Command::SET_TORQUE_SETPOINT: return round_trip<SetTorqueSetpoint>(frame);
        case Command::SET_SPEED_SETPOINT: return round_trip<SetSpeedSetpoint>(frame);
        case Command::SET_POSITION_SETPOINT: return round_trip<SetPositionSetpoint>(frame);
        case Command::SET_IMPEDANCE_SETPOINT: return round_trip<SetImpedanceSetpoint>(frame);
        case Command::SET_SPEED_SETPOINT_INTERNAL: return round_trip<SetSpeedSetpointInternal>(frame);
        case Command::SET_POSITION_SETPOINT_INTERNAL: return round_trip<SetPositionSetpointInternal>(frame);
        case Command::SAVE_CONFIG: return round_trip<SaveConfig>(frame);
        case Command::PING: return round_trip<Ping>(frame);
        case Command::BLINK: return round_trip<Blink>(frame);
        case Command::ENTER_BOOTLOADER: return round_trip<EnterBootloader>(frame);
        case Command::CLEAR_CONFIG: return round_trip<ClearConfig>(frame);
    }
    require(find_command(frame[0]) == nullptr, "a listed command the harness does not know");
    return false;
}

bool same_bytes(const Bytes& encoded, const Bytes& buffer, std::size_t offset) {
    return offset + encoded.size() <= buffer.size() &&
           Bytes(buffer.begin() + static_cast<std::ptrdiff_t>(offset),
                 buffer.begin() + static_cast<std::ptrdiff_t>(offset + encoded.size())) == encoded;
}

void walk_reply(const Bytes& buffer) {
    ReplyReader reader(buffer);
    for (;;) {
        const std::size_t before = reader.position();
        const Record record = reader.next();
        require(reader.position() >= before && reader.position() <= buffer.size(), "the walk left the buffer");
        Bytes encoded;
        switch (record.kind) {
            case Record::Kind::ITEM:
                record.item.encode_into(encoded);
                require(same_bytes(encoded, buffer, record.offset), "an item record does not encode back");
                continue;
            case Record::Kind::PING_REPLY:
                require(same_bytes(record.ping.encode(), buffer, record.offset), "a ping reply does not encode back");
                break;
            case Record::Kind::ERROR_FLAGS:
                require(same_bytes(record.errors.encode(), buffer, record.offset), "error flags do not encode back");
                break;
            case Record::Kind::PARAMETERS: {
                ParameterEntryReader entries(buffer, record.offset + 1);
                ParametersRecord parameters;
                ParameterEntry entry;
                while (entries.next(entry)) parameters.entries.push_back(entry);
                require(entries.position() <= buffer.size(), "the entries left the buffer");
                require(same_bytes(parameters.encode(), buffer, record.offset), "parameters do not encode back");
                break;
            }
            default: break;
        }
        break;
    }
    require(reader.next().kind == Record::Kind::END, "the walk went on after its end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const Bytes bytes(data, data + size);
    if (!bytes.empty()) {
        const bool well_formed = command_round_trip(bytes);
        const ocp_api::DecodedMessage message = ocp_api::decode_command(bytes);
        require(message.well_formed() == well_formed, "the decoder and the codec disagree about a command");
        require(!message.text().empty() && message.json().front() == '{', "a command without text");
    }
    walk_reply(bytes);
    const ocp_api::DecodedMessage reply = ocp_api::decode_reply(bytes, 0);
    require(!reply.text().empty() && reply.json().back() == '}', "a reply without text");
    return 0;
}
