// Runs the ocpctl under test (OCPCTL_PATH, given by the build) as a process.
#pragma once

#include <string>
#include <vector>

#include "tools/process.hpp"

namespace ocp_test {

inline ProcessResult ocpctl(std::vector<std::string> args) {
    args.insert(args.begin(), OCPCTL_PATH);
    return run_process(args);
}

}  // namespace ocp_test
