#include "ocp_api/timing_histogram.hpp"

#include <algorithm>
#include <cmath>

namespace ocp_api {

namespace {

int highest_bit(uint64_t value) noexcept { return 63 - __builtin_clzll(value); }

}  // namespace

std::size_t TimingHistogram::bucket_of(uint64_t ns) noexcept {
    if (ns < EXACT_BUCKETS) return static_cast<std::size_t>(ns);
    const int top = highest_bit(ns);  // >= 5
    const uint64_t sub = (ns >> (top - 4)) & (SUB_BUCKETS - 1);
    return EXACT_BUCKETS + static_cast<std::size_t>(top - 5) * SUB_BUCKETS + static_cast<std::size_t>(sub);
}

uint64_t TimingHistogram::upper_edge(std::size_t bucket) noexcept {
    if (bucket < EXACT_BUCKETS) return bucket;
    const std::size_t group = (bucket - EXACT_BUCKETS) / SUB_BUCKETS;
    const uint64_t sub = (bucket - EXACT_BUCKETS) % SUB_BUCKETS;
    const int top = static_cast<int>(group) + 5;
    const uint64_t base = (uint64_t{1} << top) | (sub << (top - 4));
    return base + ((uint64_t{1} << (top - 4)) - 1);
}

void TimingHistogram::record(std::chrono::nanoseconds duration) noexcept {
    const uint64_t ns = duration.count() < 0 ? 0 : static_cast<uint64_t>(duration.count());
    ++buckets_[bucket_of(ns)];
    ++count_;
    max_ = std::max(max_, ns);
}

void TimingHistogram::reset() noexcept { *this = TimingHistogram{}; }

void TimingHistogram::merge(const TimingHistogram& other) noexcept {
    for (std::size_t i = 0; i < BUCKETS; ++i) buckets_[i] += other.buckets_[i];
    count_ += other.count_;
    max_ = std::max(max_, other.max_);
}

std::chrono::nanoseconds TimingHistogram::percentile(double q) const noexcept {
    if (count_ == 0) return std::chrono::nanoseconds(0);
    q = std::clamp(q, 0.0, 1.0);
    const auto rank = std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(q * static_cast<double>(count_))));
    uint64_t seen = 0;
    for (std::size_t i = 0; i < BUCKETS; ++i) {
        seen += buckets_[i];
        if (seen >= rank) return std::chrono::nanoseconds(static_cast<int64_t>(std::min(upper_edge(i), max_)));
    }
    return max();
}

TimingHistogram::Summary TimingHistogram::summary() const noexcept {
    const auto us = [](std::chrono::nanoseconds d) { return static_cast<double>(d.count()) / 1000.0; };
    return Summary{us(percentile(0.5)), us(percentile(0.99)), us(max()), count_};
}

}  // namespace ocp_api
