// Frame lengths in bits, and the timed virtual channel driven by its manual
// clock: arbitration, delivery times, error counters and the fault modes.
#include "ocp_api/can_timing.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "ocp_api/virtual_can.hpp"

namespace {

using namespace ocp_api;
using namespace std::chrono_literals;

CanFrame frame_of(uint32_t id, bool extended, uint8_t len, bool fd = false, bool brs = false, uint8_t fill = 0) {
    CanFrame frame;
    frame.id = id;
    frame.extended = extended;
    frame.fd = fd;
    frame.brs = brs;
    frame.len = len;
    for (uint8_t i = 0; i < len; ++i) frame.data[i] = fill;
    return frame;
}

// --- bit counts ------------------------------------------------------------

TEST(CanFrameBits, ClassicFramesWithoutStuffBits) {
    // Standard: SOF 1, identifier 11, RTR, IDE, r0, DLC 4, data, CRC 15; then
    // CRC delimiter, ACK slot and delimiter, EOF 7, IFS 3.
    EXPECT_EQ(can_frame_bits(frame_of(0x123, false, 8), StuffBits::none).total(), 19u + 64 + 15 + 13);  // 111
    EXPECT_EQ(can_frame_bits(frame_of(0x123, false, 0), StuffBits::none).total(), 47u);
    // Extended: SOF, 11, SRR, IDE, 18, RTR, r1, r0, DLC: 39 bits before the data.
    EXPECT_EQ(can_frame_bits(frame_of(0x00D00021, true, 8), StuffBits::none).total(), 39u + 64 + 15 + 13);  // 131
    EXPECT_EQ(can_frame_bits(frame_of(0x00D00021, true, 0), StuffBits::none).total(), 67u);
}

TEST(CanFrameBits, ClassicFramesWithTheMostStuffBits) {
    // One stuff bit after the first 5 stuffed bits, then one per 4: (n - 1) / 4.
    EXPECT_EQ(can_frame_bits(frame_of(0x123, false, 8), StuffBits::worst).total(), 111u + 97 / 4);     // 135
    EXPECT_EQ(can_frame_bits(frame_of(0x00D00021, true, 8), StuffBits::worst).total(), 131u + 117 / 4);  // 160
    EXPECT_EQ(can_frame_bits(frame_of(0x00D00021, true, 0), StuffBits::worst).total(), 67u + 53 / 4);    // 80
}

TEST(CanFrameBits, ActualStuffBitsOfAnAllZeroFrame) {
    // Identifier 0, no data: 19 dominant bits, and the CRC of zeros is zero,
    // so 34 zeros in a row get a stuff bit after every fifth: 6.
    const CanFrameBits bits = can_frame_bits(frame_of(0, false, 0));
    EXPECT_EQ(bits.stuff, 6u);
    EXPECT_EQ(bits.total(), 34u + 6 + 13);
    EXPECT_EQ(can_frame_duration(frame_of(0, false, 0), CanBitRates{500000, 0}), 106us);
}

TEST(CanFrameBits, ActualStuffBitsLieBetweenNoneAndWorst) {
    for (uint8_t fill : {0x00, 0xCC, 0xFF, 0x55, 0x0F}) {
        const CanFrame frame = frame_of(0x00D04021, true, 8, false, false, fill);
        const uint32_t actual = can_frame_bits(frame).total();
        EXPECT_GE(actual, can_frame_bits(frame, StuffBits::none).total()) << int(fill);
        EXPECT_LE(actual, can_frame_bits(frame, StuffBits::worst).total()) << int(fill);
    }
    // Padding bytes of 0xCC never run five equal bits.
    CanFrame padded = frame_of(0x2AA, false, 8, false, false, 0xCC);
    EXPECT_LE(can_frame_bits(padded).stuff, 3u);
}

TEST(CanFrameBits, CanFdFrameWithBitRateSwitch) {
    // Standard identifier 0, 8 zero bytes, BRS. Arbitration phase: SOF, 11
    // identifier bits, RRS, IDE (14 zeros: 2 stuff bits), FDF 1, res 0, BRS 1.
    // Data phase: ESI 0, DLC 1000, 64 zeros: 67 zeros in a row after the DLC's
    // 1, so 13 stuff bits; then stuff count and CRC-17 with 6 fixed stuff bits.
    const CanFrame frame = frame_of(0, false, 8, true, true);
    const CanFrameBits bits = can_frame_bits(frame);
    EXPECT_EQ(bits.nominal, 17u + 2 + 13);
    EXPECT_EQ(bits.data, 69u + 13 + 27);
    EXPECT_EQ(bits.stuff, 15u);
    EXPECT_EQ(can_frame_duration(frame, CanBitRates{1000000, 5000000}), 32000ns + 109 * 200ns);
}

TEST(CanFrameBits, CanFdLengthsCrcAndWorstCase) {
    // Extended, 64 bytes, BRS: 36 arbitration bits, 13 trailer bits; ESI, DLC,
    // 512 data bits and the CRC-21 field (4 + 21 + 7 fixed stuff bits).
    const CanFrame big = frame_of(0x00D00021, true, 64, true, true, 0xCC);
    const CanFrameBits none = can_frame_bits(big, StuffBits::none);
    EXPECT_EQ(none.nominal, 49u);
    EXPECT_EQ(none.data, 517u + 32);
    EXPECT_EQ(can_frame_duration(big, CanBitRates{1000000, 5000000}, StuffBits::none), 49us + 549 * 200ns);
    // Without the switch every bit goes at the nominal rate.
    const CanFrame slow = frame_of(0x00D00021, true, 64, true, false, 0xCC);
    EXPECT_EQ(can_frame_bits(slow, StuffBits::none).data, 0u);
    EXPECT_EQ(can_frame_bits(slow, StuffBits::none).nominal, 598u);
    // Worst: (36 + 517 - 1) / 4 = 138 stuff bits, 9 of them before the switch.
    const CanFrameBits worst = can_frame_bits(big, StuffBits::worst);
    EXPECT_EQ(worst.stuff, 138u);
    EXPECT_EQ(worst.nominal, 49u + 9);
    // Up to 16 bytes the CRC is 17 bits: 4 + 17 + 6.
    EXPECT_EQ(can_frame_bits(frame_of(1, false, 16, true, true), StuffBits::none).data, 1u + 4 + 128 + 27);
}

TEST(CanFrameBits, ArbitrationKeys) {
    EXPECT_LT(can_arbitration_key(frame_of(0x100, false, 0)), can_arbitration_key(frame_of(0x200, false, 0)));
    // Same first 11 bits: the standard frame's dominant RTR beats the SRR.
    EXPECT_LT(can_arbitration_key(frame_of(0x100, false, 0)), can_arbitration_key(frame_of(0x100u << 18, true, 0)));
    EXPECT_LT(can_arbitration_key(frame_of(0x00D00021, true, 0)), can_arbitration_key(frame_of(0x00D04021, true, 0)));
}

TEST(CanFrameBits, InvalidLengthsAreRefused) {
    EXPECT_THROW(can_frame_bits(frame_of(1, false, 9)), std::invalid_argument);
    EXPECT_THROW(can_frame_bits(frame_of(1, false, 13, true)), std::invalid_argument);
    CanFrame huge = frame_of(1, true, 0, true);
    huge.len = 200;
    EXPECT_THROW(can_frame_bits(huge), std::invalid_argument);
}

TEST(CanFrameBits, RatesAreChecked) {
    EXPECT_THROW(validate(CanBitRates{5000, 0}), std::invalid_argument);
    EXPECT_THROW(validate(CanBitRates{1000000, 500000}), std::invalid_argument);
    EXPECT_NO_THROW(validate(CanBitRates{1000000, 8000000}));
}

// --- the timed channel -----------------------------------------------------

VirtualCanOptions timed(uint32_t nominal = 1000000, uint32_t data = 0) {
    VirtualCanOptions options;
    options.timing = CanBitRates{nominal, data};
    options.manual_clock = true;
    return options;
}

std::vector<uint32_t> drain_ids(CanLink& link) {
    std::vector<uint32_t> ids;
    for (;;) {
        const CanLinkEvent event = link.receive(0ns);
        if (event.type == CanLinkEvent::Type::none) return ids;
        if (event.type == CanLinkEvent::Type::frame) ids.push_back(event.frame.id);
    }
}

std::vector<CanLinkState> drain_states(CanLink& link) {
    std::vector<CanLinkState> states;
    for (;;) {
        const CanLinkEvent event = link.receive(0ns);
        if (event.type == CanLinkEvent::Type::none) return states;
        if (event.type == CanLinkEvent::Type::state) states.push_back(event.state);
    }
}

TEST(TimedVirtualCan, AFrameArrivesWhenItsLastBitWould) {
    VirtualCanChannel channel(timed(500000));
    auto a = channel.open();
    auto b = channel.open();
    const CanFrame frame = frame_of(0, false, 0);  // 53 bits: 106 us at 500 kbit/s
    ASSERT_EQ(a->send_frame(frame), CanLink::SendResult::sent);
    channel.advance(106us - 1ns);
    EXPECT_TRUE(drain_ids(*b).empty());
    channel.advance(1ns);
    EXPECT_EQ(drain_ids(*b), std::vector<uint32_t>{0});
    const VirtualCanBusStats stats = channel.bus_stats();
    EXPECT_EQ(stats.frames, 1u);
    EXPECT_EQ(stats.busy, 106us);
    EXPECT_DOUBLE_EQ(stats.load(), 1.0);
    channel.advance(106us);
    EXPECT_DOUBLE_EQ(channel.bus_stats().load(), 0.5);
}

// An urgent frame (a STOP) waits only for the frame already on the bus, not
// for the ones queued before it at the same endpoint.
TEST(TimedVirtualCan, AnUrgentFrameGoesAheadOfTheEndpointsQueue) {
    VirtualCanChannel channel(timed());
    auto sender = channel.open();
    auto listener = channel.open();
    for (uint32_t id = 1; id <= 5; ++id) ASSERT_EQ(sender->send_frame(frame_of(id, false, 8)), CanLink::SendResult::sent);
    ASSERT_EQ(sender->send_urgent_frame(frame_of(0x42, false, 2)), CanLink::SendResult::sent);
    channel.advance(10ms);
    EXPECT_EQ(drain_ids(*listener), (std::vector<uint32_t>{1, 0x42, 2, 3, 4, 5}));
}

TEST(TimedVirtualCan, LowestIdentifierAmongWaitingEndpointsWinsArbitration) {
    VirtualCanChannel channel(timed());
    auto listener = channel.open();
    auto first = channel.open();
    auto a = channel.open();
    auto b = channel.open();
    auto c = channel.open();
    // The bus is idle: the first frame starts at once; the three sent while it
    // is on the bus wait and then arbitrate.
    ASSERT_EQ(first->send_frame(frame_of(0x700, false, 8)), CanLink::SendResult::sent);
    ASSERT_EQ(a->send_frame(frame_of(0x300, false, 8)), CanLink::SendResult::sent);
    ASSERT_EQ(b->send_frame(frame_of(0x100, false, 8)), CanLink::SendResult::sent);
    ASSERT_EQ(c->send_frame(frame_of(0x200, false, 8)), CanLink::SendResult::sent);
    channel.advance(10ms);
    EXPECT_EQ(drain_ids(*listener), (std::vector<uint32_t>{0x700, 0x100, 0x200, 0x300}));
    // 0x100 beat two, then 0x200 beat one.
    EXPECT_EQ(channel.bus_stats().arbitration_losses, 3u);
    // Each arrived at the end of the frame before it plus its own length.
    EXPECT_EQ(channel.bus_stats().frames, 4u);
}

TEST(TimedVirtualCan, ErrorCountersWalkToPassiveAndBusOffAndBack) {
    VirtualCanChannel channel(timed());
    auto host = channel.open();
    auto device = channel.open();
    channel.set_bit_error_rate(1.0);  // every transmission fails
    ASSERT_EQ(host->send_frame(frame_of(0x00D00021, true, 8)), CanLink::SendResult::sent);
    std::vector<CanLinkState> states;
    int attempts = 0;
    while (channel.controller(*host).state != CanLinkState::bus_off && attempts < 100) {
        const int before = static_cast<int>(channel.bus_stats().error_frames);
        channel.advance(10us);
        attempts = static_cast<int>(channel.bus_stats().error_frames);
        if (attempts == 12 && before < 12) {
            EXPECT_EQ(channel.controller(*host).state, CanLinkState::error_warning);
        }
        if (attempts == 11 && before < 11) {
            EXPECT_EQ(channel.controller(*host).state, CanLinkState::active);
        }
        if (attempts == 16 && before < 16) {
            EXPECT_EQ(channel.controller(*host).transmit_errors, 128);
            EXPECT_EQ(channel.controller(*host).state, CanLinkState::error_passive);
        }
    }
    // 32 errors of 8: 256 > 255. The frame was retransmitted each time.
    EXPECT_EQ(attempts, 32);
    EXPECT_EQ(channel.bus_stats().retransmissions, 32u);
    EXPECT_EQ(channel.bus_stats().tx_dropped, 1u);  // the frame itself, thrown away at bus-off
    EXPECT_EQ(channel.controller(*device).receive_errors, 32);
    EXPECT_EQ(channel.controller(*device).state, CanLinkState::active);
    EXPECT_EQ(drain_states(*host), (std::vector<CanLinkState>{CanLinkState::error_warning, CanLinkState::error_passive,
                                                              CanLinkState::bus_off}));
    EXPECT_EQ(host->send_frame(frame_of(0x00D00021, true, 8)), CanLink::SendResult::failed);

    // Recovery: 128 sequences of 11 recessive bits on an idle bus. The bus was
    // busy without a break until the bus-off, so it went off at `busy`.
    channel.set_bit_error_rate(0.0);
    const auto went_off = channel.bus_stats().busy;
    channel.advance(went_off + 128 * 11us - 1us - channel.now());
    EXPECT_EQ(channel.controller(*host).state, CanLinkState::bus_off);
    channel.advance(1us);
    EXPECT_EQ(channel.controller(*host).state, CanLinkState::active);
    EXPECT_EQ(channel.controller(*host).transmit_errors, 0);
    EXPECT_EQ(drain_states(*host), std::vector<CanLinkState>{CanLinkState::active});
    ASSERT_EQ(host->send_frame(frame_of(0x00D00021, true, 8)), CanLink::SendResult::sent);
    channel.advance(1ms);
    EXPECT_EQ(drain_ids(*device), std::vector<uint32_t>{0x00D00021});
    EXPECT_EQ(channel.controller(*device).receive_errors, 31);  // one good frame takes one off
}

TEST(TimedVirtualCan, BitErrorsAreSeededAndReproducible) {
    auto run = [](uint32_t seed) {
        VirtualCanOptions options = timed();
        options.bit_error_rate = 1e-3;
        options.seed = seed;
        VirtualCanChannel channel(options);
        auto host = channel.open();
        auto device = channel.open();
        for (int i = 0; i < 200; ++i) {
            while (host->send_frame(frame_of(0x00D00021, true, 8, false, false, static_cast<uint8_t>(i))) !=
                   CanLink::SendResult::sent)
                channel.advance(100us);
        }
        channel.advance(1s);
        EXPECT_EQ(drain_ids(*device).size(), 200u);  // every frame arrives in the end
        return channel.bus_stats();
    };
    const VirtualCanBusStats one = run(7);
    const VirtualCanBusStats again = run(7);
    const VirtualCanBusStats other = run(8);
    EXPECT_EQ(one.error_frames, again.error_frames);
    EXPECT_EQ(one.busy, again.busy);
    EXPECT_GT(one.error_frames, 0u);  // about 13% of frames of ~140 bits at 1e-3
    EXPECT_NE(one.busy, other.busy);
}

TEST(TimedVirtualCan, UnpluggedPeerLeavesTheSenderErrorPassiveRetrying) {
    VirtualCanChannel channel(timed());
    auto host = channel.open();
    auto device = channel.open();
    channel.unplug(*device);
    ASSERT_EQ(host->send_frame(frame_of(0x00D00021, true, 8)), CanLink::SendResult::sent);
    channel.advance(20ms);
    // No acknowledgement: +8 per attempt up to error-passive, where a missing
    // acknowledgement no longer counts, so it never reaches bus-off.
    EXPECT_EQ(channel.controller(*host).transmit_errors, 128);
    EXPECT_EQ(channel.controller(*host).state, CanLinkState::error_passive);
    EXPECT_GT(channel.bus_stats().error_frames, 100u);
    EXPECT_EQ(channel.bus_stats().frames, 0u);
    EXPECT_TRUE(drain_ids(*device).empty());
    channel.unplug(*device, false);
    channel.advance(1ms);
    EXPECT_EQ(drain_ids(*device), std::vector<uint32_t>{0x00D00021});
    EXPECT_EQ(channel.controller(*host).transmit_errors, 127);
}

TEST(TimedVirtualCan, UnpluggedSenderRetriesOnItsOwnWire) {
    VirtualCanChannel channel(timed());
    auto host = channel.open();
    auto device = channel.open();
    channel.unplug(*device);
    ASSERT_EQ(device->send_frame(frame_of(0x00D04021, true, 8)), CanLink::SendResult::sent);
    channel.advance(20ms);
    EXPECT_EQ(channel.controller(*device).transmit_errors, 128);
    EXPECT_EQ(drain_states(*device),
              (std::vector<CanLinkState>{CanLinkState::error_warning, CanLinkState::error_passive}));
    EXPECT_TRUE(drain_ids(*host).empty());
    EXPECT_EQ(channel.bus_stats().error_frames, 0u);  // the shared bus saw nothing
    EXPECT_EQ(channel.bus_stats().busy, 0ns);
    channel.unplug(*device, false);
    channel.advance(1ms);
    EXPECT_EQ(drain_ids(*host), std::vector<uint32_t>{0x00D04021});
    EXPECT_EQ(channel.controller(*device).transmit_errors, 127);
}

TEST(TimedVirtualCan, PingFramesOfEveryAddressTake135To141Bits) {
    // What the README's scan --fast bus load rests on: a one-byte ping padded
    // to 8 bytes, 131 bits without stuff bits, 160 with the most.
    uint32_t shortest = 1000;
    uint32_t longest = 0;
    for (uint32_t address = 0x10; address <= 0x3FFE; ++address) {
        CanFrame ping = frame_of(0x00D00000 + address, true, 8, false, false, 0xCC);
        ping.data[0] = 0x01;
        ping.data[1] = 0x40;
        const uint32_t bits = can_frame_bits(ping).total();
        shortest = std::min(shortest, bits);
        longest = std::max(longest, bits);
    }
    EXPECT_EQ(shortest, 135u);
    EXPECT_EQ(longest, 141u);
}

TEST(TimedVirtualCan, BabblingNodeStarvesHigherIdentifiers) {
    VirtualCanChannel channel(timed());
    auto host = channel.open();
    auto device = channel.open();
    const CanFrame babble = frame_of(0x001, false, 8);
    const auto babble_time = can_frame_duration(babble, CanBitRates{1000000, 0});
    channel.start_babbling(babble);
    ASSERT_EQ(host->send_frame(frame_of(0x00D00021, true, 8)), CanLink::SendResult::sent);
    channel.advance(10ms);
    const std::vector<uint32_t> seen = drain_ids(*device);
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(10ms / babble_time));
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 0x00D00021u), 0);
    EXPECT_GT(channel.bus_stats().load(), 0.98);
    channel.stop_babbling();  // the frame it has on the bus still ends
    channel.advance(1ms);
    EXPECT_EQ(drain_ids(*device), (std::vector<uint32_t>{0x001, 0x00D00021}));
}

