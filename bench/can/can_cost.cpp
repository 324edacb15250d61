// The host cost of one message through CanBus, for callgrind: run a mode
// twice with different counts and divide the difference in instructions by
// the difference in counts, so start-up and tear-down cancel out
// (bench/can/can_cost.sh does exactly that). Also counts heap allocations
// per message in the steady state, which needs no valgrind.
//
//   can_cost MODE COUNT [ACTUATORS]
//     command        single-frame commands (SET_SETPOINT) through CanBus::send
//     command-floor  the same frames built by a hand-written encoder
//     reply          single-frame replies (one feedback item) through the receive thread to a callback
//     reply-floor    the same frames decoded by a hand-written decoder
//     segmented      4-item replies on classic CAN (first frame, flow control,
//                    2 consecutive frames), ACTUATORS of them in flight at once
//
// Prints "MODE COUNT allocations=A" on standard output.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <ocp_api/can_bus.hpp>
#include <ocp_api/wire.hpp>

namespace {

std::atomic<long> allocations{0};
std::atomic<bool> counting{false};

}  // namespace

void* operator new(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace ocp_api;

constexpr int ADDRESS = 0x21;

// A link that takes every frame and, for the receive thread, plays a script
// of frames once, then reports the end.
class ScriptedLink : public CanLink {
public:
    explicit ScriptedLink(std::vector<CanFrame> script) : script_(std::move(script)) {}
    bool fd() const override { return false; }
    SendResult send_frame(const CanFrame& frame) override {
        last_sent_ = frame.data[0];
        return SendResult::sent;
    }
    CanLinkEvent receive(std::chrono::nanoseconds) override {
        CanLinkEvent event;
        if (!started_.load()) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_for(lock, std::chrono::milliseconds(5), [this] { return started_.load(); });
            return event;
        }
        if (next_ < script_.size()) {
            event.type = CanLinkEvent::Type::frame;
            event.frame = script_[next_++];
            return event;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        played_ = true;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::milliseconds(50), [this] { return woken_; });
        woken_ = false;
        return event;
    }
    void wake() override {
        std::lock_guard<std::mutex> lock(mutex_);
        woken_ = true;
        changed_.notify_all();
    }
    // The script plays from here on.
    void start() {
        std::lock_guard<std::mutex> lock(mutex_);
        started_ = true;
        changed_.notify_all();
    }
    void wait_until_played() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return played_; });
    }

private:
    std::vector<CanFrame> script_;
    std::size_t next_ = 0;
    uint8_t last_sent_ = 0;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool played_ = false;
    bool woken_ = false;
    std::atomic<bool> started_{false};
};

CanFrame frame(uint32_t id, std::initializer_list<uint8_t> bytes) {
    CanFrame f;
    f.id = id;
    f.len = 8;
    std::memset(f.data.data(), 0xCC, 8);
    std::copy(bytes.begin(), bytes.end(), f.data.begin());
    return f;
}

uint32_t reply_id(int address) { return 0x00D04000u + static_cast<uint32_t>(address); }

long run_commands(long count) {
    CanBus bus(std::make_unique<ScriptedLink>(std::vector<CanFrame>{}));
    std::vector<uint8_t> setpoint{static_cast<uint8_t>(wire::Command::SET_SETPOINT), 0, 0, 0x80, 0x3F};
    bus.send(ADDRESS, setpoint);  // first use sizes the buffers
    counting = true;
    for (long i = 0; i < count; ++i) {
        setpoint[1] = static_cast<uint8_t>(i);
        bus.send(ADDRESS, setpoint);
    }
    counting = false;
    return static_cast<long>(bus.counters().frames_out);
}

