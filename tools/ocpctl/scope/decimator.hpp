// Min/max envelopes of streamed values in fixed time bins. The page gets a
// few hundred points a second per trace whatever the feedback rate, and a
// peak between two points still shows, as on an oscilloscope.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ocpctl::scope {

class Decimator {
public:
    // `channels` values per sample; `capacity` completed bins are kept for
    // readers that fall behind (older ones are overwritten). Everything is
    // allocated here: add() and append_json() allocate nothing while the
    // output string has room.
    Decimator(std::size_t channels, double bin_s, std::size_t capacity);

    // One sample of every channel at `time_s` (seconds on the scope's clock,
    // never going backwards); NaN values leave their channel's bin as it is.
    // Called on a transport's receive thread.
    void add(double time_s, const float* values);

    // Appends the bins completed by `now_s` with an index above `*cursor`
    // as {"k":[...],"v":[[min,max,...],...]} and moves the cursor past
    // them; appends nothing and returns false when there are none. A reader
    // more than `capacity` bins behind skips to the oldest kept bin.
    bool append_json(double now_s, int64_t* cursor, std::string& out);

    // The index of the bin that holds `time_s`.
    int64_t bin_index(double time_s) const;
    std::size_t channels() const { return channels_; }
    uint64_t samples() const;

private:
    void close_open_bin();
    float& slot(std::size_t ring, std::size_t channel, int bound) {
        return ring_values_[(ring * channels_ + channel) * 2 + static_cast<std::size_t>(bound)];
    }

    const std::size_t channels_;
    const double bin_s_;
    const std::size_t capacity_;

    mutable std::mutex mutex_;  // guards everything below
    std::vector<int64_t> ring_index_;   // bin index of each kept bin
    std::vector<float> ring_values_;    // min, max per channel per kept bin
    std::size_t kept_ = 0;              // bins in the ring
    std::size_t next_ = 0;              // ring position of the next completed bin
    int64_t open_index_ = -1;           // the bin being filled, -1 before the first sample
    std::vector<float> open_values_;    // its min, max per channel
    uint64_t samples_ = 0;
};

// A number for JSON: up to 7 significant digits, null for NaN or infinity.
void append_number(std::string& out, double value);

}  // namespace ocpctl::scope
