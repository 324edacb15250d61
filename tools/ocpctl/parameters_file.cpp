#include "parameters_file.hpp"

#include <cmath>
#include <set>

#include <nlohmann/json.hpp>
#include <ocp_api/identifier_tables.hpp>

#include "catalogue.hpp"

namespace ocpctl {

namespace {

// Floats from -2^63 up to (not including) 2^63 convert to long long.
constexpr float LONG_LONG_END = 9223372036854775808.0f;

// A parameter value as JSON: whole numbers for integer parameters, and the
// shortest decimal that reads back as the same float for the others (0.1,
// not 0.100000001490116) and for a forced integer too large for a whole
// number (2.2e+28).
nlohmann::ordered_json json_parameter_value(Parameter id, float value) {
    if (!std::isfinite(value)) return nullptr;
    if (parameter_is_integer(id) && value == std::trunc(value) && value >= -LONG_LONG_END && value < LONG_LONG_END)
        return static_cast<long long>(value);
    return std::stod(format_value(value));
}

// One entry of a parameters file: {"name": ..., "code": ..., "value": ...}
// (either name or code suffices), or "NAME": value in an object.
Parameter entry_parameter(const nlohmann::json& entry, const std::string& where) {
    const bool has_name = entry.contains("name"), has_code = entry.contains("code");
    if (!has_name && !has_code) throw UsageError(where + " has neither a name nor a code");
    if (has_name && !entry["name"].is_string()) throw UsageError(where + ": name is not a text");
    if (has_code && !entry["code"].is_string()) throw UsageError(where + ": code is not a text such as \"0x04\"");
    const Parameter id = parse_parameter(has_name ? entry["name"].get<std::string>() : entry["code"].get<std::string>());
    if (has_name && has_code && parse_parameter(entry["code"].get<std::string>()) != id)
        throw UsageError(where + ": name " + entry["name"].get<std::string>() + " and code " +
                         entry["code"].get<std::string>() + " differ");
    return id;
}

float entry_value(const nlohmann::json& value, Parameter id, const std::string& where) {
    if (id == Parameter::MODE && value.is_string()) {
        if (const auto mode = ocp_api::mode_from_name<Mode>(value.get<std::string>()))
            return static_cast<float>(ocp_api::code_of(*mode));
    }
    if (!value.is_number())
        throw UsageError(where + ": the value of " + std::string(ocp_api::parameter_name(id)) + " is not a number");
    const double number = value.get<double>();
    const auto as_float = static_cast<float>(number);
    if (!std::isfinite(as_float))
        throw UsageError(where + ": the value of " + std::string(ocp_api::parameter_name(id)) + " is out of range");
    return as_float;
}

// Parses JSON and refuses a key given twice in one object, which would
// otherwise silently keep the last.
nlohmann::json parse_without_duplicate_keys(const std::string& text, const std::string& name) {
    std::vector<std::set<std::string>> keys;
    std::string duplicate;
    const auto watch = [&](int, nlohmann::json::parse_event_t event, nlohmann::json& parsed) {
        using Event = nlohmann::json::parse_event_t;
        if (event == Event::object_start) keys.emplace_back();
        if (event == Event::object_end && !keys.empty()) keys.pop_back();
        if (event == Event::key && !keys.empty() && !keys.back().insert(parsed.get<std::string>()).second &&
            duplicate.empty())
            duplicate = parsed.get<std::string>();
        return true;
    };
    nlohmann::json document;
    try {
        document = nlohmann::json::parse(text, watch);
    } catch (const nlohmann::json::exception& error) {
        throw UsageError(shorten(name) + " is not JSON: " + error.what());
    }
    if (!duplicate.empty()) throw UsageError(shorten(name) + " gives the key \"" + duplicate + "\" twice");
    return document;
}

ParameterValues read_entries(const std::string& text, const std::string& name, int address, bool force) {
    const nlohmann::json document = parse_without_duplicate_keys(text, name);
    if (!document.is_object() || !document.contains("parameters"))
        throw UsageError(shorten(name) + " has no \"parameters\" (write one with ocpctl params dump)");
    ParameterValues entries;
    const auto& parameters = document["parameters"];
    if (parameters.is_array()) {
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            const std::string where = shorten(name) + ": entry " + std::to_string(i + 1);
            if (!parameters[i].is_object()) throw UsageError(where + " is not an object");
            const Parameter id = entry_parameter(parameters[i], where);
            if (!parameters[i].contains("value")) throw UsageError(where + " has no value");
            entries.emplace_back(id, entry_value(parameters[i]["value"], id, where));
        }
    } else if (parameters.is_object()) {
        for (const auto& [key, value] : parameters.items()) {
            const Parameter id = parse_parameter(key);
            entries.emplace_back(id, entry_value(value, id, shorten(name)));
        }
    } else {
        throw UsageError(shorten(name) + ": \"parameters\" is neither a list nor an object");
    }
    std::set<Parameter> seen;
    for (const auto& [id, value] : entries) {
        if (!seen.insert(id).second)
            throw UsageError(shorten(name) + " gives " + std::string(ocp_api::parameter_name(id)) + " twice");
        if (id == Parameter::ADDRESS && value != static_cast<float>(address))
            throw UsageError(shorten(name) + " is for the device at " + describe_value(id, value) + ", not " +
                             hex(address) + " (ocpctl address moves a device)");
    }
    check_parameter_values(entries, force, shorten(name));
    return entries;
}

}  // namespace

