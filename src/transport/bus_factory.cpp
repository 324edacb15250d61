#include "ocp_api/bus_factory.hpp"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "ocp_api/number_format.hpp"
#include "ocp_api/sim_bus.hpp"
#include "ocp_api/socketcan_bus.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

bool parse_number(const std::string& text, long& value) {
    long long parsed = 0;
    if (!parse_integer(text, parsed) || parsed < LONG_MIN || parsed > LONG_MAX) return false;
    value = static_cast<long>(parsed);
    return true;
}

// A plain "sim" bus, and the models given in turn to the listed addresses:
// HERON_A, KESTREL_B, HERON_C.
constexpr int DEFAULT_SIM_ADDRESSES[] = {0x21, 0x22, 0x23};
constexpr uint16_t SIM_MODELS[] = {3, 2, 6};
constexpr uint16_t SIM_FIRMWARE[] = {0x0842, 0x0903, 0x1001};

std::vector<int> sim_addresses(const std::string& argument) {
    if (argument.empty()) return {std::begin(DEFAULT_SIM_ADDRESSES), std::end(DEFAULT_SIM_ADDRESSES)};
    std::vector<int> addresses;
    for (const std::string& part : split(argument, ',')) {
        long address = 0;
        if (!parse_number(part, address) || address < wire::MIN_DEVICE_ADDRESS || address > wire::MAX_DEVICE_ADDRESS) {
            throw std::invalid_argument("invalid address '" + part + "' in bus 'sim:" + argument +
                                        "' (expected addresses such as 0x21 or 33, in 0x10..0x3FFE)");
        }
        for (const int taken : addresses) {
            if (taken == address) {
                throw std::invalid_argument("address " + part + " is listed twice in bus 'sim:" + argument + "'");
            }
        }
        addresses.push_back(static_cast<int>(address));
    }
    return addresses;
}

std::unique_ptr<OCP> open_sim(const std::string& argument) {
    const std::vector<int> addresses = sim_addresses(argument);
    auto bus = std::make_unique<SimBus>();
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const std::size_t model = i % (sizeof SIM_MODELS / sizeof SIM_MODELS[0]);
        bus->add_actuator(addresses[i], SIM_MODELS[model], SIM_FIRMWARE[model]);
    }
    return bus;
}

// The interface and options of a "socketcan:" argument ("can0,fd,dlen=16").
SocketCanChoice socketcan_choice_of(const std::string& argument) {
    const std::vector<std::string> parts = split(argument, ',');
    if (parts[0].empty()) throw std::invalid_argument("bus 'socketcan:' needs an interface name, e.g. socketcan:can0");
    SocketCanChoice choice;
    choice.interface = parts[0];
    bool length_given = false;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        long length = 0;
        if (parts[i] == "fd") {
            choice.fd = true;
        } else if (parts[i].rfind("dlen=", 0) == 0 && parse_number(parts[i].substr(5), length) && length >= 8 &&
                   is_valid_frame_length(static_cast<std::size_t>(length), true)) {
            choice.fd_data_length = static_cast<uint8_t>(length);
            length_given = true;
        } else {
            throw std::invalid_argument("invalid option '" + parts[i] + "' in bus 'socketcan:" + argument +
                                        "' (expected fd, or dlen= one of 8, 12, 16, 20, 24, 32, 48, 64)");
        }
    }
    if (length_given && !choice.fd) {
        throw std::invalid_argument("dlen applies to CAN-FD only: add ',fd' to bus 'socketcan:" + argument + "'");
    }
    return choice;
}

std::unique_ptr<OCP> open_socketcan(const std::string& argument) {
    const SocketCanChoice choice = socketcan_choice_of(argument);
    SocketCanBusOptions options;
    options.fd = choice.fd;
    options.fd_data_length = choice.fd_data_length;
    return std::make_unique<SocketCanBus>(choice.interface, options);
}

struct SchemeEntry {
    BusScheme scheme;
    std::unique_ptr<OCP> (*open)(const std::string& argument);
};

// The one table of bus schemes.
const std::vector<SchemeEntry>& scheme_table() {
    static const std::vector<SchemeEntry> table = {
        {{"sim", "sim[:ADDR,ADDR,...]", "a simulated bus with emulated actuators, by default at 0x21, 0x22, 0x23"},
         open_sim},
        {{"socketcan", "socketcan:IF[,fd][,dlen=N]", "a SocketCAN interface such as can0, optionally CAN-FD"},
         open_socketcan},
    };
    return table;
}

std::string known_schemes() {
    std::string text;
    for (const SchemeEntry& entry : scheme_table()) text += (text.empty() ? "" : ", ") + entry.scheme.usage;
    return text;
}

}  // namespace

std::vector<BusScheme> bus_schemes() {
    std::vector<BusScheme> schemes;
    for (const SchemeEntry& entry : scheme_table()) schemes.push_back(entry.scheme);
    return schemes;
}

std::unique_ptr<OCP> open_bus(const std::string& bus) {
    const std::size_t colon = bus.find(':');
    const std::string name = bus.substr(0, colon);
    const std::string argument = colon == std::string::npos ? "" : bus.substr(colon + 1);
    for (const SchemeEntry& entry : scheme_table()) {
        if (entry.scheme.name == name) return entry.open(argument);
    }
    throw std::invalid_argument("unknown bus '" + bus + "' (known: " + known_schemes() + ")");
}

SocketCanChoice parse_socketcan_bus(const std::string& bus) {
    constexpr std::string_view PREFIX = "socketcan:";
    if (bus.rfind(PREFIX.data(), 0) != 0)
        throw std::invalid_argument("bus '" + bus + "' is not a CAN interface (expected socketcan:IF[,fd][,dlen=N])");
    return socketcan_choice_of(bus.substr(PREFIX.size()));
}

}  // namespace ocp_api
