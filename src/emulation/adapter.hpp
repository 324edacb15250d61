// The CAN adapter at address 0, as every transport presents it: it answers
// pings with its model code and the library's version, and nothing else.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "ocp_api/wire.hpp"

namespace ocp_api::detail {

// A PING_REPLY record, as any device (or the adapter) sends it.
std::vector<uint8_t> ping_reply(uint16_t model_code, uint16_t firmware_word);

// The adapter's reply to `command` (a streamed reply), or nothing.
std::optional<std::vector<uint8_t>> adapter_answer(const wire::Frame& command);

}  // namespace ocp_api::detail
