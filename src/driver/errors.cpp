// Error words and firmware-version words.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"
#include "ocp_api/identifier_tables.hpp"

namespace ocp_api {

namespace {

const std::unordered_map<int, std::string>& error_descriptions() {
    static const std::unordered_map<int, std::string> table = [] {
        std::unordered_map<int, std::string> built;
        for (const auto& entry : tables::ERROR_BITS) built.emplace(entry.bit, std::string(entry.description));
        return built;
    }();
    return table;
}

}  // namespace

void OrreryActuator::parse_errors(uint32_t error_word) {
    ErrorMap errors;
    for (const auto& [bit, description] : error_descriptions()) {
        if ((error_word >> (bit % 32)) & 1u) errors.emplace(bit, description);
    }
    if (errors.empty()) return;
    std::shared_ptr<const ErrorCallback> callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        callback = error_callback_.current();
    }
    if (callback) (*callback)(address_.load(), std::move(errors));
}

void OrreryActuator::default_error_callback(int address, const ErrorMap& errors) {
    for (const auto& [bit, description] : errors) {
        detail::ErrorLine(detail::AfterLine::DECIMAL) << "Actuator 0x" << std::hex << address << std::dec
                                                      << " Error code: " << bit << " - " << description;
        if (bit >= FIRST_SEVERE_ERROR_BIT) {
            stop();
            detail::ErrorLine(detail::AfterLine::DECIMAL) << "Actuator 0x" << std::hex << address
                                                          << " Stopping (override error_callback to change)";
        }
    }
}

std::string OrreryActuator::parse_firmware_version(uint16_t word) { return wire::firmware_version_text(word); }

}  // namespace ocp_api
