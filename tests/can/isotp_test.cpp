#include "can/isotp.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/can_frames.hpp"

namespace {

using ocp_test::counting;
using ocp_test::bytes_of;
using ocp_test::frame_of;
using namespace ocp_api;
using namespace ocp_api::can;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<CanFrame>;

constexpr uint32_t TX = 0x00D00021;  // host to 0x21
constexpr uint32_t FC = 0x00D04021;  // its flow control

const IsoTpTime T0 = IsoTpTime{} + 1000s;

IsoTpOptions fd_options(uint8_t data_length = 64) {
    IsoTpOptions options;
    options.fd = true;
    options.fd_data_length = data_length;
    return options;
}

// Sends `message` from a sender to a receiver, passing every frame across
// (flow control back), and returns what the receiver completed.
std::optional<Bytes> transfer(const Bytes& message, IsoTpOptions sender_options, IsoTpOptions receiver_options,
                              Frames* data_frames = nullptr) {
    IsoTpSender sender(sender_options);
    IsoTpReceiver receiver(FC, receiver_options);
    Frames to_receiver;
    Frames to_sender;
    std::optional<Bytes> received;
    if (!sender.queue(TX, message, T0, to_receiver)) return std::nullopt;
    IsoTpTime now = T0;
    while (!to_receiver.empty() || !to_sender.empty() || sender.deadline()) {
        for (const CanFrame& frame : std::exchange(to_receiver, {})) {
            if (data_frames) data_frames->push_back(frame);
            if (auto done = receiver.on_frame(frame, now, to_sender)) received = std::move(done);
        }
        for (const CanFrame& frame : std::exchange(to_sender, {})) sender.on_flow_control(frame, now, to_receiver);
        if (to_receiver.empty() && to_sender.empty()) {
            const auto deadline = sender.deadline();
            if (!deadline) break;
            now = std::max(now, *deadline);
            sender.on_time(now, to_receiver);
            if (to_receiver.empty()) break;  // waiting for a flow control that will not come
        }
    }
    return received;
}

TEST(IsoTp, SingleFramePaddedToEightBytes) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    ASSERT_TRUE(sender.queue(TX, {0x40}, T0, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].id, TX);
    EXPECT_TRUE(out[0].extended);
    EXPECT_FALSE(out[0].fd);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_TRUE(sender.idle());
    EXPECT_EQ(sender.counters().messages_out, 1u);
}

TEST(IsoTp, SevenBytesStillFitOneClassicFrame) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, {1, 2, 3, 4, 5, 6, 7}, T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x07, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(IsoTp, EightBytesSegmentOnClassicCan) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, {1, 2, 3, 4, 5, 6, 7, 8}, T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x10, 0x08, 1, 2, 3, 4, 5, 6}));
    EXPECT_FALSE(sender.idle());
    EXPECT_EQ(sender.deadline(), T0 + 1s);  // N_Bs
    out.clear();
    sender.on_flow_control(frame_of(FC, {0x30, 0x00, 0x00}), T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x21, 7, 8, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, ReceiverAnswersAFirstFrameWithFlowControl) {
    IsoTpOptions options;
    options.block_size = 4;
    options.st_min = 0xF3;
    IsoTpReceiver receiver(FC, options);
    Frames out;
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x10, 0x08, 1, 2, 3, 4, 5, 6}), T0, out));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].id, FC);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x30, 0x04, 0xF3, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    const auto message = receiver.on_frame(frame_of(TX, {0x21, 7, 8}), T0, out);  // unpadded last frame
    ASSERT_TRUE(message);
    EXPECT_EQ(*message, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(IsoTp, ReceiverAcceptsUnpaddedAndPaddedSingleFrames) {
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    Frames out;
    EXPECT_EQ(receiver.on_frame(frame_of(TX, {0x01, 0x40}), T0, out), (Bytes{0x40}));
    EXPECT_EQ(receiver.on_frame(frame_of(TX, {0x02, 0x40, 0x41, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}), T0, out),
              (Bytes{0x40, 0x41}));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(receiver.counters().messages_in, 2u);
}

TEST(IsoTp, CanFdShortSingleFrameKeepsTheNibbleLength) {
    IsoTpSender sender{fd_options()};
    Frames out;
    sender.queue(TX, {1, 2, 3, 4, 5}, T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(out[0].fd);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x05, 1, 2, 3, 4, 5, 0xCC, 0xCC}));
}

