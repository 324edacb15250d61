// SocketCAN transport measured against the floor, inside the VM (make bench-vm):
//  1. round trip host -> device -> host callback: SocketCanBus sending a
//     command that an echo on the interface turns around as a reply, against
//     the same echo driven by a minimal C client over CAN_RAW (can_echo);
//  2. streamed replies decoded per CPU second: the driver's feedback callback
//     over SocketCanBus against candump writing to /dev/null, both fed the
//     same paced stream of single-frame feedback replies.
// Emulated machines make absolute times meaningless; the ratios measured side
// by side in one run are the result.
//
//   ocp_api_socketcan_bench [INTERFACE [CAN_ECHO]]
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <ocp_api/codec.hpp>
#include "ocp_api/can_mapping.hpp"
#include "can/can_node.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/socketcan_bus.hpp"
#include "ocp_api/socketcan_link.hpp"
#include "ocp_api/wire.hpp"
#include "vm/guest.hpp"

extern char** environ;

namespace {

using namespace ocp_api;
using Clock = std::chrono::steady_clock;

constexpr int kDevice = 0x21;
constexpr int kRoundTrips = 3000;
constexpr int kStreamed = 20000;

std::string hex_id(uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", id);
    return text;
}

pid_t spawn(const std::vector<std::string>& argv, int stdout_fd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdout_fd >= 0) posix_spawn_file_actions_adddup2(&actions, stdout_fd, 1);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        std::fprintf(stderr, "cannot start %s\n", argv[0].c_str());
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Runs a program and returns what it printed.
std::string output_of(const std::vector<std::string>& argv) {
    int pipe_fds[2];
    if (::pipe(pipe_fds) != 0) std::exit(1);
    const pid_t pid = spawn(argv, pipe_fds[1]);
    ::close(pipe_fds[1]);
    std::string text;
    char buffer[256];
    ssize_t n;
    while ((n = ::read(pipe_fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
    ::close(pipe_fds[0]);
    ::waitpid(pid, nullptr, 0);
    return text;
}

struct Percentiles {
    double p50_us;
    double p99_us;
};

Percentiles floor_round_trip(const std::string& interface, const std::string& echo) {
    std::istringstream result(output_of({echo, "--client", interface, hex_id(can::host_to_device_id(kDevice)),
                                         hex_id(can::device_to_host_id(kDevice, 1)), std::to_string(kRoundTrips)}));
    long long p50 = 0, p99 = 0;
    result >> p50 >> p99;
    return {p50 / 1000.0, p99 / 1000.0};
}

Percentiles transport_round_trip(const std::string& interface) {
    SocketCanBus bus(interface);
    std::mutex mutex;
    std::condition_variable answered;
    int answers = 0;
    Clock::time_point answered_at;
    // The round trip ends when the callback runs, on the bus's receive thread.
    bus.setCallback(kDevice, [&](int, std::vector<uint8_t>, int) {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        answered_at = now;
        ++answers;
        answered.notify_one();
    });
    const std::vector<uint8_t> ping = wire::make_frame(wire::Command::PING);
    std::vector<double> times;
    for (int i = 0; i < kRoundTrips; ++i) {
        std::unique_lock<std::mutex> lock(mutex);
        const int before = answers;
        const auto start = Clock::now();
        lock.unlock();
        if (!bus.send(kDevice, ping)) std::exit(1);
        lock.lock();
        if (!answered.wait_for(lock, std::chrono::seconds(5), [&] { return answers > before; })) {
            std::fprintf(stderr, "no echo\n");
            std::exit(1);
        }
        times.push_back(std::chrono::duration<double, std::micro>(answered_at - start).count());
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

// The frames of one streamed feedback reply, as a device segments it.
std::vector<CanFrame> feedback_reply_frames() {
    std::vector<uint8_t> reply;
    ocp_api::codec::ItemRecord::of(static_cast<uint8_t>(OrreryActuator::OCP_Items::POS_FB_4C), 1.5f).encode_into(reply);
    can::Node device(can::Role::device, {});
    std::vector<CanFrame> frames;
    device.queue(kDevice, 0, reply, can::IsoTpClock::now(), frames);
    return frames;
}

double thread_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Sends kStreamed replies in bursts small enough for any receive buffer;
// returns the CPU time the sending took.
double feed_stream(const std::string& interface) {
    SocketCanLink link(interface);
    const std::vector<CanFrame> frames = feedback_reply_frames();
    const double start = thread_cpu_seconds();
    for (int i = 0; i < kStreamed; ++i) {
        for (const CanFrame& frame : frames) {
            while (link.send_frame(frame) == CanLink::SendResult::busy) std::this_thread::yield();
        }
        // Pauses let the reader drain its socket: the rate is per CPU second, so
        // they cost wall time only, and no frame is lost to a full buffer.
        if (i % 20 == 19) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return thread_cpu_seconds() - start;
}

double transport_decodes_per_cpu_second(const std::string& interface) {
    SocketCanBus bus(interface);
    OrreryActuator joint(bus, kDevice);
    std::atomic<int> decoded{0};
    joint.set_feedback_callback([&](int, OrreryActuator::FeedbackMap items) {
        if (items.count(OrreryActuator::OCP_Items::POS_FB_4C)) decoded.fetch_add(1);
    });
    const double cpu_before = process_cpu_seconds();
    double feeder_cpu = 0;
    std::thread feeder([&] { feeder_cpu = feed_stream(interface); });
    feeder.join();
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (decoded.load() < kStreamed && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double cpu = process_cpu_seconds() - cpu_before - feeder_cpu;
    if (decoded.load() < kStreamed) std::fprintf(stderr, "only %d of %d replies decoded\n", decoded.load(), kStreamed);
    return decoded.load() / cpu;
}

double candump_frames_per_cpu_second(const std::string& interface) {
    const int null_fd = ::open("/dev/null", O_WRONLY);
    const int receivers = ocp_vm::receivers_on(interface);
    // -T: ends 5 s after the last frame should any have been lost.
    const pid_t candump = spawn({"candump", "-n", std::to_string(kStreamed), "-T", "5000", interface}, null_fd);
    ::close(null_fd);
    if (!ocp_vm::wait_for_receivers(interface, receivers + 1)) std::exit(1);
    feed_stream(interface);
    int status = 0;
    rusage usage{};
    if (::wait4(candump, &status, 0, &usage) < 0) return 0;
    const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return kStreamed / cpu;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string interface = argc > 1 ? argv[1] : "vcan0";
    const std::string echo = argc > 2 ? argv[2] : "/test/can_echo";
    const int receivers = ocp_vm::receivers_on(interface);
    const pid_t echo_pid = spawn({echo, interface, hex_id(can::host_to_device_id(kDevice)),
                                  hex_id(can::device_to_host_id(kDevice, 1))});
    if (!ocp_vm::wait_for_receivers(interface, receivers + 1)) return 1;
    std::fprintf(stderr, "round trips with the C client...\n");
    const Percentiles floor = floor_round_trip(interface, echo);
    std::fprintf(stderr, "round trips with SocketCanBus...\n");
    const Percentiles ours = transport_round_trip(interface);
    ::kill(echo_pid, SIGTERM);
    ::waitpid(echo_pid, nullptr, 0);

    std::fprintf(stderr, "streaming to candump...\n");
    const double candump_rate = candump_frames_per_cpu_second(interface);
    std::fprintf(stderr, "streaming to SocketCanBus...\n");
    const double our_rate = transport_decodes_per_cpu_second(interface);

    std::printf("round trip over %s, %d each (microseconds):\n", interface.c_str(), kRoundTrips);
    std::printf("  %-34s p50 %8.1f   p99 %8.1f\n", "C client over CAN_RAW (floor)", floor.p50_us, floor.p99_us);
    std::printf("  %-34s p50 %8.1f   p99 %8.1f\n", "SocketCanBus send -> callback", ours.p50_us, ours.p99_us);
    std::printf("  %-34s p50 %8.2fx  p99 %8.2fx  (target <= 1.5x)\n", "ratio", ours.p50_us / floor.p50_us,
                ours.p99_us / floor.p99_us);
    std::printf("streamed replies, %d single-frame replies, per CPU second:\n", kStreamed);
    std::printf("  %-34s %10.0f\n", "candump > /dev/null (frames)", candump_rate);
    std::printf("  %-34s %10.0f\n", "SocketCanBus + driver (decoded)", our_rate);
    std::printf("  %-34s %10.2fx\n", "ratio (ours / candump)", our_rate / candump_rate);
    return 0;
}