ParametersFile parse_parameters_file(const std::string& text, const std::string& name, int address, bool force) {
    ParametersFile file;
    try {
        file.entries = read_entries(text, name, address, force);
    } catch (const UsageError& refused) {
        // The message may quote the file, which can hold any byte.
        file.error = printable(refused.what());
    }
    return file;
}

void check_parameter_values(const ParameterValues& entries, bool force, const std::string& where) {
    if (force) return;
    const std::string prefix = where.empty() ? "" : where + ": ";
    const std::string hint = " (--force sends it anyway)";
    for (const auto& [id, value] : entries) {
        const std::string problem = ocp_api::parameter_value_problem(ocp_api::code_of(id), value);
        if (!problem.empty())
            throw UsageError(prefix + std::string(ocp_api::parameter_name(id)) + " = " + format_value(value) + " is " +
                             problem + hint);
    }
    static constexpr std::pair<Parameter, Parameter> LIMIT_PAIRS[] = {
        {Parameter::LIMIT_POSITION_MIN, Parameter::LIMIT_POSITION_MAX},
        {Parameter::LIMIT_SPEED_MIN, Parameter::LIMIT_SPEED_MAX},
        {Parameter::PROFILE_POSITION_MIN, Parameter::PROFILE_POSITION_MAX},
        {Parameter::PROFILE_SPEED_MIN, Parameter::PROFILE_SPEED_MAX},
    };
    const auto value_of = [&entries](Parameter id) -> const float* {
        for (const auto& entry : entries)
            if (entry.first == id) return &entry.second;
        return nullptr;
    };
    for (const auto& [low, high] : LIMIT_PAIRS) {
        const float* min = value_of(low);
        const float* max = value_of(high);
        if (min != nullptr && max != nullptr && *min > *max)
            throw UsageError(prefix + std::string(ocp_api::parameter_name(low)) + " = " + format_value(*min) +
                             " is above " + std::string(ocp_api::parameter_name(high)) + " = " + format_value(*max) +
                             hint);
    }
}

std::string parameters_file_text(int address, const ParameterValues& values) {
    std::string text = "{\n  \"address\": " + nlohmann::ordered_json(hex(address)).dump() + ",\n  \"parameters\": [\n";
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto& [id, value] = values[i];
        const nlohmann::ordered_json entry = {{"name", std::string(ocp_api::parameter_name(id))},
                                              {"code", code_text(id)},
                                              {"value", json_parameter_value(id, value)}};
        text += "    " + entry.dump() + (i + 1 < values.size() ? ",\n" : "\n");
    }
    text += "  ]\n}\n";
    return text;
}

}  // namespace ocpctl
