// A histogram of durations with fixed buckets: recording costs a few
// instructions and never allocates, so a control period can record into it;
// percentiles are read from the buckets with a relative error below 1/16.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace ocp_api {

class TimingHistogram {
public:
    // Durations up to 31 ns get a bucket each; above, each power of two is cut
    // into 16 buckets. Negative durations are recorded as 0.
    static constexpr std::size_t EXACT_BUCKETS = 32;
    static constexpr std::size_t SUB_BUCKETS = 16;
    static constexpr std::size_t BUCKETS = EXACT_BUCKETS + (64 - 5) * SUB_BUCKETS;

    void record(std::chrono::nanoseconds duration) noexcept;
    void reset() noexcept;
    void merge(const TimingHistogram& other) noexcept;

    uint64_t count() const noexcept { return count_; }
    // 0 when nothing was recorded.
    std::chrono::nanoseconds max() const noexcept { return std::chrono::nanoseconds(max_); }
    // The upper edge of the bucket holding the q-th quantile (0 < q <= 1),
    // never above max(); 0 when nothing was recorded.
    std::chrono::nanoseconds percentile(double q) const noexcept;

    // In microseconds, for reports: p50, p99 and max.
    struct Summary {
        double p50_us = 0.0;
        double p99_us = 0.0;
        double max_us = 0.0;
        uint64_t count = 0;
    };
    Summary summary() const noexcept;

private:
    static std::size_t bucket_of(uint64_t ns) noexcept;
    static uint64_t upper_edge(std::size_t bucket) noexcept;

    std::array<uint64_t, BUCKETS> buckets_{};
    uint64_t count_ = 0;
    uint64_t max_ = 0;
};

}  // namespace ocp_api
