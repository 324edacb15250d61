// Host code written against one actuator class compiles and runs against the
// other wherever their operations overlap, and exactly which operations do not.
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "ocp_api/codec.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "support/device_replies.hpp"
#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_test;

template <typename Actuator>
struct Outcome {
    bool pinged = false;
    bool connected = false;
    bool can_high_speed = true;
    bool still_connected = false;
    int address = 0;
    std::string model;
    std::string firmware;
    typename Actuator::Mode mode = Actuator::Mode::SPEED;
    typename Actuator::ParameterMap limit;
    std::size_t all_parameters = 0;
    std::size_t feedback_items = 0;
};

// A typical joint bring-up, written once for both actuator classes.
template <typename Actuator>
Outcome<Actuator> drive_joint(Actuator& joint) {
    using P = typename Actuator::OCP_Parameters;
    Outcome<Actuator> outcome;
    outcome.connected = joint.connect(1.0f);
    outcome.pinged = joint.send_ping(1.0f);
    joint.set_feedback_callback([](int, typename Actuator::FeedbackMap) {});
    joint.set_error_callback([](int, typename Actuator::ErrorMap) {});
    joint.set_low_freq_feedback_callback([](typename Actuator::FeedbackMap) {});
    joint.set_low_freq_feedback_items({Actuator::OCP_Items::POS_FB_41});
    joint.set_low_freq_feedback_rate(Actuator::Rates::RATE_10HZ);
    joint.set_low_freq_feedback_rate(10);
    joint.start();
    joint.change_mode(Actuator::Mode::SPEED);
    joint.change_setpoint(0.25f);
    joint.change_mode(Actuator::Mode::POSITION);
    joint.change_position_setpoint(1.0f);
    joint.change_speed_setpoint(2.0f, 0.5f);
    joint.change_torque_setpoint(0.1f);
    joint.change_impedance_setpoint(0.5f, 0.0f, 4.0f, 0.2f);
    joint.set_torque_performance(Actuator::TorquePerformance::PRESET_1);
    joint.set_speed_performance(Actuator::SpeedPerformance::PRESET_3);
    joint.set_can_high_speed(false);
    joint.set_home_position();
    joint.set_parameters({{P::LIMIT_TORQUE, 2.0f}});
    outcome.limit = joint.get_parameters({P::LIMIT_TORQUE}, 1.0f);
    outcome.all_parameters = joint.get_parameters_all().size();
    outcome.feedback_items = joint.get_feedback().size();
    joint.blink();
    joint.save_config();
    outcome.address = joint.get_address();
    outcome.model = joint.get_model_name();
    outcome.firmware = joint.get_firmware_version();
    outcome.still_connected = joint.is_connected();
    outcome.mode = joint.get_mode();
    outcome.can_high_speed = joint.get_can_high_speed();
    joint.stop();
    joint.disconnect();
    return outcome;
}

TEST(HostCodeCompatibilityIntegration, PhysicalActuatorOverARecordingTransport) {
    RecordingTransport transport;
    // A device that answers pings and parameter requests at once.
    transport.set_responder([&](int address, const Bytes& frame) {
        if (is_command(frame, wire::Command::PING)) transport.deliver(address, ping_reply(3, 0x0842));
        if (is_command(frame, wire::Command::GET_PARAMETERS)) {
            Bytes reply{static_cast<uint8_t>(wire::RecordCode::PARAMETERS)};
            for (std::size_t i = 1; i < frame.size(); ++i)
                ocp_api::codec::ParameterEntry::of(frame[i], 2.0f).encode_into(reply);
            transport.deliver(address, reply);
        }
    });
    OrreryActuator joint(transport, 0x21);
    const auto outcome = drive_joint(joint);
    EXPECT_TRUE(outcome.pinged);
    EXPECT_TRUE(outcome.connected);
    EXPECT_TRUE(outcome.still_connected);
    EXPECT_FALSE(outcome.can_high_speed);
    EXPECT_EQ(outcome.address, 0x21);
    EXPECT_EQ(outcome.model, "HERON_A");
    EXPECT_EQ(outcome.firmware, "1.1.2");
    EXPECT_EQ(outcome.mode, OrreryActuator::Mode::IMPEDANCE);
    EXPECT_EQ(outcome.limit.at(OrreryActuator::OCP_Parameters::LIMIT_TORQUE), 2.0f);
    EXPECT_EQ(outcome.all_parameters, 31u);
    EXPECT_EQ(outcome.feedback_items, 0u);
    EXPECT_FALSE(joint.is_connected());
    transport.set_responder(nullptr);
}

