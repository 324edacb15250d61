// A long run of the simulated bus under load, for leaks and lost accounting
// that short tests do not show: 16 emulated actuators stream 4 items at 1 kHz
// over a bus that loses 5% of frames and replies, while host threads send
// setpoints and ask for items and parameters. It prints the bus's counters and
// the process's resident memory at the start, after the first minute and at
// the end, and fails (exit status 1) when anything was lost without being
// counted or resident memory grew by more than 1 MiB after the first minute.
//
//   ocp_api_soak [SECONDS]      (default 600; the baseline for memory growth
//                                is taken after 60 s, or halfway for runs
//                                shorter than two minutes)
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <ocp_api/orrery_actuator.hpp>
#include <ocp_api/sim_bus.hpp>

namespace {

using ocp_api::OrreryActuator;
using ocp_api::SimBus;
using ocp_api::SimBusCounters;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int ACTUATORS = 16;
constexpr int FIRST_ADDRESS = 0x21;
constexpr int HOST_THREADS = 4;
constexpr int FEEDBACK_RATE_HZ = 1000;
constexpr double LOSS_RATE = 0.05;
constexpr long MAX_GROWTH_KIB = 1024;

// Counts the library's diagnostic lines (time-outs on a lossy bus) instead of
// printing thousands of them.
class LineCounter : public std::streambuf {
public:
    uint64_t lines() const { return lines_.load(); }

protected:
    int overflow(int c) override {
        if (c == '\n') lines_.fetch_add(1);
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        for (std::streamsize i = 0; i < count; ++i) overflow(text[i]);
        return count;
    }

private:
    std::atomic<uint64_t> lines_{0};
};

long resident_kib() {
    std::ifstream statm("/proc/self/statm");
    long size_pages = 0;
    long resident_pages = 0;
    statm >> size_pages >> resident_pages;
    return resident_pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// The transport the actuators see: the bus, with the host's own count of the
// frames it handed over and the replies that reached it.
class CountingTransport : public ocp_api::OCP {
public:
    explicit CountingTransport(SimBus& bus) : bus_(bus) {}
    bool send(int address, const std::vector<uint8_t>& frame) override {
        const bool handed = bus_.send(address, frame);
        if (handed) sent_.fetch_add(1);
        return handed;
    }
    void setCallback(int address, ReceiveCallback callback) override {
        bus_.setCallback(address, [this, callback = std::move(callback)](int source, std::vector<uint8_t> bytes,
                                                                          int kind) {
            received_.fetch_add(1);
            callback(source, std::move(bytes), kind);
        });
    }
    void removeCallback(int address) override { bus_.removeCallback(address); }
    void close() override { bus_.close(); }
    uint64_t sent() const { return sent_.load(); }
    uint64_t received() const { return received_.load(); }

private:
    SimBus& bus_;
    std::atomic<uint64_t> sent_{0};
    std::atomic<uint64_t> received_{0};
};

struct HostStats {
    std::atomic<uint64_t> feedback_callbacks{0};
    std::atomic<uint64_t> commands{0};
    std::atomic<uint64_t> requests{0};
    std::atomic<uint64_t> requests_timed_out{0};
};

void print_snapshot(const char* when, double seconds, const SimBus& bus, const CountingTransport& transport,
                    const HostStats& stats, long rss_kib) {
    const SimBusCounters c = bus.counters();
    std::printf(
        "%-12s t=%6.1f s  rss=%ld KiB\n"
        "  bus:  frames sent %llu received %llu lost %llu handled %llu | replies sent %llu delivered %llu "
        "unclaimed %llu lost %llu discarded %llu | worker wakes %llu\n"
        "  host: frames sent %llu replies received %llu feedback callbacks %llu commands %llu requests %llu "
        "(timed out %llu)\n",
        when, seconds, rss_kib, static_cast<unsigned long long>(c.frames_sent),
        static_cast<unsigned long long>(c.frames_received), static_cast<unsigned long long>(c.frames_lost),
        static_cast<unsigned long long>(c.frames_handled), static_cast<unsigned long long>(c.replies_sent),
        static_cast<unsigned long long>(c.replies_delivered), static_cast<unsigned long long>(c.replies_unclaimed),
        static_cast<unsigned long long>(c.replies_lost), static_cast<unsigned long long>(c.replies_discarded),
        static_cast<unsigned long long>(c.worker_wakes), static_cast<unsigned long long>(transport.sent()),
        static_cast<unsigned long long>(transport.received()),
        static_cast<unsigned long long>(stats.feedback_callbacks.load()),
        static_cast<unsigned long long>(stats.commands.load()), static_cast<unsigned long long>(stats.requests.load()),
        static_cast<unsigned long long>(stats.requests_timed_out.load()));
    std::fflush(stdout);
}

// Streaming on a lossy bus: the frames that start it may be lost, so send them
// again until the actuator's feedback arrives.
bool start_streaming(OrreryActuator& joint, const std::atomic<uint64_t>& callbacks) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        const uint64_t before = callbacks.load();
        joint.setFeedbackItems({OrreryActuator::OCP_Items::POS_FB_4C, OrreryActuator::OCP_Items::SPD_FB_45,
                                OrreryActuator::OCP_Items::T_FB_56, OrreryActuator::OCP_Items::VBUS_70});
        joint.setFeedbackRate(FEEDBACK_RATE_HZ);
        const auto deadline = Clock::now() + 200ms;
        while (Clock::now() < deadline) {
            if (callbacks.load() > before + 10) return true;
            std::this_thread::sleep_for(1ms);
        }
    }
    return false;
}

