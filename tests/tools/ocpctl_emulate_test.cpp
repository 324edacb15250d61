// ocpctl emulate's argument checks, run as a process. Serving devices needs a
// kernel CAN stack: those tests run in the VM (tests/vm/emulate_integration_test.cpp).
#include <gtest/gtest.h>

#include "tools/ocpctl_process.hpp"

namespace {

using ocp_test::ProcessResult;
using ocp_test::run_process;

using ocp_test::ocpctl;

TEST(OcpctlEmulate, NeedsASocketCanBus) {
    const auto result = ocpctl({"emulate", "0x21"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_EQ(result.err,
              "ocpctl: bus 'sim' is not a CAN interface (expected socketcan:IF[,fd][,dlen=N]); emulate needs --bus "
              "socketcan:IF, e.g. socketcan:vcan0\n");
}

TEST(OcpctlEmulate, BadAddressesModelsAndVersionsAreUsageErrors) {
    const auto address = ocpctl({"--bus", "socketcan:vcan9", "emulate", "0x21,0x5"});
    EXPECT_EQ(address.exit_status, 2);
    EXPECT_EQ(address.err, "ocpctl: address 0x5 is outside 0x10..0x3FFE\n");
    const auto model = ocpctl({"--bus", "socketcan:vcan9", "emulate", "0x21", "--model", "nope"});
    EXPECT_EQ(model.exit_status, 2);
    EXPECT_EQ(model.err,
              "ocpctl: unknown model 'nope' (known: KESTREL_A, KESTREL_B, HERON_A, HERON_B, CAN_ADAPTER, HERON_C, "
              "HERON_D, HERON_E, KESTREL_C, KESTREL_D)\n");
    for (const char* version : {"1.2", "32.0.0", "1.2.64", "1.2.3x", "1..3"}) {
        const auto firmware = ocpctl({"--bus", "socketcan:vcan9", "emulate", "0x21", "--firmware", version});
        EXPECT_EQ(firmware.exit_status, 2) << version;
        EXPECT_EQ(firmware.err, std::string("ocpctl: invalid --firmware '") + version +
                                    "' (expected X.Y.Z with X, Y up to 31 and Z up to 63)\n");
    }
}

TEST(OcpctlEmulate, AnInterfaceThatCannotOpenIsNamed) {
    const auto result = ocpctl({"--bus", "socketcan:vcan9", "emulate", "0x21", "--model", "kestrel_b"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("ocpctl: CAN interface vcan9: ", 0), 0u) << result.err;
}

}  // namespace

namespace {

TEST(OcpctlEmulate, HelpOffersTurningTheLimitsOff) {
    const auto help = ocpctl({"emulate", "--help"});
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_NE(help.out.find("--no-limits"), std::string::npos);
    EXPECT_NE(help.out.find("clamp"), std::string::npos);
}

}  // namespace