// What a command costs at the least: its bytes into a padded frame on the
// command identifier, handed to a sink.
long run_command_floor(long count) {
    volatile uint8_t sink = 0;
    uint8_t setpoint[5]{static_cast<uint8_t>(wire::Command::SET_SETPOINT), 0, 0, 0x80, 0x3F};
    for (long i = 0; i < count; ++i) {
        setpoint[1] = static_cast<uint8_t>(i);
        CanFrame out;
        out.id = 0x00D00000u + ADDRESS;
        out.len = 8;
        out.data[0] = 5;
        std::memcpy(&out.data[1], setpoint, 5);
        out.data[6] = 0xCC;
        out.data[7] = 0xCC;
        sink = out.data[static_cast<std::size_t>(i) & 7];
    }
    return sink;
}

// Replies played by the link's script into a bus with a callback that counts.
long play_replies(std::vector<CanFrame> script, int actuators) {
    auto link = std::make_unique<ScriptedLink>(std::move(script));
    ScriptedLink& scripted = *link;
    std::atomic<long> replies{0};
    {
        CanBus bus(std::move(link));
        for (int a = 0; a < actuators; ++a)
            bus.setCallback(ADDRESS + a, [&](int, std::vector<uint8_t> bytes, int) { replies += !bytes.empty(); });
        counting = true;
        scripted.start();
        scripted.wait_until_played();
        counting = false;
    }
    return replies.load();
}

std::vector<CanFrame> single_frame_replies(long count) {
    std::vector<CanFrame> script;
    script.reserve(static_cast<std::size_t>(count) + 1);
    script.push_back(frame(reply_id(ADDRESS), {0x05, 0x4C, 0, 0, 0x80, 0x3F}));  // warms the buffers
    for (long i = 0; i < count; ++i)
        script.push_back(frame(reply_id(ADDRESS), {0x05, 0x4C, static_cast<uint8_t>(i), 0, 0x80, 0x3F}));
    return script;
}

// What a reply costs at the least: its identifier and length checked and its
// bytes copied out of the frame.
long run_reply_floor(const std::vector<CanFrame>& script) {
    long replies = 0;
    uint8_t bytes[8];
    for (const CanFrame& f : script) {
        if (f.id != reply_id(ADDRESS) || (f.data[0] >> 4) != 0) continue;
        const std::size_t length = f.data[0] & 0x0F;
        if (length == 0 || length > 7u) continue;
        std::memcpy(bytes, &f.data[1], length);
        replies += bytes[0] == 0x4C;
    }
    return replies;
}

// `rounds` times, ACTUATORS 20-byte replies (4 items) each open with a first
// frame, then get their two consecutive frames: all of them in flight at once.
std::vector<CanFrame> segmented_replies(long rounds, int actuators) {
    std::vector<CanFrame> script;
    for (long r = 0; r <= rounds; ++r) {  // one round more, to warm the buffers
        for (int a = 0; a < actuators; ++a) script.push_back(frame(reply_id(ADDRESS + a), {0x10, 20, 0x4C, 0, 0, 0x80, 0x3F, 0x45}));
        for (int a = 0; a < actuators; ++a) script.push_back(frame(reply_id(ADDRESS + a), {0x21, 0, 0, 0x80, 0x3F, 0x56, 0, 0}));
        for (int a = 0; a < actuators; ++a) script.push_back(frame(reply_id(ADDRESS + a), {0x22, 0x80, 0x3F, 0x90, 0, 0, 0, 0}));
    }
    return script;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: can_cost command|command-floor|reply|reply-floor|segmented COUNT [ACTUATORS]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const long count = std::atol(argv[2]);
    const int actuators = argc > 3 ? std::atoi(argv[3]) : 1;
    long result = 0;
    if (mode == "command") {
        result = run_commands(count);
    } else if (mode == "command-floor") {
        result = run_command_floor(count);
    } else if (mode == "reply") {
        result = play_replies(single_frame_replies(count), 1);
    } else if (mode == "reply-floor") {
        result = run_reply_floor(single_frame_replies(count));
    } else if (mode == "segmented") {
        result = play_replies(segmented_replies(count, actuators), actuators);
    } else {
        std::fprintf(stderr, "can_cost: unknown mode %s\n", mode.c_str());
        return 2;
    }
    std::printf("%s %ld allocations=%ld result=%ld\n", mode.c_str(), count, allocations.load(), result);
    return 0;
}