TEST(IsoTp, CanFdLongerSingleFrameUsesTheEscapeAndPadsToTheNextLength) {
    IsoTpSender sender{fd_options()};
    Frames out;
    sender.queue(TX, {1, 2, 3, 4, 5, 6, 7, 8}, T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x00, 0x08, 1, 2, 3, 4, 5, 6, 7, 8, 0xCC, 0xCC}));
    IsoTpReceiver receiver(FC, fd_options());
    EXPECT_EQ(receiver.on_frame(out[0], T0, out), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(IsoTp, CanFdBoundaryBetweenSingleAndSegmented) {
    Frames frames;
    EXPECT_EQ(transfer(counting(62), fd_options(), fd_options(), &frames), counting(62));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].len, 64);
    EXPECT_EQ(frames[0].data[0], 0x00);
    EXPECT_EQ(frames[0].data[1], 62);

    frames.clear();
    EXPECT_EQ(transfer(counting(63), fd_options(), fd_options(), &frames), counting(63));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].len, 64);
    EXPECT_EQ(frames[0].data[0], 0x10);
    EXPECT_EQ(frames[0].data[1], 63);
    EXPECT_EQ(frames[0].data[63], 61);
    EXPECT_EQ(bytes_of(frames[1]), (Bytes{0x21, 62, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
}

TEST(IsoTp, CanFdLastConsecutiveFramePadsToAValidLength) {
    Frames frames;
    // 62 bytes in the first frame, 63 in the next, 10 in the last: 11 bytes, padded to 12.
    EXPECT_EQ(transfer(counting(135), fd_options(), fd_options(), &frames), counting(135));
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[1].len, 64);
    EXPECT_EQ(frames[2].len, 12);
    EXPECT_EQ(frames[2].data[0], 0x22);
    EXPECT_EQ(frames[2].data[11], 0xCC);
}

TEST(IsoTp, EveryLengthArrivesWholeOnClassicAndFd) {
    for (std::size_t size = 1; size <= ISOTP_MAX_MESSAGE; ++size) {
        const Bytes message = counting(size);
        ASSERT_EQ(transfer(message, IsoTpOptions{}, IsoTpOptions{}), message) << size;
        ASSERT_EQ(transfer(message, fd_options(), fd_options()), message) << size;
    }
    for (const uint8_t length : {8, 12, 16, 20, 24, 32, 48}) {
        for (const std::size_t size : {1, 7, 8, 9, 10, 11, 62, 63, 100, 4095}) {
            ASSERT_EQ(transfer(counting(size), fd_options(length), fd_options()), counting(size))
                << int(length) << " " << size;
        }
    }
}

TEST(IsoTp, EmptyAndOverlongMessagesAreRefused) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    EXPECT_FALSE(sender.queue(TX, {}, T0, out));
    EXPECT_FALSE(sender.queue(TX, counting(4096), T0, out));
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, LongestMessageWrapsTheSequenceNumber) {
    Frames frames;
    EXPECT_EQ(transfer(counting(4095), IsoTpOptions{}, IsoTpOptions{}, &frames), counting(4095));
    // 6 bytes in the first frame, 4089 in 585 consecutive frames.
    ASSERT_EQ(frames.size(), 586u);
    EXPECT_EQ(bytes_of(frames[0]), (Bytes{0x1F, 0xFF, 0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(frames[15].data[0], 0x2F);
    EXPECT_EQ(frames[16].data[0], 0x20);
    EXPECT_EQ(frames[17].data[0], 0x21);
    EXPECT_EQ(frames[585].data[0], 0x20 | (585 & 0x0F));
    EXPECT_EQ(frames[585].len, 8);
}

TEST(IsoTp, SenderHonoursBlockSize) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(40), T0, out);  // 6 + 5 x 7 - 1
    out.clear();
    sender.on_flow_control(frame_of(FC, {0x30, 0x02, 0x00}), T0, out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].data[0], 0x21);
    EXPECT_EQ(out[1].data[0], 0x22);
    EXPECT_EQ(sender.deadline(), T0 + 1s);  // waiting for the next flow control
    out.clear();
    sender.on_time(T0 + 500ms, out);
    EXPECT_TRUE(out.empty());
    sender.on_flow_control(frame_of(FC, {0x30, 0x00, 0x00}), T0 + 600ms, out);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[2].data[0], 0x25);
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, ReceiverAsksForTheNextBlock) {
    IsoTpOptions options;
    options.block_size = 2;
    Frames frames;
    EXPECT_EQ(transfer(counting(40), IsoTpOptions{}, options, &frames), counting(40));
    IsoTpReceiver receiver(FC, options);
    Frames out;
    receiver.on_frame(frames[0], T0, out);
    receiver.on_frame(frames[1], T0, out);
    EXPECT_EQ(out.size(), 1u);
    receiver.on_frame(frames[2], T0, out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(bytes_of(out[1]), (Bytes{0x30, 0x02, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
}

TEST(IsoTp, SenderHonoursMillisecondStMin) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(20), T0, out);  // 6 + 7 + 7
    out.clear();
    sender.on_flow_control(frame_of(FC, {0x30, 0x00, 0x0A}), T0, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(sender.deadline(), T0 + 10ms);
    sender.on_time(T0 + 9999us, out);
    EXPECT_EQ(out.size(), 1u);
    sender.on_time(T0 + 10ms, out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].data[0], 0x22);
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, SenderHonoursMicrosecondStMin) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(20), T0, out);
    out.clear();
    sender.on_flow_control(frame_of(FC, {0x30, 0x00, 0xF5}), T0, out);
    EXPECT_EQ(sender.deadline(), T0 + 500us);
    sender.on_time(T0 + 499us, out);
    EXPECT_EQ(out.size(), 1u);
    sender.on_time(T0 + 500us, out);
    EXPECT_EQ(out.size(), 2u);
}

