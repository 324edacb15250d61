#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <set>

#include "common/timing.hpp"
#include "ocp_api/codec.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"
#include "support/stream_capture.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;
using P = OrreryActuator::OCP_Parameters;
using ParameterMap = OrreryActuator::ParameterMap;

// A fake device that answers GET_PARAMETERS with value = identifier code (in
// each parameter's wire type), for the first `answers` requests only.
class ParameterDevice {
public:
    ParameterDevice(RecordingTransport& transport, int answers, bool from_other_thread)
        : transport_(transport), answers_left_(answers) {
        transport.set_responder([this, from_other_thread](int address, const Bytes& frame) {
            if (!is_command(frame, wire::Command::GET_PARAMETERS) || answers_left_.load() <= 0) return;
            --answers_left_;
            Bytes reply{static_cast<uint8_t>(wire::RecordCode::PARAMETERS)};
            for (std::size_t i = 1; i < frame.size(); ++i)
                ocp_api::codec::ParameterEntry::of(frame[i], frame[i]).encode_into(reply);
            if (from_other_thread) {
                transport_.deliver_later(address, reply, 0, std::chrono::milliseconds(5));
            } else {
                transport_.deliver(address, reply);
            }
        });
    }

    ~ParameterDevice() { transport_.set_responder(nullptr); }
    ParameterDevice(const ParameterDevice&) = delete;
    ParameterDevice& operator=(const ParameterDevice&) = delete;

private:
    RecordingTransport& transport_;
    std::atomic<int> answers_left_;
};

class ParameterAccess : public ::testing::Test {
protected:
    RecordingTransport transport;
    OrreryActuator actuator{transport, 0x21};
};

TEST_F(ParameterAccess, TenEntriesGoInTwoFramesOfNineAndOne) {
    ParameterMap values;
    for (int i = 1; i <= 10; ++i) values[static_cast<P>(i)] = static_cast<float>(i) / 4.0f;
    actuator.set_parameters(values);
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].size(), 46u);
    EXPECT_EQ(frames[1].size(), 6u);
    ParameterMap sent;
    for (const auto& frame : frames) {
        ASSERT_EQ(frame[0], 0x0B);
        for (std::size_t p = 1; p < frame.size(); p += 5) sent[static_cast<P>(frame[p])] = wire::read_f32(&frame[p + 1]);
    }
    EXPECT_EQ(sent, values);
}

TEST_F(ParameterAccess, NineEntriesFitOneFrameAndIntegersGoAsFloatBytes) {
    ParameterMap values;
    for (int i = 1; i <= 8; ++i) values[static_cast<P>(i)] = 1.0f;
    values[P::DEVICE_80] = 20000.0f;
    actuator.set_parameters(values);
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_EQ(frames[0].size(), 46u);
    bool found = false;
    for (std::size_t p = 1; p < 46; p += 5) {
        if (frames[0][p] == 0x80) {
            found = true;
            EXPECT_EQ(Bytes(frames[0].begin() + static_cast<std::ptrdiff_t>(p), frames[0].begin() + static_cast<std::ptrdiff_t>(p) + 5),
                      Bytes{0x80} + f32(20000.0f));
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(ParameterAccess, EmptyMapSendsNothing) {
    actuator.set_parameters({});
    EXPECT_TRUE(transport.sent().empty());
}

TEST_F(ParameterAccess, GetParametersReturnsTheDevicesValues) {
    ParameterDevice device(transport, 100, true);
    const ParameterMap got = actuator.get_parameters({P::MODE, P::DEVICE_80, P::ADDRESS}, 2.0f);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0C, 0x30, 0x80, 0x81}}));
    EXPECT_EQ(got, (ParameterMap{{P::MODE, 48.0f}, {P::DEVICE_80, 128.0f}, {P::ADDRESS, 129.0f}}));
    transport.join_deliveries();
}

TEST_F(ParameterAccess, EmptyListStillSendsTheCodeByteAndWaits) {
    StreamCapture err(std::cerr);
    EXPECT_TRUE(actuator.get_parameters({}, 0.03f).empty());
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x0C}}));
    EXPECT_EQ(err.text(), "Timeout waiting for parameters\n");
}

