// The pipelined bus scan: a window of pings in flight, answers collected as
// they come.
#include "ocp_api/bus_scan.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "ocp_api/codec.hpp"
#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

namespace {

using Clock = std::chrono::steady_clock;

// How often progress is reported, and the coarsest step of the ping pacing:
// pings due within one tick go out together rather than one wake per ping.
constexpr auto PROGRESS_PERIOD = std::chrono::milliseconds(100);
constexpr auto PACING_TICK = std::chrono::milliseconds(1);

// The PING_REPLY record of a reply buffer, if it has a complete one. Item
// records before it are stepped over (a streaming device may put its answer
// behind them); any other record ends the search.
std::optional<FoundDevice> ping_answer_in(int address, const std::vector<uint8_t>& bytes) {
    codec::ReplyReader reader(bytes);
    for (codec::Record record = reader.next(); ; record = reader.next()) {
        if (record.kind == codec::Record::Kind::ITEM) continue;
        if (record.kind != codec::Record::Kind::PING_REPLY) return std::nullopt;
        FoundDevice device;
        device.address = address;
        device.model_code = record.ping.model_code;
        device.model = std::string(model_name_of(record.ping.model_code));
        device.firmware_word = record.ping.firmware_word;
        device.firmware = wire::firmware_version_text(record.ping.firmware_word);
        return device;
    }
}

// Answers handed from the transport's receive thread to the scanning thread.
class AnswerQueue {
public:
    void push(FoundDevice device) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            answers_.push_back(std::move(device));
        }
        arrived_.notify_one();
    }

    // Waits until an answer is queued or `until` has passed; returns what is queued.
    std::vector<FoundDevice> take(Clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex_);
        arrived_.wait_until(lock, until, [this] { return !answers_.empty(); });
        return std::exchange(answers_, {});
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<FoundDevice> answers_;
};

// One pass over a list of addresses. Owns the callbacks it registers: they are
// all removed by the time it is destroyed, also when a transport call throws.
class ScanPass {
public:
    ScanPass(OCP& bus, const BusScanOptions& options, int pass, std::size_t found_before)
        : bus_(bus), options_(options), found_before_(found_before) {
        progress_.pass = pass;
    }

    ~ScanPass() {
        try {
            for (const int address : pending_) bus_.removeCallback(address);
        } catch (...) {
            // Only reached when a transport call already threw; that exception
            // is the one the caller sees.
        }
    }

    ScanPass(const ScanPass&) = delete;
    ScanPass& operator=(const ScanPass&) = delete;

    // Probes `addresses`; returns the devices that answered.
    std::vector<FoundDevice> run(const std::vector<int>& addresses) {
        progress_.to_probe = addresses.size();
        start_ = Clock::now();
        auto next_report = start_ + PROGRESS_PERIOD;
        std::size_t next = 0;
        while (next < addresses.size() || !pending_.empty()) {
            // Answers queued before `now` are taken in before any period is
            // judged to have run out at `now`.
            const auto now = Clock::now();
            accept_all(answers_.take(now));
            retire_expired(now);
            while (next < addresses.size() && may_send(next, now)) probe(addresses[next++]);
            accept_all(answers_.take(wake_time(next, addresses.size())));
            if (Clock::now() >= next_report) {
                report();
                next_report = Clock::now() + PROGRESS_PERIOD;
            }
        }
        report();
        return std::move(found_);
    }

private:
    struct Probe {
        int address;
        Clock::time_point deadline;
    };

    bool may_send(std::size_t sent, Clock::time_point now) const {
        return pending_.size() < options_.window && now >= send_time(sent);
    }

    // When ping number `index` of this pass may go out under the rate cap.
    Clock::time_point send_time(std::size_t index) const {
        if (options_.pings_per_second <= 0.0) return start_;
        const std::chrono::duration<double> offset(static_cast<double>(index) / options_.pings_per_second);
        return start_ + std::chrono::duration_cast<Clock::duration>(offset);
    }

