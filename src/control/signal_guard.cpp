// Stopping actuators takes locks and sends frames, none of which a signal
// handler may do. So the handler only writes the signal's number into a pipe;
// the guard's own thread reads it, stops the group, and then lets the signal
// take its usual course by restoring the earlier disposition and sending the
// signal to the process again.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "ocp_api/loop_runner.hpp"

namespace ocp_api {

namespace {

constexpr int GUARDED_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr std::size_t GUARDED_COUNT = sizeof(GUARDED_SIGNALS) / sizeof(GUARDED_SIGNALS[0]);
constexpr unsigned char WAKE_TO_END = 0;

std::atomic<int> signal_pipe_write{-1};
std::mutex guard_mutex;
bool guard_active = false;

extern "C" void on_guarded_signal(int signal_number) {
    const int saved_errno = errno;
    const int fd = signal_pipe_write.load();
    if (fd >= 0) {
        const auto byte = static_cast<unsigned char>(signal_number);
        [[maybe_unused]] const ssize_t written = write(fd, &byte, 1);
    }
    errno = saved_errno;
}

// Sends the signal to this thread, with it unblocked here for that moment.
// An action that ends the process then happens before this thread does
// anything more. Sent to the process instead, the signal would go to another
// thread while this one carried on, and a core-dumping signal (SIGQUIT) does
// not end the process at once: the loop could end and the program go on.
// Returns when the signal was caught or ignored.
void raise_on_this_thread(int signal_number) {
    sigset_t only;
    sigset_t previous_mask;
    sigemptyset(&only);
    sigaddset(&only, signal_number);
    pthread_sigmask(SIG_UNBLOCK, &only, &previous_mask);
    pthread_kill(pthread_self(), signal_number);
    pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr);
}

}  // namespace

struct SignalGuard::State {
    State(ActuatorGroup& group_, LoopRunner* runner_) : group(group_), runner(runner_) {}
    ActuatorGroup& group;
    LoopRunner* runner;
    int pipe_fds[2] = {-1, -1};
    struct sigaction previous[GUARDED_COUNT] {};
    bool restored[GUARDED_COUNT] = {};
    std::mutex mutex;  // guards previous and restored
    std::atomic<int> received{0};
    std::thread thread;
};

SignalGuard::SignalGuard(ActuatorGroup& group, LoopRunner* runner) : state_(nullptr) {
    std::lock_guard<std::mutex> lock(guard_mutex);
    if (guard_active) throw std::logic_error("a SignalGuard is already active in this process");
    auto state = std::make_unique<State>(group, runner);
    if (pipe2(state->pipe_fds, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "SignalGuard: cannot make its pipe");
    fcntl(state->pipe_fds[1], F_SETFL, O_NONBLOCK);  // a full pipe already holds a wake-up
    signal_pipe_write.store(state->pipe_fds[1]);
    struct sigaction action {};
    action.sa_handler = on_guarded_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < GUARDED_COUNT; ++i) sigaction(GUARDED_SIGNALS[i], &action, &state->previous[i]);
    state_ = state.release();
    guard_active = true;
    // The guard's thread never takes the signals itself: a signal delivered to
    // it while it waits in read() would have to run its handler there, and a
    // runtime that defers handlers to a safe point (a sanitizer's) would then
    // wait for the very read the handler is meant to end.
    sigset_t guarded;
    sigset_t previous_mask;
    sigemptyset(&guarded);
    for (const int signal_number : GUARDED_SIGNALS) sigaddset(&guarded, signal_number);
    pthread_sigmask(SIG_BLOCK, &guarded, &previous_mask);
    state_->thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &previous_mask, nullptr);
}

SignalGuard::~SignalGuard() {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        for (std::size_t i = 0; i < GUARDED_COUNT; ++i) {
            if (!state_->restored[i]) sigaction(GUARDED_SIGNALS[i], &state_->previous[i], nullptr);
            state_->restored[i] = true;
        }
    }
    const unsigned char wake = WAKE_TO_END;
    while (write(state_->pipe_fds[1], &wake, 1) < 0 && errno == EINTR) {
    }
    state_->thread.join();
    signal_pipe_write.store(-1);
    close(state_->pipe_fds[0]);
    close(state_->pipe_fds[1]);
    delete state_;
    std::lock_guard<std::mutex> lock(guard_mutex);
    guard_active = false;
}

int SignalGuard::signal_received() const { return state_->received.load(); }

void SignalGuard::run() {
    for (;;) {
        unsigned char byte = 0;
        const ssize_t got = read(state_->pipe_fds[0], &byte, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0 || byte == WAKE_TO_END) return;
        const int signal_number = byte;
        int expected = 0;
        state_->received.compare_exchange_strong(expected, signal_number);
        state_->group.stop_all();
        bool resend = false;
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            for (std::size_t i = 0; i < GUARDED_COUNT; ++i) {
                if (GUARDED_SIGNALS[i] != signal_number || state_->restored[i]) continue;
                sigaction(signal_number, &state_->previous[i], nullptr);
                state_->restored[i] = true;
                resend = true;
            }
        }
        if (resend) raise_on_this_thread(signal_number);
        // Still here: the signal was caught or ignored before the guard. The
        // actuators are stopped, so the loop has nothing left to do.
        if (state_->runner) state_->runner->request_stop();
    }
}

}  // namespace ocp_api
