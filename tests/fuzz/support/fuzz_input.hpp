// Reading a fuzzer's input as a sequence of small decisions, and stopping the
// run with a message when an invariant is broken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace ocp_fuzz {

// Consumes the input front to back; past the end every read yields zero, so a
// harness never reads outside the buffer and short inputs stay meaningful.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return position_ >= size_; }
    std::size_t remaining() const { return empty() ? 0 : size_ - position_; }

    uint8_t byte() { return empty() ? 0 : data_[position_++]; }
    uint16_t u16() {
        const uint16_t low = byte();
        return static_cast<uint16_t>(low | (byte() << 8));
    }
    uint32_t u32() {
        const uint32_t low = u16();
        return low | (static_cast<uint32_t>(u16()) << 16);
    }
    // Up to `count` bytes, fewer when the input runs out.
    std::vector<uint8_t> bytes(std::size_t count) {
        const std::size_t taken = count < remaining() ? count : remaining();
        std::vector<uint8_t> out(data_ + position_, data_ + position_ + taken);
        position_ += taken;
        return out;
    }
    std::vector<uint8_t> rest() { return bytes(remaining()); }

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

// Aborts with `what` on standard error when `condition` is false: the fuzzer
// then saves the input as a finding, like any crash.
inline void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "Invariant broken: %s\n", what);
    std::abort();
}

}  // namespace ocp_fuzz
