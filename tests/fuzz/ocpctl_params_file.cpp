// Any text as a parameters file for `ocpctl params load`: the tool's own
// parser either refuses it with one line naming the problem, or gives entries
// that name known parameters, each once, with finite values, an ADDRESS that
// is the device's own, and (unless forced) values each parameter can hold and
// minimum limits at or below their maximum. Forcing only lifts the value
// checks. What it accepts, written back as params dump writes a file, reads
// back as the same entries.
//
// Input: the file's text (the tool refuses larger files before reading them).
#include <cmath>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include <ocp_api/identifier_tables.hpp>
#include <ocp_api/identifiers.hpp>

#include "parameters_file.hpp"
#include "support/fuzz_input.hpp"

namespace {

using ocp_fuzz::require;
using ocpctl::Parameter;
using ocpctl::ParametersFile;
using ocpctl::ParameterValues;

constexpr int DEVICE_ADDRESS = 0x21;
const std::string FILE_NAME = "0x21.json";

bool is_one_line(const std::string& message) {
    if (message.empty()) return false;
    for (const char c : message) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) return false;
    }
    return true;
}

bool same_entries(const ParameterValues& a, const ParameterValues& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].first != b[i].first || !(a[i].second == b[i].second)) return false;
    return true;
}

void check_result(const ParametersFile& file) {
    if (!file.ok()) {
        require(is_one_line(file.error), "a refusal that is not one printable line");
        require(file.entries.empty(), "a refused file with entries");
        return;
    }
    std::set<Parameter> seen;
    for (const auto& [id, value] : file.entries) {
        require(!ocp_api::parameter_name(id).empty(), "an entry for an unknown parameter");
        require(seen.insert(id).second, "a parameter given twice");
        require(std::isfinite(value), "a value that is not finite");
        if (id == Parameter::ADDRESS) require(value == DEVICE_ADDRESS, "an ADDRESS other than the device's");
    }
}

const float* value_of(const ParameterValues& entries, Parameter id) {
    for (const auto& entry : entries)
        if (entry.first == id) return &entry.second;
    return nullptr;
}

void check_holdable(const ParameterValues& entries) {
    for (const auto& [id, value] : entries)
        require(ocp_api::parameter_value_problem(ocp_api::code_of(id), value).empty(),
                "an accepted value its parameter cannot hold");
    const std::pair<Parameter, Parameter> limits[] = {
        {Parameter::LIMIT_POSITION_MIN, Parameter::LIMIT_POSITION_MAX},
        {Parameter::LIMIT_SPEED_MIN, Parameter::LIMIT_SPEED_MAX},
        {Parameter::PROFILE_POSITION_MIN, Parameter::PROFILE_POSITION_MAX},
        {Parameter::PROFILE_SPEED_MIN, Parameter::PROFILE_SPEED_MAX},
    };
    for (const auto& [low, high] : limits) {
        const float* min = value_of(entries, low);
        const float* max = value_of(entries, high);
        require(min == nullptr || max == nullptr || *min <= *max, "an accepted minimum limit above its maximum");
    }
}

void check_round_trip(const ParameterValues& entries, bool force) {
    const std::string written = ocpctl::parameters_file_text(DEVICE_ADDRESS, entries);
    const ParametersFile reread = ocpctl::parse_parameters_file(written, FILE_NAME, DEVICE_ADDRESS, force);
    require(reread.ok(), "a written file is refused when read back");
    require(same_entries(reread.entries, entries), "a written file reads back as other entries");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > ocpctl::MAX_PARAMETERS_FILE_BYTES) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const ParametersFile checked = ocpctl::parse_parameters_file(text, FILE_NAME, DEVICE_ADDRESS, false);
    const ParametersFile forced = ocpctl::parse_parameters_file(text, FILE_NAME, DEVICE_ADDRESS, true);
    check_result(checked);
    check_result(forced);
    if (checked.ok()) {
        check_holdable(checked.entries);
        require(forced.ok() && same_entries(forced.entries, checked.entries),
                "forcing changed the entries of an acceptable file");
        check_round_trip(checked.entries, false);
    }
    if (!forced.ok()) require(checked.error == forced.error, "forcing changed a refusal that is not about values");
    if (forced.ok()) check_round_trip(forced.entries, true);
    return 0;
}