TEST_F(ParameterAccess, ReplyStartingWithIdentifierZeroIsNoAnswer) {
    StreamCapture err(std::cerr);
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_PARAMETERS))
            transport.deliver(address, Bytes{0x83, 0x00} + f32(1.0f) + Bytes{0x01} + f32(2.0f));
    });
    EXPECT_TRUE(actuator.get_parameters({P::K_DAMP}, 0.03f).empty());
    EXPECT_EQ(err.text(), "Timeout waiting for parameters\n");
}

TEST_F(ParameterAccess, ZeroTimeoutLooksOnceRightAfterSending) {
    ParameterDevice device(transport, 1, false);  // answers inside send()
    EXPECT_EQ(actuator.get_parameters({P::K_DAMP}, 0.0f), (ParameterMap{{P::K_DAMP, 1.0f}}));
    StreamCapture err(std::cerr);
    EXPECT_TRUE(actuator.get_parameters({P::K_STIFF}, 0.0f).empty());  // no answer this time
    EXPECT_EQ(err.text(), "Timeout waiting for parameters\n");
}

TEST_F(ParameterAccess, GetAllRequestsThirtyOneInBatchesOfNineNineNineFour) {
    ParameterDevice device(transport, 100, true);
    const ParameterMap all = actuator.get_parameters_all();
    const auto frames = transport.frames();
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0], (Bytes{0x0C, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09}));
    EXPECT_EQ(frames[1], (Bytes{0x0C, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x30, 0x31, 0x40}));
    EXPECT_EQ(frames[2], (Bytes{0x0C, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x80, 0x81}));
    EXPECT_EQ(frames[3], (Bytes{0x0C, 0x82, 0x83, 0x84, 0x85}));
    ASSERT_EQ(all.size(), 31u);
    for (const P id : OrreryActuator::ALL_PARAMETERS) EXPECT_EQ(all.at(id), static_cast<float>(static_cast<uint8_t>(id)));
    transport.join_deliveries();
}

TEST_F(ParameterAccess, TimeoutOnTheFirstBatchReturnsEmptyAndStops) {
    StreamCapture err(std::cerr);
    const ParameterMap all = actuator.get_parameters(std::vector<P>(OrreryActuator::ALL_PARAMETERS.begin(), OrreryActuator::ALL_PARAMETERS.end()), 0.02f);
    EXPECT_TRUE(all.empty());
    EXPECT_EQ(transport.frames().size(), 1u);
    EXPECT_EQ(err.text(), "Timeout waiting for parameters\n");
}

TEST_F(ParameterAccess, TimeoutOnALaterBatchReturnsWhatEarlierBatchesBrought) {
    ParameterDevice device(transport, 2, true);
    StreamCapture err(std::cerr);
    const ParameterMap all = actuator.get_parameters(std::vector<P>(OrreryActuator::ALL_PARAMETERS.begin(), OrreryActuator::ALL_PARAMETERS.end()), 2.0f);
    transport.join_deliveries();
    EXPECT_EQ(transport.frames().size(), 3u);
    EXPECT_EQ(all.size(), 18u);
    EXPECT_EQ(all.at(P::TORQUE_PERFORMANCE), 64.0f);
    EXPECT_EQ(all.count(P::SPEED_PERFORMANCE), 0u) << "its batch timed out";
    EXPECT_EQ(err.text(), "Timeout waiting for parameters\n");
}

TEST_F(ParameterAccess, ParserStoresDecodedValues) {
    // Answer the request with the test's own reply, synchronously.
    const Bytes reply = Bytes{0x83, 0x30} + f32(6.7f) + Bytes{0x80, 0x20, 0x4E, 0x00, 0x00} + Bytes{0x81} + f32(33.0f) +
                        Bytes{0x00} + f32(1.0f) + Bytes{0x01} + f32(5.0f);
    transport.set_responder([this, reply](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_PARAMETERS)) transport.deliver(address, reply);
    });
    const ParameterMap store = actuator.get_parameters({P::MODE}, 0.0f);
    EXPECT_EQ(store, (ParameterMap{{P::MODE, 6.0f}, {P::DEVICE_80, 20000.0f}, {P::ADDRESS, 33.0f}}));
}

