// Reply buffers as a device would send them, built with the wire helpers.
#pragma once

#include "ocp_api/wire.hpp"
#include "support/recording_transport.hpp"

namespace ocp_test {

inline Bytes ping_reply(uint16_t model_code, uint16_t firmware_word) {
    Bytes reply{static_cast<uint8_t>(ocp_api::wire::RecordCode::PING_REPLY)};
    ocp_api::wire::append_u16(reply, model_code);
    ocp_api::wire::append_u16(reply, firmware_word);
    return reply;
}

inline Bytes error_reply(uint32_t error_word) {
    Bytes reply{static_cast<uint8_t>(ocp_api::wire::RecordCode::ERROR_FLAGS)};
    ocp_api::wire::append_u32(reply, error_word);
    return reply;
}

inline bool is_command(const Bytes& frame, ocp_api::wire::Command command) {
    return !frame.empty() && frame[0] == static_cast<uint8_t>(command);
}

}  // namespace ocp_test
