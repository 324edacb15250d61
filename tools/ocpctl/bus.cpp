#include "bus.hpp"

#include "cli_support.hpp"

namespace ocpctl {

namespace {

struct Scheme {
    const char* name;
    const char* usage;
};

// Every bus ocpctl can open. Transports to real adapters add their entries
// here (and a branch in Bus::Bus).
constexpr Scheme SCHEMES[] = {
    {"sim", "sim or sim:ADDR,ADDR,... (a simulated bus with emulated actuators)"},
};

std::string known_schemes() {
    std::string text;
    for (const auto& scheme : SCHEMES) {
        if (!text.empty()) text += "; ";
        text += scheme.usage;
    }
    return text;
}

// Models given to the emulated actuators in turn: HERON_A, KESTREL_B, HERON_C.
constexpr uint16_t SIM_MODELS[] = {3, 2, 6};
constexpr uint16_t SIM_FIRMWARE[] = {0x0842, 0x0903, 0x1001};

std::vector<int> sim_addresses(const std::string& argument) {
    if (argument.empty()) return default_sim_addresses();
    std::vector<int> addresses;
    std::size_t start = 0;
    while (start <= argument.size()) {
        const std::size_t comma = argument.find(',', start);
        const std::string part = argument.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const int address = parse_address(part);
        for (const int taken : addresses) {
            if (taken == address) throw UsageError("address " + hex(address) + " is listed twice in --bus sim:" + argument);
        }
        addresses.push_back(address);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return addresses;
}

}  // namespace

std::vector<int> default_sim_addresses() { return {0x21, 0x22, 0x23}; }

BusChoice parse_bus(const std::string& text) {
    const std::size_t colon = text.find(':');
    BusChoice choice{text.substr(0, colon), colon == std::string::npos ? "" : text.substr(colon + 1), text};
    for (const auto& scheme : SCHEMES) {
        if (choice.scheme == scheme.name) {
            if (choice.scheme == "sim") sim_addresses(choice.argument);  // checked now, before anything opens
            return choice;
        }
    }
    throw UsageError("unknown bus '" + text + "' (known: " + known_schemes() + ")");
}

Bus::Bus(const BusChoice& choice) {
    if (choice.scheme == "sim") {
        auto sim = std::make_unique<ocp_api::SimBus>();
        const std::vector<int> addresses = sim_addresses(choice.argument);
        for (std::size_t i = 0; i < addresses.size(); ++i) {
            const std::size_t model = i % (sizeof SIM_MODELS / sizeof SIM_MODELS[0]);
            sim->add_actuator(addresses[i], SIM_MODELS[model], SIM_FIRMWARE[model]);
        }
        sim_ = sim.get();
        transport_ = std::move(sim);
        return;
    }
    throw UsageError("unknown bus '" + choice.text + "' (known: " + known_schemes() + ")");
}

}  // namespace ocpctl