TEST_F(ParameterAccess, ReceivedModeOfMinusAHalfIsStoredAsPositiveZero) {
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_PARAMETERS)) transport.deliver(address, Bytes{0x83, 0x30} + f32(-0.5f));
    });
    const ParameterMap store = actuator.get_parameters({P::MODE}, 0.0f);
    ASSERT_EQ(store.count(P::MODE), 1u);
    EXPECT_EQ(store.at(P::MODE), 0.0f);
    EXPECT_FALSE(std::signbit(store.at(P::MODE)));
}

TEST_F(ParameterAccess, ParserIgnoresShortTails) {
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_PARAMETERS))
            transport.deliver(address, Bytes{0x83, 0x01} + f32(1.0f) + Bytes{0x02, 0x00, 0x00});
    });
    EXPECT_EQ(actuator.get_parameters({P::K_DAMP}, 0.0f), (ParameterMap{{P::K_DAMP, 1.0f}}));
    StreamCapture err(std::cerr);
    transport.set_responder([this](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::GET_PARAMETERS)) transport.deliver(address, Bytes{0x83, 0x01, 0x00});
    });
    EXPECT_TRUE(actuator.get_parameters({P::K_DAMP}, 0.0f).empty());
}

TEST_F(ParameterAccess, SaveAndClearConfig) {
    StreamCapture err(std::cerr);
    actuator.save_config();
    actuator.clear_config();
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x39}, {0xC2}}));
    EXPECT_EQ(err.text(), "Warning: Actuator configuration cleared. Device will reset.\n");
}

TEST(FactoryRestoreWait, WholeMillisecondsTruncatedWithoutADayCap) {
    EXPECT_EQ(detail::whole_milliseconds(0.0015f), 1);
    EXPECT_EQ(detail::whole_milliseconds(1.0f), 1000);
    // Two days: no longer clamped to one.
    EXPECT_EQ(detail::whole_milliseconds(172800.0f), 172800000);
    EXPECT_EQ(detail::whole_milliseconds(1e15f), static_cast<int64_t>(1e15f * 1000.0f));
    EXPECT_EQ(detail::whole_milliseconds(1e30f), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(detail::whole_milliseconds(std::numeric_limits<float>::infinity()), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(detail::whole_milliseconds(0.0009f), 0);
    EXPECT_EQ(detail::whole_milliseconds(-1.0f), 0);
    EXPECT_EQ(detail::whole_milliseconds(std::nanf("")), 0);
}

TEST_F(ParameterAccess, FactoryRestoreSleepsTheWholeWait) {
    const auto start = std::chrono::steady_clock::now();
    actuator.restore_factory_parameters(0.06f);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

TEST_F(ParameterAccess, FactoryRestoreStopsSilencesClearsAndResetsLocalState) {
    ParameterDevice device(transport, 100, false);
    actuator.change_mode(OrreryActuator::Mode::TORQUE);
    actuator.set_can_high_speed(true);
    transport.deliver(0x21, Bytes{0x41} + f32(1.0f), 0);
    ASSERT_FALSE(actuator.get_parameters({P::K_DAMP}, 0.0f).empty());
    transport.clear_records();

    StreamCapture err(std::cerr);
    actuator.restore_factory_parameters(0.0f);
    EXPECT_EQ(transport.frames(), (std::vector<Bytes>{{0x02}, {0x06, 0, 0, 0, 0}, {0xC2}}));
    EXPECT_EQ(err.text(), "") << "no warning, unlike clear_config";
    EXPECT_EQ(actuator.get_mode(), OrreryActuator::Mode::SPEED);
    EXPECT_FALSE(actuator.get_can_high_speed());
    EXPECT_TRUE(actuator.get_feedback().empty());
    EXPECT_EQ(actuator.get_parameters({P::K_STIFF}, 0.0f), (ParameterMap{{P::K_STIFF, 2.0f}}))
        << "the store was emptied: K_DAMP is gone";
}

}  // namespace
