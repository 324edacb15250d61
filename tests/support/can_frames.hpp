// Building and reading raw CAN frames in tests.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

#include "ocp_api/can_link.hpp"

namespace ocp_test {

// The data bytes a frame carries.
inline std::vector<uint8_t> bytes_of(const ocp_api::CanFrame& frame) {
    return std::vector<uint8_t>(frame.data.begin(), frame.data.begin() + frame.len);
}

// An extended-identifier frame carrying `bytes`, its length their count.
inline ocp_api::CanFrame frame_of(uint32_t id, const std::vector<uint8_t>& bytes, bool fd = false) {
    ocp_api::CanFrame frame;
    frame.id = id;
    frame.fd = fd;
    frame.len = static_cast<uint8_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    return frame;
}

// 0, 1, 2, ... `size` bytes: a message whose every byte says where it belongs.
inline std::vector<uint8_t> counting(std::size_t size) {
    std::vector<uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

}  // namespace ocp_test