TEST(IsoTp, StMinCodes) {
    EXPECT_EQ(st_min_duration(0x00), 0us);
    EXPECT_EQ(st_min_duration(0x01), 1000us);
    EXPECT_EQ(st_min_duration(0x7F), 127000us);
    EXPECT_EQ(st_min_duration(0xF1), 100us);
    EXPECT_EQ(st_min_duration(0xF9), 900us);
    EXPECT_EQ(st_min_duration(0x80), 127000us);
    EXPECT_EQ(st_min_duration(0xF0), 127000us);
    EXPECT_EQ(st_min_duration(0xFA), 127000us);
    EXPECT_EQ(st_min_duration(0xFF), 127000us);
}

TEST(IsoTp, SingleFrameCapacities) {
    EXPECT_EQ(single_frame_capacity(IsoTpOptions{}), 7u);
    EXPECT_EQ(single_frame_capacity(fd_options()), 62u);
    EXPECT_EQ(single_frame_capacity(fd_options(8)), 7u);
    EXPECT_EQ(single_frame_capacity(fd_options(12)), 10u);
    EXPECT_THROW(validate(fd_options(9)), std::invalid_argument);
    EXPECT_THROW(IsoTpSender(fd_options(65)), std::invalid_argument);
}

TEST(IsoTp, LostConsecutiveFrameDropsTheMessage) {
    Frames frames;
    transfer(counting(30), IsoTpOptions{}, IsoTpOptions{}, &frames);
    ASSERT_EQ(frames.size(), 5u);
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    Frames out;
    receiver.on_frame(frames[0], T0, out);
    receiver.on_frame(frames[1], T0, out);
    EXPECT_FALSE(receiver.on_frame(frames[3], T0, out));  // frames[2] lost
    EXPECT_FALSE(receiver.on_frame(frames[4], T0, out));
    EXPECT_FALSE(receiver.receiving());
    EXPECT_EQ(receiver.counters().segmentation_errors, 1u);
    EXPECT_EQ(receiver.counters().dropped, 1u);
    EXPECT_EQ(receiver.counters().ignored_frames, 1u);
    EXPECT_EQ(receiver.counters().messages_in, 0u);
    // The next message arrives whole.
    EXPECT_EQ(receiver.on_frame(frame_of(TX, {0x01, 0x40}), T0, out), (Bytes{0x40}));
}

TEST(IsoTp, ReceiverDropsAHalfMessageAfterNCr) {
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    Frames out;
    receiver.on_frame(frame_of(TX, {0x10, 0x14, 1, 2, 3, 4, 5, 6}), T0, out);
    receiver.on_frame(frame_of(TX, {0x21, 1, 2, 3, 4, 5, 6, 7}), T0 + 100ms, out);
    EXPECT_EQ(receiver.deadline(), T0 + 1100ms);
    receiver.on_time(T0 + 1099ms);
    EXPECT_TRUE(receiver.receiving());
    receiver.on_time(T0 + 1100ms);
    EXPECT_FALSE(receiver.receiving());
    EXPECT_EQ(receiver.counters().timeouts, 1u);
    EXPECT_EQ(receiver.counters().dropped, 1u);
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x22, 1, 2, 3, 4, 5, 6, 7}), T0 + 1200ms, out));
}

