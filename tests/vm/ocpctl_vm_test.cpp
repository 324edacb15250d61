// ocpctl on SocketCAN interfaces, run as a separate process against emulated
// devices this test hosts on the same interface. Runs inside the VM
// (tests/vm/run-in-vm.sh copies ocpctl to /test).
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "ocp_api/can_device_host.hpp"
#include "ocp_api/socketcan_bus.hpp"
#include "ocp_api/socketcan_link.hpp"
#include "tools/process.hpp"
#include "vm/guest.hpp"

namespace {

using namespace ocp_api;

const std::string kOcpctl = "/test/ocpctl";

std::unique_ptr<CanDeviceHost> devices_on(const std::string& interface, bool fd) {
    SocketCanLinkOptions link;
    link.fd = fd;
    link.filters = {mapped_frames_filter(can::Direction::to_device)};
    CanDeviceHostOptions options;
    options.isotp.fd = fd;
    auto host = std::make_unique<CanDeviceHost>(
        std::make_unique<SocketCanLink>(interface, link), options);
    host->add_actuator(0x21, 3, 0x0842);
    host->add_actuator(0x22, 2, 0x0903);
    return host;
}

TEST(OcpctlOnSocketCan, AMissingInterfaceIsNamed) {
    const auto result = ocp_test::run_process({kOcpctl, "--bus", "socketcan:nosuch0", "scan"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ocpctl: CAN interface nosuch0: not found: No such device\n");
    EXPECT_EQ(result.out, "");
}

TEST(OcpctlOnSocketCan, AnInterfaceThatIsDownIsNamed) {
    ocp_vm::add_vcan("vcanoff0", 16);
    ocp_vm::set_interface_up("vcanoff0", false);
    const auto result = ocp_test::run_process({kOcpctl, "--bus", "socketcan:vcanoff0", "info", "0x21"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ocpctl: CAN interface vcanoff0: the interface is down: Network is down\n");
    EXPECT_EQ(result.out, "");
    ocp_vm::remove_interface("vcanoff0");
}

TEST(OcpctlOnSocketCan, FdOnAClassicInterfaceIsNamed) {
    const auto result = ocp_test::run_process({kOcpctl, "--bus", "socketcan:vcan0,fd", "scan"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err,
              "ocpctl: CAN interface vcan0: cannot carry CAN-FD frames (MTU 16, CAN-FD needs 72): Protocol not "
              "supported\n");
}

class OcpctlCommands : public testing::TestWithParam<bool> {
protected:
    std::string bus() const { return GetParam() ? "socketcan:" + ocp_vm::fd_interface() + ",fd" : "socketcan:" + ocp_vm::classic_interface(); }
    std::unique_ptr<CanDeviceHost> devices() const {
        return devices_on(GetParam() ? ocp_vm::fd_interface() : ocp_vm::classic_interface(), GetParam());
    }
};

TEST_P(OcpctlCommands, ScanFindsTheDevices) {
    auto host = devices();
    const auto result = ocp_test::run_process({kOcpctl, "--bus", bus(), "scan", "--from", "0x20", "--to", "0x23"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out,
              "ADDRESS  MODEL       FIRMWARE\n"
              "0x21     HERON_A     1.1.2\n"
              "0x22     KESTREL_B   1.4.3\n");
}

TEST_P(OcpctlCommands, ParametersSetAndReadBackAcrossInvocations) {
    auto host = devices();
    auto result = ocp_test::run_process({kOcpctl, "--bus", bus(), "params", "set", "0x21", "LIMIT_TORQUE=2.5"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    result = ocp_test::run_process({kOcpctl, "--bus", bus(), "params", "get", "0x21", "LIMIT_TORQUE"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "LIMIT_TORQUE           2.5\n");
}

TEST_P(OcpctlCommands, ASilentAddressIsNamed) {
    auto host = devices();
    const auto result = ocp_test::run_process({kOcpctl, "--bus", bus(), "--timeout", "0.2", "info", "0x30"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ocpctl: no answer from 0x30 after 0.2 s\n");
}

INSTANTIATE_TEST_SUITE_P(Vcan, OcpctlCommands, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "CanFd" : "Classic"; });

}  // namespace
