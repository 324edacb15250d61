#include "source.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <ocp_api/actuator_group.hpp>
#include <ocp_api/can_bus.hpp>

#include "../bus.hpp"
#include "../session.hpp"
#include "traffic_tap.hpp"

namespace ocpctl::scope {

namespace {

using namespace std::chrono_literals;

// The scope's own period: snapshots for the page, the page's setpoints out,
// silent devices pinged. The page shows 30 frames a second; this is finer.
constexpr auto PERIOD = 10ms;

// Which interface name the traffic log gives the bus.
std::string interface_name(const std::string& bus) {
    const std::string prefix = "socketcan:";
    if (bus.compare(0, prefix.size(), prefix) == 0) {
        const std::string rest = bus.substr(prefix.size());
        return rest.substr(0, rest.find(','));
    }
    return "sim";
}

// Feedback is stale after two of its own periods (and a scope period), and a
// device silent after ten: a slow stream is not taken for a dead device.
ocp_api::ActuatorGroupOptions group_options(int rate_hz) {
    const auto feedback_period = std::chrono::nanoseconds(1'000'000'000LL / std::max(rate_hz, 1));
    ocp_api::ActuatorGroupOptions options;
    options.stale_after = std::max<std::chrono::nanoseconds>(20ms, 2 * feedback_period + PERIOD);
    options.silent_after = std::max<std::chrono::nanoseconds>(200ms, 10 * feedback_period);
    options.ping_interval = 200ms;
    return options;
}

std::string count_text(uint64_t count) { return std::to_string(count); }

class GroupSource : public ScopeSource {
public:
    GroupSource(const GlobalOptions& global, const std::vector<int>& addresses, int rate_hz)
        : global_(global),
          bus_(global.bus),
          tap_(bus_.transport(), interface_name(global.bus)),
          filter_(tap_),
          group_(std::make_unique<ocp_api::ActuatorGroup>(group_options(rate_hz))) {
        for (const int address : addresses) {
            auto entry = std::make_unique<Entry>();
            entry->index = group_->add(filter_, address);
            ocp_api::OrreryActuator& driver = group_->driver(entry->index);
            if (!connect_interruptibly(driver, address, global.timeout_s))
                throw DeviceError("no answer from " + hex(address) + " after " + format_seconds(global.timeout_s));
            entry->info = {address, driver.get_model_name(), driver.get_firmware_version()};
            const auto values = driver.get_parameters({Parameter::MODE}, global.timeout_s);
            const auto mode = values.find(Parameter::MODE);
            if (mode != values.end() && !ocp_api::mode_name(static_cast<Mode>(static_cast<int>(mode->second))).empty())
                entry->state.mode = static_cast<Mode>(static_cast<int>(mode->second));
            entry->state.setpoint = NAN;
            entry->state.feedback = "missing";
            entries_[address] = std::move(entry);
        }
    }

    ~GroupSource() override { finish(); }

    TrafficTap& tap() { return tap_; }

    std::vector<DeviceInfo> devices() const override {
        std::vector<DeviceInfo> result;
        for (const auto& [address, entry] : entries_) result.push_back(entry->info);
        return result;
    }

    // The group sets every device up alike (stopped, the items, the rate, one
    // mode); each device then gets back the mode it had, which the page shows.
    void stream(const std::vector<Item>& items, int rate_hz, FeedbackSink sink) override {
        sink_ = std::make_shared<FeedbackSink>(std::move(sink));
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        for (auto& [address, entry] : entries_) {
            std::shared_ptr<FeedbackSink> target = sink_;
            group_->driver(entry->index).set_feedback_callback(
                [target](int source, FeedbackMap feedback) { (*target)(source, feedback); });
        }
        group_->set_up({items, rate_hz, entries_.begin()->second->state.mode});
        for (auto& [address, entry] : entries_) restore_mode(*entry);
        loop_ = std::thread([this] { run_loop(); });
    }

    DeviceState state(int address) const override {
        const Entry& entry = find(address);
        DeviceState state;
        ocp_api::FaultRecord fault;
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            state = entry.state;
            fault = entry.fault;
        }
        if (fault.count > 0 || fault.present) {
            state.fault_word = fault.error_word;
            state.fault_texts = fault.descriptions();
            state.fault_age_s = std::chrono::duration<double>(ocp_api::GroupClock::now() - fault.when).count();
        }
        if (ocp_api::SimBus* sim = const_cast<Bus&>(bus_).simulated()) {
            try {
                state.device_running = sim->actuator(address).physics()->is_running();
            } catch (const std::out_of_range&) {
            }
        }
        return state;
    }

    // Under the loop's lock, so that a set-up after a restart cannot cross
    // it; a stop arriving meanwhile (it takes no lock) wins, see stop().
    void start(int address) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        if (!group_) throw DeviceError("the scope is ending");
        const uint64_t stops = entry.stops.load();
        group_->start(entry.index);
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            entry.state.running = true;
            entry.state.started_here = true;
        }
        if (entry.stops.load() != stops) stop_now(entry);
    }