// One host thread: drives its share of the actuators round robin with a
// setpoint, an item request and, now and then, a parameter request.
void host_loop(std::vector<OrreryActuator*> joints, const std::atomic<bool>& running, HostStats& stats) {
    uint64_t round = 0;
    while (running.load()) {
        for (OrreryActuator* joint : joints) {
            joint->change_speed_setpoint(static_cast<float>(round % 7) - 3.0f);
            stats.commands.fetch_add(1);
            const auto items = joint->getItemsBlocking({OrreryActuator::OCP_Items::POS_FB_4C}, 0.05f);
            stats.requests.fetch_add(1);
            if (items.empty()) stats.requests_timed_out.fetch_add(1);
            if (round % 10 == 0) {
                const auto parameters = joint->get_parameters({OrreryActuator::OCP_Parameters::LIMIT_TORQUE}, 0.1f);
                stats.requests.fetch_add(1);
                if (parameters.empty()) stats.requests_timed_out.fetch_add(1);
            }
        }
        ++round;
        std::this_thread::sleep_for(2ms);
    }
}

bool check(bool condition, const char* what) {
    if (!condition) std::printf("FAIL: %s\n", what);
    return condition;
}

}  // namespace

int main(int argc, char** argv) {
    long seconds = 600;
    if (argc > 2 || (argc == 2 && (seconds = std::strtol(argv[1], nullptr, 10)) <= 0)) {
        std::fprintf(stderr, "usage: %s [SECONDS]   (a positive number of seconds, default 600)\n", argv[0]);
        return 2;
    }
    const long baseline_after = seconds >= 120 ? 60 : seconds / 2;

    LineCounter diagnostics;
    std::streambuf* const original_stderr = std::cerr.rdbuf(&diagnostics);

    ocp_api::SimBusOptions options;
    options.loss_rate = LOSS_RATE;
    options.seed = 12345;
    HostStats stats;
    bool ok = true;
    long rss_start = 0;
    long rss_baseline = 0;
    long rss_end = 0;
    {
        SimBus bus(options);
        CountingTransport transport(bus);
        std::vector<std::unique_ptr<OrreryActuator>> joints;
        for (int i = 0; i < ACTUATORS; ++i) {
            bus.add_actuator(FIRST_ADDRESS + i);
            auto joint = std::make_unique<OrreryActuator>(transport, FIRST_ADDRESS + i);
            joint->set_feedback_callback([&stats](int, OrreryActuator::FeedbackMap) {
                stats.feedback_callbacks.fetch_add(1);
            });
            joint->start();
            if (!start_streaming(*joint, stats.feedback_callbacks)) {
                std::cerr.rdbuf(original_stderr);
                std::printf("FAIL: actuator 0x%x never started streaming\n", FIRST_ADDRESS + i);
                return 1;
            }
            joints.push_back(std::move(joint));
        }

        std::atomic<bool> running{true};
        std::vector<std::thread> hosts;
        for (int t = 0; t < HOST_THREADS; ++t) {
            std::vector<OrreryActuator*> share;
            for (int i = t; i < ACTUATORS; i += HOST_THREADS) share.push_back(joints[static_cast<std::size_t>(i)].get());
            hosts.emplace_back(host_loop, share, std::cref(running), std::ref(stats));
        }

        const auto start = Clock::now();
        const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
        rss_start = resident_kib();
        print_snapshot("start", 0.0, bus, transport, stats, rss_start);
        std::this_thread::sleep_until(start + std::chrono::seconds(baseline_after));
        rss_baseline = resident_kib();
        print_snapshot("first minute", elapsed(), bus, transport, stats, rss_baseline);
        // Resident memory once a minute, to tell a trend from noise.
        for (long minute = baseline_after + 60; minute < seconds; minute += 60) {
            std::this_thread::sleep_until(start + std::chrono::seconds(minute));
            std::printf("  t=%6.1f s  rss=%ld KiB\n", elapsed(), resident_kib());
            std::fflush(stdout);
        }
        std::this_thread::sleep_until(start + std::chrono::seconds(seconds));

        running.store(false);
        for (auto& host : hosts) host.join();
        rss_end = resident_kib();
        // Stop streaming, let the bus handle what is on its way, then close it:
        // every reply is then delivered, unclaimed, lost or discarded.
        for (auto& joint : joints) joint->setFeedbackRate(0);
        const auto drain_deadline = Clock::now() + 10s;
        while (Clock::now() < drain_deadline) {
            const auto c = bus.counters();
            if (c.frames_handled + c.frames_superseded + c.frames_cancelled + c.frames_expired == c.frames_received)
                break;
            std::this_thread::sleep_for(1ms);
        }
        bus.close();
        print_snapshot("end", elapsed(), bus, transport, stats, rss_end);

        const SimBusCounters c = bus.counters();
        ok &= check(c.frames_sent == transport.sent(), "the bus counted every frame the host sent");
        ok &= check(c.frames_sent == c.frames_received + c.frames_lost, "every frame was received or counted lost");
        ok &= check(c.frames_handled + c.frames_superseded + c.frames_cancelled + c.frames_expired == c.frames_received,
                    "every received frame was handled, or replaced, cancelled or expired by the queueing rules");
        ok &= check(c.replies_sent == c.replies_delivered + c.replies_unclaimed + c.replies_lost + c.replies_discarded,
                    "every reply was delivered, unclaimed, lost or discarded");
        ok &= check(c.replies_delivered == transport.received(), "the host received every delivered reply");
        ok &= check(c.replies_unclaimed == 0, "every reply had a callback");
        const double frame_loss = static_cast<double>(c.frames_lost) / static_cast<double>(c.frames_sent);
        const double reply_loss = static_cast<double>(c.replies_lost) / static_cast<double>(c.replies_sent);
        std::printf("loss: frames %.4f replies %.4f (configured %.2f); diagnostic lines %llu\n", frame_loss, reply_loss,
                    LOSS_RATE, static_cast<unsigned long long>(diagnostics.lines()));
        ok &= check(frame_loss > LOSS_RATE / 2 && frame_loss < LOSS_RATE * 2, "frames were lost at about the set rate");
        ok &= check(reply_loss > LOSS_RATE / 2 && reply_loss < LOSS_RATE * 2, "replies were lost at about the set rate");
        ok &= check(diagnostics.lines() == stats.requests_timed_out.load(),
                    "every request that timed out said so, once, on standard error");
        joints.clear();
    }
    std::cerr.rdbuf(original_stderr);
    const long growth = rss_end - rss_baseline;
    std::printf("resident memory: start %ld KiB, after %ld s %ld KiB, end %ld KiB, growth after %ld s %+ld KiB "
                "(limit %ld KiB)\n",
                rss_start, baseline_after, rss_baseline, rss_end, baseline_after, growth, MAX_GROWTH_KIB);
    ok &= check(growth <= MAX_GROWTH_KIB, "resident memory grew by at most 1 MiB after the baseline");
    std::printf("%s\n", ok ? "soak passed" : "soak FAILED");
    return ok ? 0 : 1;
}