TEST(HostCodeCompatibilityIntegration, SimulatedActuator) {
    OrreryActuatorVirtual joint(0x21);
    const auto outcome = drive_joint(joint);
    EXPECT_TRUE(outcome.pinged);
    EXPECT_TRUE(outcome.connected);
    EXPECT_TRUE(outcome.still_connected);
    EXPECT_FALSE(outcome.can_high_speed);
    EXPECT_EQ(outcome.address, 0x21);
    EXPECT_EQ(outcome.model, "virtual");
    EXPECT_EQ(outcome.firmware, "cpp-virtual-2.0.0");
    EXPECT_EQ(outcome.mode, OrreryActuatorVirtual::Mode::IMPEDANCE);
    EXPECT_EQ(outcome.limit.at(OrreryActuatorVirtual::OCP_Parameters::LIMIT_TORQUE), 2.0f);
    // The twelve of construction plus SPEED_FF, K_STIFF, K_DAMP and the two presets.
    EXPECT_EQ(outcome.all_parameters, 17u);
    EXPECT_EQ(outcome.feedback_items, 3u);
    EXPECT_FALSE(joint.is_connected());
    EXPECT_FALSE(joint.is_running());
}

// What does not overlap: the same operations spelled differently.
template <class Actuator, class = void>
struct HasSetFeedbackItems : std::false_type {};
template <class Actuator>
struct HasSetFeedbackItems<Actuator, std::void_t<decltype(std::declval<Actuator&>().setFeedbackItems({}))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasSetFeedbackItemsLower : std::false_type {};
template <class Actuator>
struct HasSetFeedbackItemsLower<Actuator, std::void_t<decltype(std::declval<Actuator&>().set_feedback_items({}))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasSetFeedbackRate : std::false_type {};
template <class Actuator>
struct HasSetFeedbackRate<Actuator, std::void_t<decltype(std::declval<Actuator&>().setFeedbackRate(1))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasSetFeedbackRateLower : std::false_type {};
template <class Actuator>
struct HasSetFeedbackRateLower<Actuator, std::void_t<decltype(std::declval<Actuator&>().set_feedback_rate(1))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasGetItemsBlocking : std::false_type {};
template <class Actuator>
struct HasGetItemsBlocking<Actuator, std::void_t<decltype(std::declval<Actuator&>().getItemsBlocking({}))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasGetItemsBlockingLower : std::false_type {};
template <class Actuator>
struct HasGetItemsBlockingLower<Actuator, std::void_t<decltype(std::declval<Actuator&>().get_items_blocking({}))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasChangeAddress : std::false_type {};
template <class Actuator>
struct HasChangeAddress<Actuator, std::void_t<decltype(std::declval<Actuator&>().changeAddress(0x22))>>
    : std::true_type {};
template <class Actuator, class = void>
struct HasChangeAddressLower : std::false_type {};
template <class Actuator>
struct HasChangeAddressLower<Actuator, std::void_t<decltype(std::declval<Actuator&>().change_address(0x22))>>
    : std::true_type {};

TEST(HostCodeCompatibilityIntegration, FeedbackSelectionItemRequestsAndAddressChangesAreSpelledDifferently) {
    static_assert(HasSetFeedbackItems<OrreryActuator>::value && !HasSetFeedbackItemsLower<OrreryActuator>::value);
    static_assert(!HasSetFeedbackItems<OrreryActuatorVirtual>::value &&
                  HasSetFeedbackItemsLower<OrreryActuatorVirtual>::value);
    static_assert(HasSetFeedbackRate<OrreryActuator>::value && !HasSetFeedbackRateLower<OrreryActuator>::value);
    static_assert(!HasSetFeedbackRate<OrreryActuatorVirtual>::value &&
                  HasSetFeedbackRateLower<OrreryActuatorVirtual>::value);
    static_assert(HasGetItemsBlocking<OrreryActuator>::value && !HasGetItemsBlockingLower<OrreryActuator>::value);
    static_assert(!HasGetItemsBlocking<OrreryActuatorVirtual>::value &&
                  HasGetItemsBlockingLower<OrreryActuatorVirtual>::value);
    static_assert(HasChangeAddress<OrreryActuator>::value && !HasChangeAddressLower<OrreryActuator>::value);
    static_assert(!HasChangeAddress<OrreryActuatorVirtual>::value && HasChangeAddressLower<OrreryActuatorVirtual>::value);
    SUCCEED() << "checked at compile time";
}

