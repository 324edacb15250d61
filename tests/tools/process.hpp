// Runs a program as a child process and collects its exit status and output.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ocp_test {

struct ProcessResult {
    int exit_status = -1;  // the exit code, or 128 + signal when killed
    std::string out;
    std::string err;
};

// `on_stderr` sees the standard error text gathered so far each time more
// arrives, and may return a signal to send to the child (0 for none).
ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<int(const std::string&)>& on_stderr = nullptr,
                          std::chrono::seconds limit = std::chrono::seconds(120));

}  // namespace ocp_test
