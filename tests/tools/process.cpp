#include "tools/process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

extern char** environ;

namespace ocp_test {

namespace {

// Reads what is there; false at end of file.
bool drain(int fd, std::string& into) {
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) into.append(buffer, static_cast<std::size_t>(n));
    return n > 0 || (n < 0 && errno == EINTR);
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const std::function<int(const std::string&)>& on_stderr,
                          std::chrono::seconds limit) {
    int out_pipe[2], err_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, out_pipe[0]);
    posix_spawn_file_actions_addclose(&actions, err_pipe[0]);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (spawned != 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        throw std::runtime_error("cannot start " + argv[0]);
    }

    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    bool out_open = true, err_open = true, signalled = false;
    while (out_open || err_open) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);  // a hang: fail the test instead of waiting forever
            break;
        }
        pollfd fds[2] = {{out_open ? out_pipe[0] : -1, POLLIN, 0}, {err_open ? err_pipe[0] : -1, POLLIN, 0}};
        if (poll(fds, 2, 100) <= 0) continue;
        if (fds[0].revents != 0) out_open = drain(out_pipe[0], result.out);
        if (fds[1].revents != 0) {
            err_open = drain(err_pipe[0], result.err);
            if (on_stderr && !signalled) {
                const int signal_number = on_stderr(result.err);
                if (signal_number != 0) {
                    kill(pid, signal_number);
                    signalled = true;
                }
            }
        }
    }
    close(out_pipe[0]);
    close(err_pipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace ocp_test
