// Any text as a --bus argument: the bus factory either opens a bus or refuses
// the text with std::invalid_argument and a message, never anything else, and
// what it parses as a SocketCAN choice has an interface and a CAN-FD data
// length a frame can have. SocketCAN texts are only parsed, not opened (the
// interfaces are the machine's); every other text is opened, so a simulated
// bus is started and closed for each one that names one.
//
// Input: the text itself.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "ocp_api/bus_factory.hpp"
#include "support/fuzz_input.hpp"

namespace {

using ocp_fuzz::require;

bool is_fd_data_length(unsigned length) {
    for (const unsigned valid : {8u, 12u, 16u, 20u, 24u, 32u, 48u, 64u})
        if (length == valid) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // A list of a few hundred addresses is the longest text worth a bus.
    if (size > 256) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const ocp_api::SocketCanChoice choice = ocp_api::parse_socketcan_bus(text);
        require(text.rfind("socketcan:", 0) == 0, "a SocketCAN choice from another scheme");
        require(!choice.interface.empty(), "a SocketCAN choice without an interface");
        require(is_fd_data_length(choice.fd_data_length), "a CAN-FD data length no frame has");
        require(choice.fd || choice.fd_data_length == 64, "a data length without CAN-FD");
        return 0;
    } catch (const std::invalid_argument& refused) {
        require(refused.what()[0] != '\0', "a refusal without a message");
    }
    if (text.rfind("socketcan", 0) == 0) return 0;
    try {
        const auto bus = ocp_api::open_bus(text);
        require(bus != nullptr, "open_bus gave no bus");
        bus->close();
    } catch (const std::invalid_argument& refused) {
        require(refused.what()[0] != '\0', "a refusal without a message");
    }
    return 0;
}
