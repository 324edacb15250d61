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
    // From the event that ProcessEvents asked for (the signal sent, standard
    // output closed) to the child's exit; negative when there was none.
    std::chrono::milliseconds exit_delay{-1};
    std::chrono::microseconds cpu{0};  // the child's user and system time
};

// `on_stderr` sees the standard error text gathered so far each time more
// arrives, and may return a signal to send to the child (0 for none).
ProcessResult run_process(const std::vector<std::string>& argv,
                          const std::function<int(const std::string&)>& on_stderr = nullptr,
                          std::chrono::seconds limit = std::chrono::seconds(120));

// Things to do to a running child, each timed until it exits.
struct ProcessEvents {
    // Sent as soon as the child has installed its own handler for it (read
    // from /proc), so the test exercises the handler, not the default action.
    int signal_when_caught = 0;
    // Closes the reading end of the child's standard output after this many
    // lines, as `head -n N` does.
    std::size_t close_stdout_after_lines = 0;
    std::chrono::seconds limit{120};
};

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessEvents& events);

}  // namespace ocp_test