    void probe(int address) {
        AnswerQueue* answers = &answers_;
        // The address is captured: transports differ in what they pass first.
        bus_.setCallback(address, [answers, address](int /*source*/, std::vector<uint8_t> bytes, int /*kind*/) {
            if (auto device = ping_answer_in(address, bytes)) answers->push(std::move(*device));
        });
        pending_.insert(address);
        bus_.send(address, codec::Ping{}.encode());
        in_flight_.push_back({address, Clock::now() + options_.answer_period});
    }

    // Frees the slots of the addresses whose answer period has run out. An
    // address that answered is already out of pending_ and is just dropped.
    void retire_expired(Clock::time_point now) {
        while (!in_flight_.empty()) {
            const Probe& oldest = in_flight_.front();
            const bool answered = pending_.count(oldest.address) == 0;
            if (!answered && oldest.deadline > now) break;
            if (!answered) retire(oldest.address);
            in_flight_.pop_front();
        }
    }

    void accept_all(std::vector<FoundDevice> answers) {
        for (auto& device : answers) {
            // A second answer from the same address, or one that came after
            // the period had run out, finds the address no longer pending.
            if (pending_.count(device.address) == 0) continue;
            retire(device.address);
            found_.push_back(std::move(device));
        }
    }

    void retire(int address) {
        bus_.removeCallback(address);
        pending_.erase(address);
        ++progress_.probed;
    }

    // Until the next thing to do: the oldest probe's deadline, and the next
    // ping's send time when the window has room (no sooner than one tick).
    Clock::time_point wake_time(std::size_t next, std::size_t total) const {
        auto wake = Clock::now() + PROGRESS_PERIOD;
        if (!in_flight_.empty()) wake = std::min(wake, in_flight_.front().deadline);
        if (next < total && pending_.size() < options_.window)
            wake = std::min(wake, std::max(send_time(next), Clock::now() + PACING_TICK));
        return wake;
    }

    void report() {
        if (!options_.on_progress) return;
        progress_.found = found_before_ + found_.size();
        options_.on_progress(progress_);
    }

    OCP& bus_;
    const BusScanOptions& options_;
    const std::size_t found_before_;
    ScanProgress progress_;
    Clock::time_point start_;
    AnswerQueue answers_;
    std::unordered_set<int> pending_;  // registered and not yet answered or expired
    std::deque<Probe> in_flight_;      // in send order, so deadlines ascend
    std::vector<FoundDevice> found_;
};

void check_options(int first_address, const BusScanOptions& options) {
    if (first_address < 0) throw std::invalid_argument("scan_bus: negative address");
    if (options.window == 0) throw std::invalid_argument("scan_bus: window must be at least 1");
    if (!(options.pings_per_second >= 0.0)) throw std::invalid_argument("scan_bus: negative ping rate");
    if (options.attempts < 1) throw std::invalid_argument("scan_bus: attempts must be at least 1");
}

}  // namespace

BusScanOptions BusScanOptions::sequential() {
    BusScanOptions options;
    options.window = 1;
    options.pings_per_second = 0.0;
    return options;
}

std::vector<FoundDevice> scan_bus(OCP& bus, int first_address, int last_address, const BusScanOptions& options) {
    check_options(first_address, options);
    if (first_address > last_address) return {};

    std::vector<int> silent;
    silent.reserve(static_cast<std::size_t>(last_address - first_address) + 1);
    for (int address = first_address;; ++address) {
        silent.push_back(address);
        if (address == last_address) break;  // last_address may be INT_MAX
    }

    std::vector<FoundDevice> found;
    for (int pass = 1; pass <= options.attempts && !silent.empty(); ++pass) {
        std::vector<FoundDevice> answered;
        {
            ScanPass scan_pass(bus, options, pass, found.size());
            answered = scan_pass.run(silent);
        }
        std::unordered_set<int> answered_addresses;
        for (auto& device : answered) {
            answered_addresses.insert(device.address);
            found.push_back(std::move(device));
        }
        silent.erase(std::remove_if(silent.begin(), silent.end(),
                                    [&](int address) { return answered_addresses.count(address) != 0; }),
                     silent.end());
    }
    std::sort(found.begin(), found.end(),
              [](const FoundDevice& a, const FoundDevice& b) { return a.address < b.address; });
    return found;
}

}  // namespace ocp_api
