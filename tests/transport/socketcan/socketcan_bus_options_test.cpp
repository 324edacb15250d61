// What SocketCanBus decides before it touches any interface: it runs without
// a kernel CAN stack.
#include "ocp_api/socketcan_bus.hpp"

#include <stdexcept>

#include <gtest/gtest.h>

namespace {

// A frame length CAN-FD does not have is refused as a bad argument, before the
// (missing) interface is opened, so the caller learns about the option first.
TEST(SocketCanBusOptions, ABadFrameLengthIsRefusedBeforeTheInterfaceIsOpened) {
    ocp_api::SocketCanBusOptions options;
    options.fd = true;
    options.fd_data_length = 13;
    EXPECT_THROW(ocp_api::SocketCanBus("nosuch0", options), std::invalid_argument);
}

}  // namespace
