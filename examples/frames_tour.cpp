// Prints the command frames that common actuator calls put on the bus, using a
// transport that only logs. A first look at the library without any hardware.
#include <cstdio>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>

namespace {

class LoggingTransport : public ocp_api::OCP {
public:
    bool send(int address, const std::vector<uint8_t>& frame) override {
        std::printf("-> 0x%02x:", address);
        for (const uint8_t byte : frame) std::printf(" %02X", byte);
        std::printf("\n");
        return true;
    }
    void setCallback(int, ReceiveCallback) override {}
    void removeCallback(int) override {}
    void close() override {}
};

}  // namespace

int main() {
    using ocp_api::OrreryActuator;
    LoggingTransport transport;
    OrreryActuator actuator(transport, 0x21);
    actuator.setFeedbackItems({OrreryActuator::OCP_Items::POS_FB_4C, OrreryActuator::OCP_Items::SPD_FB_45});
    actuator.setFeedbackRate(OrreryActuator::Rates::RATE_200HZ);
    actuator.start();
    actuator.change_position_setpoint(1.0f);
    actuator.set_parameters({{OrreryActuator::OCP_Parameters::LIMIT_TORQUE, 2.5f}});
    actuator.stop();
    return 0;
}
