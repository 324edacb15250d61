#include "source.hpp"

#include <cmath>
#include <map>
#include <mutex>

#include "../bus.hpp"
#include "../session.hpp"
#include "traffic_tap.hpp"

namespace ocpctl::scope {

namespace {

// Which interface name the traffic log gives the bus.
std::string interface_name(const std::string& bus) {
    const std::string prefix = "socketcan:";
    if (bus.compare(0, prefix.size(), prefix) == 0) {
        const std::string rest = bus.substr(prefix.size());
        return rest.substr(0, rest.find(','));
    }
    return "sim";
}

class ActuatorSource : public ScopeSource {
public:
    ActuatorSource(const GlobalOptions& global, const std::vector<int>& addresses)
        : global_(global), bus_(global.bus), tap_(bus_.transport(), interface_name(global.bus)), filter_(tap_) {
        for (const int address : addresses) {
            auto entry = std::make_unique<Entry>();
            entry->actuator = connect_actuator(filter_, address, global.timeout_s);
            entry->info = {address, entry->actuator->get_model_name(), entry->actuator->get_firmware_version()};
            const auto values = entry->actuator->get_parameters({Parameter::MODE}, global.timeout_s);
            const auto mode = values.find(Parameter::MODE);
            if (mode != values.end() && !ocp_api::mode_name(static_cast<Mode>(static_cast<int>(mode->second))).empty())
                entry->state.mode = static_cast<Mode>(static_cast<int>(mode->second));
            entry->state.setpoint = NAN;
            entries_[address] = std::move(entry);
        }
    }

    ~ActuatorSource() override { finish(); }

    TrafficTap& tap() { return tap_; }

    std::vector<DeviceInfo> devices() const override {
        std::vector<DeviceInfo> result;
        for (const auto& [address, entry] : entries_) result.push_back(entry->info);
        return result;
    }

    void stream(const std::vector<Item>& items, int rate_hz, FeedbackSink sink) override {
        sink_ = std::make_shared<FeedbackSink>(std::move(sink));
        for (auto& [address, entry] : entries_) {
            std::shared_ptr<FeedbackSink> target = sink_;
            entry->actuator->set_feedback_callback([target](int source, FeedbackMap feedback) { (*target)(source, feedback); });
            entry->actuator->setFeedbackItems(items);
            entry->actuator->setFeedbackRate(rate_hz);
        }
    }

    DeviceState state(int address) const override {
        const Entry& entry = find(address);
        DeviceState state;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            state = entry.state;
        }
        if (ocp_api::SimBus* sim = const_cast<Bus&>(bus_).simulated()) {
            try {
                state.device_running = sim->actuator(address).physics()->is_running();
            } catch (const std::out_of_range&) {
            }
        }
        return state;
    }

    void start(int address) override {
        Entry& entry = live(address);
        entry.actuator->start();
        std::lock_guard<std::mutex> lock(mutex_);
        entry.state.running = true;
        entry.state.started_here = true;
    }

    void stop(int address) override {
        Entry& entry = live(address);
        entry.actuator->stop();
        std::lock_guard<std::mutex> lock(mutex_);
        entry.state.running = false;
    }

    void stop_all() override {
        // STOP first to every device, the bookkeeping after.
        for (auto& [address, entry] : entries_) {
            if (entry->actuator) entry->actuator->stop();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& [address, entry] : entries_) entry->state.running = false;
    }

    void set_mode(int address, Mode mode) override {
        Entry& entry = live(address);
        entry.actuator->change_mode(mode);
        std::lock_guard<std::mutex> lock(mutex_);
        entry.state.mode = mode;
        entry.state.setpoint = NAN;
    }

    void set_setpoint(int address, float setpoint) override {
        Entry& entry = live(address);
        Mode mode;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            mode = entry.state.mode;
        }
        command_motion(*entry.actuator, MotionCommand{mode, setpoint, NAN, NAN});
        std::lock_guard<std::mutex> lock(mutex_);
        entry.state.setpoint = setpoint;
    }

    ParameterMap read_parameters(int address, const std::vector<Parameter>& ids) override {
        Entry& entry = live(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        const ParameterMap values = entry.actuator->get_parameters(ids, global_.timeout_s);
        for (const auto id : ids) {
            if (values.count(id) == 0)
                throw DeviceError("no answer from " + hex(address) + " for " +
                                  std::string(ocp_api::parameter_name(id)) + " after " +
                                  format_seconds(global_.timeout_s));
        }
        return values;
    }

    void write_parameters(int address, const ParameterMap& values) override {
        Entry& entry = live(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        entry.actuator->set_parameters(values);
        const auto mode = values.find(Parameter::MODE);
        if (mode != values.end() && !ocp_api::mode_name(static_cast<Mode>(static_cast<int>(mode->second))).empty()) {
            std::lock_guard<std::mutex> state_lock(mutex_);
            entry.state.mode = static_cast<Mode>(static_cast<int>(mode->second));
        }
    }

    void save(int address) override {
        Entry& entry = live(address);
        std::lock_guard<std::mutex> lock(entry.administration);
        entry.actuator->save_config();
    }

    std::vector<int> finish() override {
        if (finished_) return {};
        finished_ = true;
        std::vector<int> stopped;
        for (auto& [address, entry] : entries_) {
            entry->actuator->setFeedbackRate(0);
            bool stop_it;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                stop_it = entry->state.started_here;
                entry->state.running = false;
            }
            if (stop_it) {
                entry->actuator->stop();
                stopped.push_back(address);
            }
        }
        // The actuators' own STOP on destruction would also reach devices
        // only watched; those are left as they were.
        filter_.arm();
        for (auto& [address, entry] : entries_) entry->actuator.reset();  // no feedback callback runs after this
        return stopped;
    }

private:
    struct Entry {
        std::unique_ptr<ocp_api::OrreryActuator> actuator;
        DeviceInfo info;
        DeviceState state;             // guarded by the source's mutex_
        std::mutex administration;     // one parameter exchange at a time
    };

    Entry& find(int address) const {
        const auto found = entries_.find(address);
        if (found == entries_.end()) throw UsageError(hex(address) + " is not on this scope");
        return *found->second;
    }

    // The entry of a device that may still be commanded.
    Entry& live(int address) const {
        Entry& entry = find(address);
        if (!entry.actuator) throw DeviceError("the scope is ending");
        return entry;
    }

    const GlobalOptions& global_;
    Bus bus_;
    TrafficTap tap_;
    ExitStopFilter filter_;
    std::map<int, std::unique_ptr<Entry>> entries_;
    std::shared_ptr<FeedbackSink> sink_;
    mutable std::mutex mutex_;
    bool finished_ = false;
};

}  // namespace

std::unique_ptr<ScopeSource> open_actuator_source(const GlobalOptions& global, const std::vector<int>& addresses,
                                                  TrafficTap** tap) {
    auto source = std::make_unique<ActuatorSource>(global, addresses);
    *tap = &source->tap();
    return source;
}

}  // namespace ocpctl::scope