TEST(TimedVirtualCan, FullTransmitQueueReportsBusy) {
    VirtualCanOptions options = timed();
    options.tx_queue_limit = 2;
    VirtualCanChannel channel(options);
    auto host = channel.open();
    auto device = channel.open();
    EXPECT_EQ(host->send_frame(frame_of(1, false, 8)), CanLink::SendResult::sent);  // on the bus
    EXPECT_EQ(host->send_frame(frame_of(2, false, 8)), CanLink::SendResult::sent);
    EXPECT_EQ(host->send_frame(frame_of(3, false, 8)), CanLink::SendResult::busy);
    channel.advance(1ms);
    EXPECT_EQ(drain_ids(*device), (std::vector<uint32_t>{1, 2}));
}

TEST(TimedVirtualCan, CanFdFramesGoWithTheBitRateSwitchAtTheDataRate) {
    VirtualCanChannel channel(timed(1000000, 5000000));
    auto a = channel.open(true);
    auto b = channel.open(true);
    const CanFrame frame = frame_of(0, false, 8, true, false);  // the sender did not ask for BRS
    const auto switched = can_frame_duration(frame_of(0, false, 8, true, true), CanBitRates{1000000, 5000000});
    EXPECT_EQ(switched, 53800ns);
    ASSERT_EQ(a->send_frame(frame), CanLink::SendResult::sent);
    channel.advance(switched);
    const CanLinkEvent event = b->receive(0ns);
    ASSERT_EQ(event.type, CanLinkEvent::Type::frame);
    EXPECT_TRUE(event.frame.brs);
    EXPECT_EQ(channel.bus_stats().busy, switched);
}

TEST(TimedVirtualCan, InstantChannelHasNoBusClock) {
    VirtualCanChannel channel;
    EXPECT_FALSE(channel.timed());
    EXPECT_THROW(channel.advance(1ms), std::logic_error);
    EXPECT_THROW(channel.bus_stats(), std::logic_error);
    VirtualCanOptions bad = timed();
    bad.bit_error_rate = 2.0;
    EXPECT_THROW(VirtualCanChannel{bad}, std::invalid_argument);
}

}  // namespace
