// The group over CanBus on in-process virtual channels with emulated devices
// (the CAN mapping, segmentation and the device side all real): feedback
// arrives fresh over classic CAN and CAN-FD at once, the link's state shows in
// the snapshot, and every device is stopped when the group goes.
#include "ocp_api/actuator_group.hpp"

#include <gtest/gtest.h>

#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_device_host.hpp"
#include "ocp_api/virtual_can.hpp"
#include "support/eventually.hpp"

namespace {

using namespace std::chrono_literals;
using ocp_api::FeedbackStatus;
using Item = ocp_api::OrreryActuator::OCP_Items;
using Mode = ocp_api::OrreryActuator::Mode;

// One device at a time: a PhysicsAccess holds the host's lock until the end
// of the full expression, so two in one expression would wait on each other.
bool running(ocp_api::CanDeviceHost& host, int address) { return host.actuator(address).physics()->is_running(); }

struct Segment {
    explicit Segment(bool fd) {
        ocp_api::CanDeviceHostOptions host_options;
        host_options.isotp.fd = fd;
        host = std::make_unique<ocp_api::CanDeviceHost>(channel.open(fd), host_options);
        ocp_api::CanBusOptions bus_options;
        bus_options.isotp.fd = fd;
        bus = std::make_unique<ocp_api::CanBus>(channel.open(fd), bus_options);
    }
    ocp_api::VirtualCanChannel channel;
    std::unique_ptr<ocp_api::CanDeviceHost> host;
    std::unique_ptr<ocp_api::CanBus> bus;
};

TEST(ActuatorGroupCanIntegration, ClassicAndFdBusesInOneGroupLinkStateAndStopOnDestruction) {
    Segment classic(false);
    Segment fd(true);
    classic.host->add_actuator(0x21);
    fd.host->add_actuator(0x31);
    fd.host->add_actuator(0x32);
    auto group = std::make_unique<ocp_api::ActuatorGroup>();
    group->add(*classic.bus, 0x21);
    group->add(*fd.bus, 0x31);
    group->add(*fd.bus, 0x32);
    group->set_up({{Item::POS_FB_4C, Item::SPD_FB_45, Item::T_FB_56, Item::ERRORS_90}, 500, Mode::SPEED});
    group->start_all();
    ocp_api::GroupSnapshot snapshot;
    std::vector<bool> fresh(3, false);
    ASSERT_TRUE(ocp_test::eventually([&] {
        group->take_snapshot(snapshot);
        for (std::size_t i = 0; i < 3; ++i)
            if (snapshot.actuators[i].status == FeedbackStatus::fresh) fresh[i] = true;
        return fresh[0] && fresh[1] && fresh[2];
    }));
    EXPECT_EQ(snapshot.actuators[0].bus, 0u);
    EXPECT_EQ(snapshot.actuators[2].bus, 1u);
    EXPECT_EQ(snapshot.actuators[0].link, ocp_api::CanLinkState::active);
    EXPECT_EQ(snapshot.actuators[0].word(Item::ERRORS_90), 0u);
    EXPECT_TRUE(running(*fd.host, 0x31));

    fd.channel.set_state(ocp_api::CanLinkState::error_passive);
    ASSERT_TRUE(ocp_test::eventually([&] {
        group->take_snapshot(snapshot);
        return snapshot.actuators[1].link == ocp_api::CanLinkState::error_passive;
    }));
    EXPECT_EQ(snapshot.actuators[0].link, ocp_api::CanLinkState::active);
    EXPECT_EQ(group->statistics().buses[1].link, ocp_api::CanLinkState::error_passive);
    fd.channel.set_state(ocp_api::CanLinkState::active);

    group.reset();
    EXPECT_TRUE(ocp_test::eventually([&] {
        return !running(*classic.host, 0x21) && !running(*fd.host, 0x31) && !running(*fd.host, 0x32);
    }));
}

}  // namespace
