#include "emulation/adapter.hpp"

#include "ocp_api/codec.hpp"
#include "ocp_api/identifiers.hpp"
#include "ocp_api/version.hpp"

namespace ocp_api::detail {

std::vector<uint8_t> ping_reply(uint16_t model_code, uint16_t firmware_word) {
    return codec::PingReply{model_code, firmware_word}.encode();
}

std::optional<std::vector<uint8_t>> adapter_answer(const wire::Frame& command) {
    if (command.empty() || command[0] != static_cast<uint8_t>(codec::Ping::CODE)) return std::nullopt;
    return ping_reply(MODEL_CODE_CAN_ADAPTER, wire::firmware_word(VERSION_MAJOR, VERSION_MINOR, VERSION_PATCH));
}

}  // namespace ocp_api::detail
