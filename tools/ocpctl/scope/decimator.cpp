#include "decimator.hpp"

#include <cmath>
#include <cstdio>
#include <limits>

namespace ocpctl::scope {

namespace {
constexpr float NOTHING = std::numeric_limits<float>::quiet_NaN();
}

void append_number(std::string& out, double value) {
    if (!std::isfinite(value)) {
        out += "null";
        return;
    }
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%.7g", value);
    out.append(text, static_cast<std::size_t>(length));
}

Decimator::Decimator(std::size_t channels, double bin_s, std::size_t capacity)
    : channels_(channels),
      bin_s_(bin_s),
      capacity_(capacity),
      ring_index_(capacity, 0),
      ring_values_(capacity * channels * 2, NOTHING),
      open_values_(channels * 2, NOTHING) {}

int64_t Decimator::bin_index(double time_s) const { return static_cast<int64_t>(std::floor(time_s / bin_s_)); }

uint64_t Decimator::samples() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return samples_;
}

void Decimator::close_open_bin() {
    if (open_index_ < 0) return;
    ring_index_[next_] = open_index_;
    for (std::size_t channel = 0; channel < channels_; ++channel) {
        slot(next_, channel, 0) = open_values_[channel * 2];
        slot(next_, channel, 1) = open_values_[channel * 2 + 1];
        open_values_[channel * 2] = NOTHING;
        open_values_[channel * 2 + 1] = NOTHING;
    }
    next_ = (next_ + 1) % capacity_;
    if (kept_ < capacity_) ++kept_;
    open_index_ = -1;
}

void Decimator::add(double time_s, const float* values) {
    const int64_t index = bin_index(time_s);
    std::lock_guard<std::mutex> lock(mutex_);
    ++samples_;
    if (index != open_index_) {
        close_open_bin();
        open_index_ = index;
    }
    for (std::size_t channel = 0; channel < channels_; ++channel) {
        const float value = values[channel];
        if (std::isnan(value)) continue;
        float& low = open_values_[channel * 2];
        float& high = open_values_[channel * 2 + 1];
        // NaN compares false, so the first value sets both bounds.
        if (!(value >= low)) low = value;
        if (!(value <= high)) high = value;
    }
}

bool Decimator::append_json(double now_s, int64_t* cursor, std::string& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A bin is complete once the clock has left it, also when no later
    // sample came to close it (the device fell silent).
    if (open_index_ >= 0 && bin_index(now_s) > open_index_) close_open_bin();
    const std::size_t oldest = (next_ + capacity_ - kept_) % capacity_;
    std::size_t first = kept_;  // ring offset (from the oldest) of the first bin to send
    for (std::size_t offset = 0; offset < kept_; ++offset) {
        if (ring_index_[(oldest + offset) % capacity_] > *cursor) {
            first = offset;
            break;
        }
    }
    if (first == kept_) return false;
    out += "{\"k\":[";
    for (std::size_t offset = first; offset < kept_; ++offset) {
        if (offset != first) out += ',';
        char text[24];
        const int length = std::snprintf(text, sizeof text, "%lld",
                                          static_cast<long long>(ring_index_[(oldest + offset) % capacity_]));
        out.append(text, static_cast<std::size_t>(length));
    }
    out += "],\"v\":[";
    for (std::size_t channel = 0; channel < channels_; ++channel) {
        if (channel != 0) out += ',';
        out += '[';
        for (std::size_t offset = first; offset < kept_; ++offset) {
            const std::size_t ring = (oldest + offset) % capacity_;
            if (offset != first) out += ',';
            append_number(out, slot(ring, channel, 0));
            out += ',';
            append_number(out, slot(ring, channel, 1));
        }
        out += ']';
    }
    out += "]}";
    *cursor = ring_index_[(oldest + kept_ - 1) % capacity_];
    return true;
}

}  // namespace ocpctl::scope