    // Never waits for the loop: counted first, so that a start in progress
    // sees it and stops again after its START.
    void stop(int address) override { stop_now(find(address)); }

    void stop_all() override {
        for (auto& [address, entry] : entries_) entry->stops.fetch_add(1);
        if (group_) group_->stop_all();
        std::lock_guard<std::mutex> lock(state_mutex_);
        for (auto& [address, entry] : entries_) entry->state.running = false;
    }

    void set_mode(int address, Mode mode) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        if (!group_) throw DeviceError("the scope is ending");
        group_->driver(entry.index).change_mode(mode);
        std::lock_guard<std::mutex> lock(state_mutex_);
        entry.state.mode = mode;
        entry.state.setpoint = NAN;
    }

    // Kept by the group and sent with the next period: a slider moved faster
    // than that replaces its own setpoints (counted as superseded).
    void set_setpoint(int address, float setpoint) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        if (!group_) throw DeviceError("the scope is ending");
        if (!group_->set_setpoint(entry.index, setpoint))
            throw UsageError("setpoint " + format_value(setpoint) + " refused (not a finite number)");
        std::lock_guard<std::mutex> lock(state_mutex_);
        entry.state.setpoint = setpoint;
    }

    ParameterMap read_parameters(int address, const std::vector<Parameter>& ids) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        const ParameterMap values = driver(entry).get_parameters(ids, global_.timeout_s);
        for (const auto id : ids) {
            if (values.count(id) == 0)
                throw DeviceError("no answer from " + hex(address) + " for " +
                                  std::string(ocp_api::parameter_name(id)) + " after " +
                                  format_seconds(global_.timeout_s));
        }
        return values;
    }

    void write_parameters(int address, const ParameterMap& values) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        driver(entry).set_parameters(values);
        const auto mode = values.find(Parameter::MODE);
        if (mode != values.end() && !ocp_api::mode_name(static_cast<Mode>(static_cast<int>(mode->second))).empty()) {
            std::lock_guard<std::mutex> state_lock(state_mutex_);
            entry.state.mode = static_cast<Mode>(static_cast<int>(mode->second));
        }
    }

    void save(int address) override {
        Entry& entry = find(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        driver(entry).save_config();
    }

    void power_cycle(int address) override {
        find(address);
        ocp_api::SimBus* sim = bus_.simulated();
        if (sim == nullptr) throw UsageError("only an emulated device (--bus sim:...) can be power-cycled from here");
        sim->actuator(address).power_cycle();
    }

    std::vector<int> finish() override {
        if (finished_) return {};
        finished_ = true;
        {
            std::lock_guard<std::mutex> lock(wake_mutex_);
            ending_ = true;
        }
        wake_.notify_all();
        if (loop_.joinable()) loop_.join();
        std::vector<int> stopped;
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        for (auto& [address, entry] : entries_) {
            group_->driver(entry->index).setFeedbackRate(0);
            bool stop_it;
            {
                std::lock_guard<std::mutex> lock(state_mutex_);
                stop_it = entry->state.started_here;
                entry->state.running = false;
            }
            if (stop_it) {
                stop_now(*entry);
                stopped.push_back(address);
            }
        }
        // The group's own STOPs on destruction would also reach devices only
        // watched; those are left as they were.
        filter_.arm();
        group_.reset();  // no feedback callback runs after this
        return stopped;
    }

    std::vector<std::pair<std::string, std::string>> statistics() const override {
        std::vector<std::pair<std::string, std::string>> pairs;
        Bus& bus = const_cast<Bus&>(bus_);
        if (const ocp_api::SimBus* sim = bus.simulated()) {
            const auto c = sim->counters();
            pairs = {{"frames out", count_text(c.frames_sent)},
                     {"replies in", count_text(c.replies_delivered)},
                     {"superseded on the bus", count_text(c.frames_superseded)},
                     {"lost", count_text(c.frames_lost + c.replies_lost)}};
        } else if (const auto* can = dynamic_cast<const ocp_api::CanBus*>(&bus.transport())) {
            const auto c = can->counters();
            pairs = {{"frames out", count_text(c.frames_out)},
                     {"frames in", count_text(c.frames_in)},
                     {"drops", count_text(c.drops)},
                     {"link errors", count_text(c.link_errors)}};
        }
        return pairs;
    }

    std::vector<DeviceStatistics> device_statistics() const override {
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        if (!group_) return {};
        std::vector<DeviceStatistics> rows;
        for (const auto& a : group_->statistics().actuators) {
            const auto age = a.feedback_age.summary();
            DeviceStatistics row;
            row.address = a.address;
            row.age_p50_ms = age.p50_us / 1000.0;
            row.age_p99_ms = age.p99_us / 1000.0;
            row.age_max_ms = age.max_us / 1000.0;
            row.fresh = a.fresh;
            row.stale = a.stale;
            row.missing = a.missing;
            row.faults = a.faults;
            row.restarts = a.restarts;
            row.setpoints = a.setpoints_short + a.setpoints_full;
            row.superseded = a.setpoints_superseded;
            row.refused = a.setpoints_refused;
            rows.push_back(row);
        }
        return rows;
    }

private:
    struct Entry {
        std::size_t index = 0;         // in the group
        DeviceInfo info;
        DeviceState state;             // guarded by the source's state_mutex_
        std::atomic<uint64_t> stops{0};  // stop() calls, for a start in progress
        uint64_t restarts_seen = 0;    // the loop's
        bool silent_seen = false;      // the loop's: silent at a snapshot since it last answered
        ocp_api::FaultRecord fault;    // guarded by state_mutex_
        std::mutex administration;     // one parameter exchange at a time
    };

    Entry& find(int address) const {
        const auto found = entries_.find(address);
        if (found == entries_.end()) throw UsageError(hex(address) + " is not on this scope");
        return *found->second;
    }

    ocp_api::OrreryActuator& driver(Entry& entry) {
        if (!group_) throw DeviceError("the scope is ending");
        return group_->driver(entry.index);
    }

    void stop_now(Entry& entry) {
        entry.stops.fetch_add(1);
        if (group_) group_->stop(entry.index);
        std::lock_guard<std::mutex> lock(state_mutex_);
        entry.state.running = false;
    }

    // The group sets a restarted device up in its own mode; the page's stays.
    void restore_mode(Entry& entry) {
        Mode mode;
        {
            std::lock_guard<std::mutex> lock(state_mutex_);
            mode = entry.state.mode;
        }
        if (mode != group_->setup().mode) group_->driver(entry.index).change_mode(mode);
    }

    void run_loop() {
        auto deadline = std::chrono::steady_clock::now();
        for (;;) {
            deadline += PERIOD;
            {
                std::unique_lock<std::mutex> lock(wake_mutex_);
                if (wake_.wait_until(lock, deadline, [this] { return ending_; })) return;
            }
            const auto now = std::chrono::steady_clock::now();
            if (now - deadline > PERIOD) deadline = now;  // late: carry on from now, no burst
            run_period();
        }
    }

    // No allocation in steady state: the snapshot's storage is reused, and
    // the statistics (a copy) are read only when a silent device answers
    // again, to tell a restart from a stream that came back by itself.
    void run_period() {
        std::lock_guard<std::mutex> loop_lock(loop_mutex_);
        group_->take_snapshot(snapshot_);
        group_->send_setpoints();
        group_->maintain();
        bool answered_again = false;
        for (auto& [address, entry] : entries_) {
            const bool answering = snapshot_.actuators[entry->index].answering;
            if (!answering) entry->silent_seen = true;
            if (answering && entry->silent_seen) answered_again = true;
        }
        std::optional<ocp_api::GroupStatistics> statistics;
        if (answered_again) statistics = group_->statistics();
        for (auto& [address, entry] : entries_) {
            const ocp_api::ActuatorSnapshot& a = snapshot_.actuators[entry->index];
            bool restarted = false;
            if (a.answering && entry->silent_seen) {
                entry->silent_seen = false;
                const uint64_t restarts = statistics->actuators[entry->index].restarts;
                restarted = restarts != entry->restarts_seen;
                entry->restarts_seen = restarts;
            }
            if (restarted) restore_mode(*entry);
            std::lock_guard<std::mutex> lock(state_mutex_);
            // Only ever cleared from here: a stop the group saw (a severe
            // error, a set-up after a restart); starts come from start().
            if (!a.running || restarted) entry->state.running = false;
            if (restarted) entry->state.setpoint = NAN;  // the device forgot it
            entry->state.feedback = ocp_api::to_string(a.status);
            entry->state.feedback_age_s =
                a.sequence == 0 ? std::nullopt : std::optional<double>(std::chrono::duration<double>(a.age).count());
            entry->state.answering = a.answering;
            entry->fault = a.fault;
        }
    }

    const GlobalOptions& global_;
    Bus bus_;
    TrafficTap tap_;
    ExitStopFilter filter_;
    // Guards the group's loop-thread calls (snapshot, setpoints, upkeep,
    // start, mode) and its end; stops need no lock.
    mutable std::mutex loop_mutex_;
    std::unique_ptr<ocp_api::ActuatorGroup> group_;
    ocp_api::GroupSnapshot snapshot_;
    std::map<int, std::unique_ptr<Entry>> entries_;
    std::shared_ptr<FeedbackSink> sink_;
    mutable std::mutex state_mutex_;
    std::mutex wake_mutex_;
    std::condition_variable wake_;
    bool ending_ = false;  // guarded by wake_mutex_
    std::thread loop_;
    bool finished_ = false;
};

}  // namespace

std::unique_ptr<ScopeSource> open_group_source(const GlobalOptions& global, const std::vector<int>& addresses,
                                               int rate_hz, TrafficTap** tap) {
    auto source = std::make_unique<GroupSource>(global, addresses, rate_hz);
    *tap = &source->tap();
    return source;
}

}  // namespace ocpctl::scope
