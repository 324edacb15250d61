// The model catalogue: which actuator models a model directory offers, and
// naming the model the simulated actuator stands for.
#include <filesystem>
#include <set>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api {

namespace {

constexpr std::string_view BINDINGS_PREFIX = "bindings_";
constexpr std::string_view PLATFORM_MARKER = "_Intel_";
constexpr std::string_view BINDINGS_EXTENSION = ".py";
constexpr std::string_view SIMULATOR_VERSION = "cpp-virtual-2.0.0";
constexpr std::string_view VIRTUAL_MODEL_NAME = "virtual";
constexpr std::string_view PATHS_MODEL_NAME = "virtual-from-paths";

// The model named by a bindings file name, or "" when the name does not fit
// the pattern prefix + model + marker + anything + extension.
std::string model_of_bindings_file(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    if (name.compare(0, BINDINGS_PREFIX.size(), BINDINGS_PREFIX) != 0) return {};
    if (path.extension() != BINDINGS_EXTENSION) return {};
    const std::size_t marker = name.find(PLATFORM_MARKER, BINDINGS_PREFIX.size());
    if (marker == std::string::npos || marker <= BINDINGS_PREFIX.size()) return {};
    return name.substr(BINDINGS_PREFIX.size(), marker - BINDINGS_PREFIX.size());
}

std::string simulator_firmware(const std::string& model) {
    std::string text = model;
    text += ':';
    text += SIMULATOR_VERSION;
    return text;
}

}  // namespace

std::vector<std::string> OrreryActuatorVirtual::discover_available_actuators(const std::string& directory) {
    if (directory.empty()) return {};
    std::set<std::string> names;
    try {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            // is_regular_file() and is_directory() follow symbolic links.
            if (entry.is_regular_file()) {
                std::string model = model_of_bindings_file(entry.path());
                if (!model.empty()) names.insert(std::move(model));
            } else if (entry.is_directory()) {
                names.insert(entry.path().filename().string());
            }
        }
    } catch (...) {
        // Whatever goes wrong while opening, reading or examining (a missing,
        // unreadable or vanished directory, memory running short) ends the
        // scan quietly with what was found so far.
    }
    try {
        return std::vector<std::string>(names.begin(), names.end());
    } catch (...) {
        return {};  // no memory left even for the answer
    }
}

int64_t OrreryActuatorVirtual::set_actuator(const std::string& model_name, const std::string& path,
                                            const std::string& aux_path) {
    model = model_name;
    model_path = path;
    model_aux_path = aux_path;
    firmware = model_name.empty() ? std::string(SIMULATOR_VERSION) : simulator_firmware(model_name);
    return 0;
}

int64_t OrreryActuatorVirtual::set_actuator_from_paths(const std::string& path, const std::string& paths_extra) {
    model_path = path;
    model_paths_extra = paths_extra;
    if (model == VIRTUAL_MODEL_NAME) model = PATHS_MODEL_NAME;
    // No test for an empty model name here, unlike set_actuator: an empty
    // name gives ":" followed by the version.
    firmware = simulator_firmware(model);
    return 0;
}

}  // namespace ocp_api
