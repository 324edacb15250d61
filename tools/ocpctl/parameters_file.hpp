// Parameters files, as params dump writes them and params load reads them:
// {"address": "0x21", "parameters": [{"name": ..., "code": ..., "value": ...}, ...]}
// or, edited by hand, {"parameters": {"NAME": value, ...}}.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "cli_support.hpp"

namespace ocpctl {

// A parameters file is a few kilobytes; anything near this is not one.
inline constexpr std::uintmax_t MAX_PARAMETERS_FILE_BYTES = 1 << 20;

using ParameterValues = std::vector<std::pair<Parameter, float>>;

// What a parameters file asks for, in the file's order, or why it is refused.
struct ParametersFile {
    ParameterValues entries;
    std::string error;  // one line naming the file; empty when the file is good
    bool ok() const { return error.empty(); }
};

// Checks the whole text of a parameters file for the device at `address`:
// JSON without a key given twice, known parameters each given once, values
// that are numbers (or a mode's name for MODE), an ADDRESS equal to `address`,
// and, unless `force`, values each parameter can hold (see
// check_parameter_values). `name` is the file's name in messages.
ParametersFile parse_parameters_file(const std::string& text, const std::string& name, int address, bool force);

// Refuses values a parameter cannot hold and limits whose minimum is above
// their maximum, unless forced, with UsageError (messages start with `where`
// when it is not empty): nothing has been sent when this throws.
void check_parameter_values(const ParameterValues& entries, bool force, const std::string& where);

// The text of a parameters file for the device at `address` holding
// `values`, one parameter a line so that it reads (and diffs) like a table.
std::string parameters_file_text(int address, const ParameterValues& values);

}  // namespace ocpctl
