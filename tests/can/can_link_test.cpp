#include "ocp_api/can_link.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace ocp_api;

TEST(CanLink, FrameLengthsValidOnClassicCanAndOnCanFd) {
    const std::set<std::size_t> longer_fd_lengths{12, 16, 20, 24, 32, 48, 64};
    for (std::size_t len = 0; len <= 70; ++len) {
        EXPECT_EQ(is_valid_frame_length(len, false), len <= 8) << len;
        EXPECT_EQ(is_valid_frame_length(len, true), len <= 8 || longer_fd_lengths.count(len) == 1) << len;
    }
}

TEST(CanLink, FdFrameLengthIsTheSmallestThatHoldsTheBytes) {
    EXPECT_EQ(fd_frame_length(0), 8);
    EXPECT_EQ(fd_frame_length(8), 8);
    EXPECT_EQ(fd_frame_length(9), 12);
    EXPECT_EQ(fd_frame_length(12), 12);
    EXPECT_EQ(fd_frame_length(13), 16);
    EXPECT_EQ(fd_frame_length(17), 20);
    EXPECT_EQ(fd_frame_length(21), 24);
    EXPECT_EQ(fd_frame_length(25), 32);
    EXPECT_EQ(fd_frame_length(33), 48);
    EXPECT_EQ(fd_frame_length(49), 64);
    EXPECT_EQ(fd_frame_length(64), 64);
    EXPECT_EQ(fd_frame_length(65), 64);  // nothing longer exists
}

}  // namespace
