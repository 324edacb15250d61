#include "bus.hpp"

#include <stdexcept>

#include <ocp_api/bus_factory.hpp>

#include "cli_support.hpp"

namespace ocpctl {

std::string bus_option_help() {
    std::string text = "Bus:";
    for (const ocp_api::BusScheme& scheme : ocp_api::bus_schemes()) {
        text += (text == "Bus:" ? " " : "; ") + scheme.usage + " (" + scheme.description + ")";
    }
    return text;
}

Bus::Bus(const std::string& text) {
    try {
        transport_ = ocp_api::open_bus(text);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
}

}  // namespace ocpctl
