// Builds against the installed headers and library only.
#include <cstdio>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>

namespace {

class CountingTransport : public ocp_api::OCP {
public:
    bool send(int address, const std::vector<uint8_t>& frame) override {
        last_address = address;
        last_frame = frame;
        return true;
    }
    void setCallback(int, ReceiveCallback cb) override { callback = std::move(cb); }
    void removeCallback(int) override { callback = nullptr; }
    void close() override {}

    int last_address = -1;
    std::vector<uint8_t> last_frame;
    ReceiveCallback callback;
};

}  // namespace

int main() {
    CountingTransport transport;
    ocp_api::OrreryActuator actuator(transport, 0x21);
    actuator.change_setpoint(1.0f);
    if (transport.last_address != 0x21 || transport.last_frame != std::vector<uint8_t>{0x04, 0x00, 0x00, 0x80, 0x3F}) {
        std::puts("consumer: unexpected frame");
        return 1;
    }
    transport.callback(0x21, {0x80, 0x03, 0x00, 0x42, 0x08}, 0);
    std::printf("consumer ok: %s %s\n", actuator.get_model_name().c_str(), actuator.get_firmware_version().c_str());
    return 0;
}