// Host code may overload on the enumerations of the two classes: each class
// nests its own types, with the same members and values.
const char* kind(OrreryActuator::OCP_Items) { return "physical item"; }
const char* kind(OrreryActuatorVirtual::OCP_Items) { return "simulated item"; }
const char* kind(OrreryActuator::Rates) { return "physical rate"; }
const char* kind(OrreryActuatorVirtual::Rates) { return "simulated rate"; }
const char* kind(OrreryActuator::OCP_Parameters) { return "physical parameter"; }
const char* kind(OrreryActuatorVirtual::OCP_Parameters) { return "simulated parameter"; }
const char* kind(OrreryActuator::Mode) { return "physical mode"; }
const char* kind(OrreryActuatorVirtual::Mode) { return "simulated mode"; }
const char* kind(OrreryActuator::TorquePerformance) { return "physical torque preset"; }
const char* kind(OrreryActuatorVirtual::TorquePerformance) { return "simulated torque preset"; }
const char* kind(OrreryActuator::SpeedPerformance) { return "physical speed preset"; }
const char* kind(OrreryActuatorVirtual::SpeedPerformance) { return "simulated speed preset"; }

TEST(HostCodeCompatibilityIntegration, HostCodeOverloadsOnTheEnumerationsOfBothClasses) {
    EXPECT_STREQ(kind(OrreryActuator::OCP_Items::POS_FB_41), "physical item");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::OCP_Items::POS_FB_41), "simulated item");
    EXPECT_STREQ(kind(OrreryActuator::Rates::RATE_1KHZ), "physical rate");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::Rates::RATE_1KHZ), "simulated rate");
    EXPECT_STREQ(kind(OrreryActuator::OCP_Parameters::MODE), "physical parameter");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::OCP_Parameters::MODE), "simulated parameter");
    EXPECT_STREQ(kind(OrreryActuator::Mode::SPEED), "physical mode");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::Mode::SPEED), "simulated mode");
    EXPECT_STREQ(kind(OrreryActuator::TorquePerformance::PRESET_2), "physical torque preset");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::TorquePerformance::PRESET_2), "simulated torque preset");
    EXPECT_STREQ(kind(OrreryActuator::SpeedPerformance::PRESET_2), "physical speed preset");
    EXPECT_STREQ(kind(OrreryActuatorVirtual::SpeedPerformance::PRESET_2), "simulated speed preset");
}

template <class Physical, class Simulated>
void expect_twins() {
    static_assert(!std::is_same_v<Physical, Simulated>);
    static_assert(std::is_same_v<std::underlying_type_t<Physical>, std::underlying_type_t<Simulated>>);
}

TEST(HostCodeCompatibilityIntegration, TheTwinEnumerationsShareMembersValuesAndUnderlyingTypes) {
    expect_twins<OrreryActuator::OCP_Items, OrreryActuatorVirtual::OCP_Items>();
    expect_twins<OrreryActuator::Rates, OrreryActuatorVirtual::Rates>();
    expect_twins<OrreryActuator::OCP_Parameters, OrreryActuatorVirtual::OCP_Parameters>();
    expect_twins<OrreryActuator::Mode, OrreryActuatorVirtual::Mode>();
    expect_twins<OrreryActuator::TorquePerformance, OrreryActuatorVirtual::TorquePerformance>();
    expect_twins<OrreryActuator::SpeedPerformance, OrreryActuatorVirtual::SpeedPerformance>();
    ASSERT_EQ(OrreryActuator::ALL_ITEMS.size(), OrreryActuatorVirtual::ALL_ITEMS.size());
    for (std::size_t i = 0; i < OrreryActuator::ALL_ITEMS.size(); ++i)
        EXPECT_EQ(code_of(OrreryActuator::ALL_ITEMS[i]), code_of(OrreryActuatorVirtual::ALL_ITEMS[i]));
    ASSERT_EQ(OrreryActuator::ALL_PARAMETERS.size(), OrreryActuatorVirtual::ALL_PARAMETERS.size());
    for (std::size_t i = 0; i < OrreryActuator::ALL_PARAMETERS.size(); ++i)
        EXPECT_EQ(code_of(OrreryActuator::ALL_PARAMETERS[i]), code_of(OrreryActuatorVirtual::ALL_PARAMETERS[i]));
    EXPECT_EQ(code_of(OrreryActuator::Mode::POSITION), code_of(OrreryActuatorVirtual::Mode::POSITION));
    EXPECT_EQ(code_of(OrreryActuator::Rates::RATE_200HZ), 200);
    EXPECT_EQ(code_of(OrreryActuatorVirtual::Rates::RATE_200HZ), 200);
}

}  // namespace
