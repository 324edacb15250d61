// What a well-formed reply buffer looks like: a sequence of whole 5-byte
// records, each with a code the host knows. Shared by the harnesses that see
// replies produced by emulated devices.
#pragma once

#include <cstdint>
#include <vector>

#include "ocp_api/identifiers.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_fuzz {

inline bool is_parameter_code(uint8_t code) { return !ocp_api::parameter_code_name(code).empty(); }

// A device reply: one ping, error or parameters answer, or any number of item
// records (none for a GET_ITEMS that named no known item).
inline bool is_whole_device_reply(const std::vector<uint8_t>& bytes) {
    using ocp_api::wire::RecordCode;
    using ocp_api::wire::RECORD_SIZE;
    if (bytes.empty()) return true;
    const uint8_t first = bytes[0];
    if (first == static_cast<uint8_t>(RecordCode::PING_REPLY) || first == static_cast<uint8_t>(RecordCode::ERROR_FLAGS))
        return bytes.size() == RECORD_SIZE;
    if (first == static_cast<uint8_t>(RecordCode::PARAMETERS)) {
        if ((bytes.size() - 1) % RECORD_SIZE != 0) return false;
        for (std::size_t p = 1; p < bytes.size(); p += RECORD_SIZE)
            if (!is_parameter_code(bytes[p])) return false;
        return true;
    }
    if (bytes.size() % RECORD_SIZE != 0) return false;
    for (std::size_t p = 0; p < bytes.size(); p += RECORD_SIZE)
        if (!ocp_api::wire::is_item_code(bytes[p])) return false;
    return true;
}

}  // namespace ocp_fuzz
