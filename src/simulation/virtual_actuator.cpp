// State and construction of the simulated actuator.
#include <stdexcept>

#include "ocp_api/orrery_actuator_virtual.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

constexpr const char* INVALID_ADDRESS_MESSAGE = "Invalid virtual actuator address";
constexpr const char* VIRTUAL_MODEL_NAME = "virtual";
constexpr const char* VIRTUAL_FIRMWARE = "cpp-virtual-2.0.0";

// Limit conditions the model can report. Nothing sets them in this version;
// the reports and the error item show them so callers can rely on the keys.
constexpr const char* LIMIT_FLAG_NAMES[] = {
    "T_fb_max",   "T_ref_max",   "i_max",      "pos_fb_max",  "pos_fb_min",
    "pos_ref_max", "pos_ref_min", "spd_fb_max", "spd_ref_max", "spd_ref_min",
};

}  // namespace

bool OrreryActuatorVirtual::is_valid_actuator_address(int address) { return wire::is_valid_device_address(address); }

OrreryActuatorVirtual::OrreryActuatorVirtual(int bus_address)
    : address(bus_address), model(VIRTUAL_MODEL_NAME), firmware(VIRTUAL_FIRMWARE) {
    feedback.max_load_factor(1.0f);
    parameters.max_load_factor(1.0f);
    limit_flags.max_load_factor(1.0f);
    if (!is_valid_actuator_address(bus_address)) throw std::invalid_argument(INVALID_ADDRESS_MESSAGE);
    feedback_items = {OCP_Items::POS_FB_4C, OCP_Items::SPD_FB_45, OCP_Items::T_FB_56};
    parameters.emplace(OCP_Parameters::ADDRESS, static_cast<float>(bus_address));
    parameters.emplace(OCP_Parameters::MODE, static_cast<float>(static_cast<uint8_t>(mode)));
    parameters.emplace(OCP_Parameters::SETPOINT, setpoint);
    parameters.emplace(OCP_Parameters::LIMIT_TORQUE, 0.0f);
    parameters.emplace(OCP_Parameters::LIMIT_SPEED_MAX, 0.0f);
    parameters.emplace(OCP_Parameters::LIMIT_SPEED_MIN, 0.0f);
    parameters.emplace(OCP_Parameters::LIMIT_POSITION_MAX, 0.0f);
    parameters.emplace(OCP_Parameters::LIMIT_POSITION_MIN, 0.0f);
    parameters.emplace(OCP_Parameters::DEVICE_80, 20000.0f);
    parameters.emplace(OCP_Parameters::DEVICE_83, 0.0f);
    parameters.emplace(OCP_Parameters::DEVICE_84, 20000.0f);
    parameters.emplace(OCP_Parameters::CAN_HIGH_SPEED, 0.0f);
    for (const char* name : LIMIT_FLAG_NAMES) limit_flags.emplace(name, false);
    update_feedback_snapshot();
}

OrreryActuatorVirtual::~OrreryActuatorVirtual() { disconnect(); }

bool OrreryActuatorVirtual::has_errors() const {
    for (const auto& flag : limit_flags) {
        if (flag.second) return true;
    }
    return false;
}

float OrreryActuatorVirtual::param_or_nan(OCP_Parameters id) const {
    const auto found = parameters.find(id);
    return found == parameters.end() ? NaN : found->second;
}

void OrreryActuatorVirtual::change_address(int new_address) {
    if (!is_valid_actuator_address(new_address)) throw std::invalid_argument(INVALID_ADDRESS_MESSAGE);
    address = new_address;
    parameters[OCP_Parameters::ADDRESS] = static_cast<float>(new_address);
}

}  // namespace ocp_api
