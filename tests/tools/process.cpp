#include "tools/process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

extern char** environ;

namespace ocp_test {

namespace {

using Clock = std::chrono::steady_clock;

// Reads what is there; false at end of file.
bool drain(int fd, std::string& into) {
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) into.append(buffer, static_cast<std::size_t>(n));
    return n > 0 || (n < 0 && errno == EINTR);
}

// True once the process has a handler of its own for `signal_number`.
bool catches_signal(pid_t pid, int signal_number) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigCgt:", 0) == 0) {
            const unsigned long long mask = std::stoull(line.substr(7), nullptr, 16);
            return ((mask >> (signal_number - 1)) & 1ull) != 0;
        }
    }
    return false;
}

struct Child {
    pid_t pid = 0;
    int out = -1;
    int err = -1;
};

Child spawn(const std::vector<std::string>& argv) {
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
    Child child;
    const int spawned = posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (spawned != 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        throw std::runtime_error("cannot start " + argv[0]);
    }
    child.out = out_pipe[0];
    child.err = err_pipe[0];
    return child;
}

// The exit status; `cpu` gets the child's user and system time.
int wait_for_exit(pid_t pid, std::chrono::microseconds& cpu) {
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    const auto microseconds = [](const timeval& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
    };
    cpu = microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv, const std::function<int(const std::string&)>& on_stderr,
                          std::chrono::seconds limit) {
    const Child child = spawn(argv);
    ProcessResult result;
    const auto deadline = Clock::now() + limit;
    bool out_open = true, err_open = true, signalled = false;
    while (out_open || err_open) {
        if (Clock::now() > deadline) {
            kill(child.pid, SIGKILL);  // a hang: fail the test instead of waiting forever
            break;
        }
        pollfd fds[2] = {{out_open ? child.out : -1, POLLIN, 0}, {err_open ? child.err : -1, POLLIN, 0}};
        if (poll(fds, 2, 100) <= 0) continue;
        if (fds[0].revents != 0) out_open = drain(child.out, result.out);
        if (fds[1].revents != 0) {
            err_open = drain(child.err, result.err);
            if (on_stderr && !signalled) {
                const int signal_number = on_stderr(result.err);
                if (signal_number != 0) {
                    kill(child.pid, signal_number);
                    signalled = true;
                }
            }
        }
    }
    close(child.out);
    close(child.err);
    result.exit_status = wait_for_exit(child.pid, result.cpu);
    return result;
}

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessEvents& events) {
    const Child child = spawn(argv);
    ProcessResult result;
    const auto deadline = Clock::now() + events.limit;
    bool out_open = true, err_open = true;
    bool signal_pending = events.signal_when_caught != 0;
    bool stdout_closed_early = false;
    Clock::time_point event_time{};
    while (out_open || err_open) {
        if (Clock::now() > deadline) {
            kill(child.pid, SIGKILL);
            break;
        }
        if (signal_pending && catches_signal(child.pid, events.signal_when_caught)) {
            kill(child.pid, events.signal_when_caught);
            event_time = Clock::now();
            signal_pending = false;
        }
        pollfd fds[2] = {{out_open ? child.out : -1, POLLIN, 0}, {err_open ? child.err : -1, POLLIN, 0}};
        if (poll(fds, 2, signal_pending ? 5 : 100) <= 0) continue;
        if (fds[0].revents != 0) {
            out_open = drain(child.out, result.out);
            const auto lines = static_cast<std::size_t>(std::count(result.out.begin(), result.out.end(), '\n'));
            if (out_open && events.close_stdout_after_lines != 0 && lines >= events.close_stdout_after_lines) {
                close(child.out);
                out_open = false;
                stdout_closed_early = true;
                event_time = Clock::now();
            }
        }
        if (fds[1].revents != 0) err_open = drain(child.err, result.err);
    }
    close(child.err);
    if (!stdout_closed_early) close(child.out);
    result.exit_status = wait_for_exit(child.pid, result.cpu);
    if (event_time != Clock::time_point{})
        result.exit_delay = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - event_time);
    return result;
}

}  // namespace ocp_test
