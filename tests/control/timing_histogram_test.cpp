#include "ocp_api/timing_histogram.hpp"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using ocp_api::TimingHistogram;

TEST(TimingHistogram, EmptyReadsZero) {
    const TimingHistogram histogram;
    EXPECT_EQ(histogram.count(), 0u);
    EXPECT_EQ(histogram.percentile(0.5), 0ns);
    EXPECT_EQ(histogram.max(), 0ns);
}

TEST(TimingHistogram, SmallDurationsAreExact) {
    TimingHistogram histogram;
    for (int ns = 1; ns <= 10; ++ns) histogram.record(std::chrono::nanoseconds(ns));
    EXPECT_EQ(histogram.percentile(0.5), 5ns);
    EXPECT_EQ(histogram.percentile(0.99), 10ns);
    EXPECT_EQ(histogram.max(), 10ns);
    EXPECT_EQ(histogram.count(), 10u);
}

TEST(TimingHistogram, LargerDurationsLandInBucketsOneSixteenthWide) {
    TimingHistogram histogram;
    for (int i = 0; i < 98; ++i) histogram.record(100us);
    histogram.record(1ms);
    histogram.record(5ms);
    // 100 us = 100000 ns lies in [98304, 102400): the bucket's upper edge is read.
    EXPECT_EQ(histogram.percentile(0.5), 102399ns);
    EXPECT_EQ(histogram.percentile(0.98), 102399ns);
    EXPECT_EQ(histogram.percentile(0.99), 1015807ns);  // 1 ms lies in [983040, 1015808)
    EXPECT_EQ(histogram.percentile(1.0), 5ms);         // never above the maximum
    const auto summary = histogram.summary();
    EXPECT_DOUBLE_EQ(summary.p50_us, 102.399);
    EXPECT_DOUBLE_EQ(summary.max_us, 5000.0);
    EXPECT_EQ(summary.count, 100u);
}

TEST(TimingHistogram, NegativeDurationsCountAsZeroAndResetEmpties) {
    TimingHistogram histogram;
    histogram.record(-5ns);
    EXPECT_EQ(histogram.max(), 0ns);
    EXPECT_EQ(histogram.count(), 1u);
    histogram.reset();
    EXPECT_EQ(histogram.count(), 0u);
}

TEST(TimingHistogram, MergeAddsCountsAndKeepsTheLargerMaximum) {
    TimingHistogram a;
    TimingHistogram b;
    a.record(3ns);
    b.record(7ns);
    b.record(9ns);
    a.merge(b);
    EXPECT_EQ(a.count(), 3u);
    EXPECT_EQ(a.max(), 9ns);
    EXPECT_EQ(a.percentile(0.5), 7ns);
}

}  // namespace