TEST(IsoTp, SenderGivesUpAfterNBsAndGoesOnWithTheNextMessage) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(20), T0, out);
    sender.queue(TX, {0x40}, T0, out);
    EXPECT_EQ(out.size(), 1u);
    sender.on_time(T0 + 999ms, out);
    EXPECT_EQ(out.size(), 1u);
    sender.on_time(T0 + 1s, out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(bytes_of(out[1]), (Bytes{0x01, 0x40, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_EQ(sender.counters().timeouts, 1u);
    EXPECT_EQ(sender.counters().dropped, 1u);
    EXPECT_EQ(sender.counters().messages_out, 1u);
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, FlowControlWaitRestartsTheWaitUntilTooManyInARow) {
    IsoTpOptions options;
    options.max_wait_frames = 2;
    IsoTpSender sender{options};
    Frames out;
    sender.queue(TX, counting(20), T0, out);
    sender.on_flow_control(frame_of(FC, {0x31, 0x00, 0x00}), T0 + 900ms, out);
    EXPECT_EQ(sender.deadline(), T0 + 1900ms);
    sender.on_time(T0 + 1500ms, out);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_EQ(sender.counters().timeouts, 0u);
    sender.on_flow_control(frame_of(FC, {0x31, 0x00, 0x00}), T0 + 1600ms, out);
    sender.on_flow_control(frame_of(FC, {0x31, 0x00, 0x00}), T0 + 1700ms, out);
    EXPECT_TRUE(sender.idle());
    EXPECT_EQ(sender.counters().dropped, 1u);
    EXPECT_EQ(out.size(), 1u);
}

TEST(IsoTp, FlowControlWaitThenContinue) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(20), T0, out);
    sender.on_flow_control(frame_of(FC, {0x31, 0x00, 0x00}), T0, out);
    sender.on_flow_control(frame_of(FC, {0x30, 0x00, 0x00}), T0, out);
    EXPECT_EQ(out.size(), 3u);
    EXPECT_TRUE(sender.idle());
}

TEST(IsoTp, FlowControlOverflowAbortsTheMessage) {
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    sender.queue(TX, counting(20), T0, out);
    sender.on_flow_control(frame_of(FC, {0x32, 0x00, 0x00}), T0, out);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_TRUE(sender.idle());
    EXPECT_EQ(sender.counters().overflows, 1u);
    EXPECT_EQ(sender.counters().dropped, 1u);
}

TEST(IsoTp, ReceiverAnswersAnOversizedMessageWithOverflow) {
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    Frames out;
    receiver.on_frame(frame_of(TX, {0x10, 0x00, 0x00, 0x00, 0x13, 0x88, 1, 2}), T0, out);  // 5000 bytes
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(bytes_of(out[0]), (Bytes{0x32, 0x00, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_FALSE(receiver.receiving());
    EXPECT_EQ(receiver.counters().overflows, 1u);
}

TEST(IsoTp, StrayAndMalformedFramesAreCountedNotFatal) {
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    IsoTpSender sender{IsoTpOptions{}};
    Frames out;
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x21, 1, 2, 3}), T0, out));           // CF out of the blue
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x30, 0, 0}), T0, out));              // FC to a receiver
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x40, 1}), T0, out));                 // reserved PCI
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x00, 1, 2}), T0, out));              // SF of length 0
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x07, 1, 2}), T0, out));              // SF longer than its frame
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {}), T0, out));                         // no data
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x10, 0x08, 1, 2, 3}), T0, out));     // short FF
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, {0x10, 0x05, 1, 2, 3, 4, 5, 6}), T0, out));  // FF that fits an SF
    Bytes long_sf(12, 0xCC);
    long_sf[0] = 0x05;
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, long_sf, true), T0, out));             // nibble length in an FD frame
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(receiver.counters().ignored_frames, 2u);
    EXPECT_EQ(receiver.counters().segmentation_errors, 7u);
    sender.on_flow_control(frame_of(FC, {0x30, 0, 0}), T0, out);  // nothing being sent
    sender.on_flow_control(frame_of(FC, {0x30}), T0, out);        // too short
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(sender.counters().ignored_frames, 1u);
    EXPECT_EQ(sender.counters().segmentation_errors, 1u);
}

TEST(IsoTp, ANewMessageReplacesAHalfReceivedOne) {
    IsoTpReceiver receiver(FC, IsoTpOptions{});
    Frames out;
    receiver.on_frame(frame_of(TX, {0x10, 0x14, 1, 2, 3, 4, 5, 6}), T0, out);
    EXPECT_EQ(receiver.on_frame(frame_of(TX, {0x01, 0x40}), T0, out), (Bytes{0x40}));
    EXPECT_EQ(receiver.counters().dropped, 1u);
    EXPECT_FALSE(receiver.receiving());
}

TEST(IsoTp, ConsecutiveFrameLongerThanTheFirstIsRejected) {
    IsoTpReceiver receiver(FC, fd_options());
    Frames out;
    receiver.on_frame(frame_of(TX, {0x10, 0x14, 1, 2, 3, 4, 5, 6}, true), T0, out);  // RX_DL 8
    Bytes cf(12, 0xCC);
    cf[0] = 0x21;
    EXPECT_FALSE(receiver.on_frame(frame_of(TX, cf, true), T0, out));
    EXPECT_EQ(receiver.counters().segmentation_errors, 1u);
    EXPECT_EQ(receiver.counters().dropped, 1u);
}

}  // namespace
