// An emulated actuator and the host on one in-process CAN channel, with a third
// endpoint printing every frame in the log format of `candump -L`. Shows the
// CAN mapping at work without any hardware: ./virtual_can_trace [fd]
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <thread>

#include <ocp_api/can_bus.hpp>
#include <ocp_api/can_device_host.hpp>
#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/virtual_can.hpp>

namespace {

// Prints frames as `candump -L` would: identifier, `#` (classic) or `##` and
// the flags nibble (CAN-FD), then the data in hex.
void print_frame(const ocp_api::CanFrame& frame) {
    std::printf("vcan0 %08" PRIX32 "%s", frame.id, frame.fd ? "##" : "#");
    if (frame.fd) std::printf("%X", frame.brs ? 1 : 0);
    for (uint8_t i = 0; i < frame.len; ++i) std::printf("%02X", frame.data[i]);
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ocp_api;
    const bool fd = argc > 1 && std::strcmp(argv[1], "fd") == 0;
    can::IsoTpOptions segmentation;
    segmentation.fd = fd;

    VirtualCanChannel channel;
    auto tap = channel.open(true);
    CanDeviceHost devices(channel.open(fd), CanDeviceHostOptions{segmentation});
    devices.add_actuator(0x21);
    {
        CanBus bus(channel.open(fd), CanBusOptions{segmentation});
        OrreryActuator joint(bus, 0x21);
        joint.connect(1.0f);
        joint.get_parameters({OrreryActuator::OCP_Parameters::LIMIT_TORQUE, OrreryActuator::OCP_Parameters::ADDRESS}, 1.0f);
        joint.get_parameters_all();
    }
    // Everything has been answered; print what crossed the channel.
    for (;;) {
        const CanLinkEvent event = tap->receive(std::chrono::milliseconds(100));
        if (event.type == CanLinkEvent::Type::none) break;
        if (event.type == CanLinkEvent::Type::frame) print_frame(event.frame);
    }
    return 0;
}
