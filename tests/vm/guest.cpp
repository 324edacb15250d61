#include "vm/guest.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace ocp_vm {

namespace {

std::string env_or(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return value ? value : fallback;
}

pid_t spawn(const std::vector<std::string>& argv, int stdin_fd, int stdout_fd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdin_fd >= 0) posix_spawn_file_actions_adddup2(&actions, stdin_fd, 0);
    if (stdout_fd >= 0) posix_spawn_file_actions_adddup2(&actions, stdout_fd, 1);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + argv[0]);
    return pid;
}

int decode_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

std::string classic_interface() { return env_or("OCP_VM_CLASSIC_IF", "vcan0"); }
std::string fd_interface() { return env_or("OCP_VM_FD_IF", "vcanfd0"); }

Child::Child(const std::vector<std::string>& argv) {
    int out[2];
    int in[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = spawn(argv, in[0], out[1]);
    ::close(out[1]);
    ::close(in[0]);
    out_ = out[0];
    in_ = in[1];
}

void Child::signal(int signal) const {
    if (pid_ > 0) ::kill(pid_, signal);
}

Child::~Child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (in_ >= 0) ::close(in_);
}

void Child::write_stdin(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(in_, text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(in_);
    in_ = -1;
}

std::string Child::finish(std::chrono::seconds bound) {
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + bound;
    bool killed = false;
    while (out_ >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 && !killed) {
            ::kill(pid_, SIGKILL);
            killed = true;
        }
        pollfd p{out_, POLLIN, 0};
        ::poll(&p, 1, killed ? 1000 : static_cast<int>(std::min<long long>(left.count(), 1000)));
        char buffer[4096];
        const ssize_t n = (p.revents != 0) ? ::read(out_, buffer, sizeof buffer) : -1;
        if (n > 0) output.append(buffer, static_cast<std::size_t>(n));
        if (n == 0) {
            ::close(out_);
            out_ = -1;
        }
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    status_ = decode_status(status);
    return output;
}

int run(const std::vector<std::string>& argv) {
    const pid_t pid = spawn(argv, -1, -1);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return decode_status(status);
}

int receivers_on(const std::string& interface) {
    int count = 0;
    for (const char* list : {"all", "fil", "inv", "sff", "eff", "err"}) {
        std::ifstream file(std::string("/proc/net/can/rcvlist_") + list);
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream words(line);
            std::string first;
            words >> first;
            if (first == interface) ++count;
        }
    }
    return count;
}

bool wait_for_receivers(const std::string& interface, int count, std::chrono::seconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (receivers_on(interface) < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void add_vcan(const std::string& interface, int mtu) {
    if (run({"/sbin/ip", "link", "add", "dev", interface, "type", "vcan"}) != 0 ||
        run({"/sbin/ip", "link", "set", interface, "mtu", std::to_string(mtu)}) != 0) {
        throw std::runtime_error("cannot create " + interface);
    }
    set_interface_up(interface, true);
}

void remove_interface(const std::string& interface) { run({"/sbin/ip", "link", "del", "dev", interface}); }

void set_interface_up(const std::string& interface, bool up) {
    if (run({"/sbin/ip", "link", "set", interface, up ? "up" : "down"}) != 0) {
        throw std::runtime_error("cannot set " + interface + (up ? " up" : " down"));
    }
}

std::string hex(const unsigned char* data, std::size_t size) {
    std::string text;
    char digits[3];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(digits, sizeof digits, "%02X", data[i]);
        text += digits;
    }
    return text;
}

}  // namespace ocp_vm
