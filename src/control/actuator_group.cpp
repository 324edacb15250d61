// The group keeps, per actuator, what the control loop needs and the driver
// does not: when each value arrived, a sequence number, the exact integer
// words, the last error record and whether the device still answers. It
// learns these by standing between the driver and the bus (GroupBus): every
// reply buffer passes through it on the receive thread, is noted, and goes
// on to the driver unchanged, so the driver behaves exactly as on its own.
#include "ocp_api/actuator_group.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "ocp_api/codec.hpp"
#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

using Item = OrreryActuator::OCP_Items;
using Mode = OrreryActuator::Mode;
using std::chrono::nanoseconds;

namespace {

constexpr float NOT_RECEIVED = std::numeric_limits<float>::quiet_NaN();

std::string hex_address(int address) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (int shift = 12; shift >= 0; shift -= 4) {
        const int digit = (address >> shift) & 0xF;
        if (!text.empty() || digit != 0 || shift < 8) text += digits[digit];
    }
    return "0x" + text;
}

// Actuators that some group drives, by bus and address: a second driver for
// the same address would silently take the first one's replies.
class Claims {
public:
    static Claims& instance() {
        static Claims claims;
        return claims;
    }
    bool claim(const OCP* bus, int address) {
        std::lock_guard<std::mutex> lock(mutex_);
        return claimed_.emplace(bus, address).second;
    }
    void release(const OCP* bus, int address) {
        std::lock_guard<std::mutex> lock(mutex_);
        claimed_.erase({bus, address});
    }

private:
    std::mutex mutex_;
    std::set<std::pair<const OCP*, int>> claimed_;
};

// Number of further float arguments of each mode's full setpoint command.
std::size_t extras_of(Mode mode) {
    switch (mode) {
        case Mode::TORQUE: return codec::setpoint_float_count(wire::Command::SET_TORQUE_SETPOINT) - 1;
        case Mode::SPEED: return codec::setpoint_float_count(wire::Command::SET_SPEED_SETPOINT) - 1;
        case Mode::POSITION: return codec::setpoint_float_count(wire::Command::SET_POSITION_SETPOINT) - 1;
        case Mode::IMPEDANCE: return codec::setpoint_float_count(wire::Command::SET_IMPEDANCE_SETPOINT) - 1;
    }
    return 0;
}

wire::Command full_command_of(Mode mode) {
    switch (mode) {
        case Mode::TORQUE: return wire::Command::SET_TORQUE_SETPOINT;
        case Mode::SPEED: return wire::Command::SET_SPEED_SETPOINT;
        case Mode::POSITION: return wire::Command::SET_POSITION_SETPOINT;
        case Mode::IMPEDANCE: return wire::Command::SET_IMPEDANCE_SETPOINT;
    }
    return wire::Command::SET_SETPOINT_EXT;
}

bool is_group_mode(Mode mode) {
    return mode == Mode::TORQUE || mode == Mode::SPEED || mode == Mode::POSITION || mode == Mode::IMPEDANCE;
}

// NaN means "unchanged" and equals itself here: extras compare by their bits.
bool same_bits(const ActuatorGroup::Extras& a, const ActuatorGroup::Extras& b, std::size_t count) {
    return std::memcmp(a.data(), b.data(), count * sizeof(float)) == 0;
}

void check_positive(nanoseconds value, const char* name) {
    if (value.count() <= 0) throw std::invalid_argument(std::string("ActuatorGroupOptions::") + name + " must be positive");
}

}  // namespace

namespace detail {

// One actuator of the group. The fields under `mutex` are written on the
// receive thread; the loop's own fields only on the loop thread.
struct GroupMember {
    GroupMember(int address_, std::size_t bus_index_, GroupBus& bus_) : address(address_), bus_index(bus_index_), bus(bus_) {
        item_index.fill(-1);
        frame.reserve(1 + sizeof(float) * codec::setpoint_float_count(wire::Command::SET_IMPEDANCE_SETPOINT));
    }

    void record(const std::vector<uint8_t>& bytes, int kind, GroupClock::time_point now, std::mutex& statistics_mutex,
                std::vector<ActuatorStatistics>& statistics, std::size_t index);

    const int address;
    const std::size_t bus_index;
    GroupBus& bus;

    // --- written on the receive thread -----------------------------------
    mutable std::mutex mutex;
    std::array<int16_t, 256> item_index{};  // position of an item code in the set-up, -1 if absent
    std::vector<float> values;
    std::vector<uint32_t> words;
    uint64_t sequence = 0;
    GroupClock::time_point arrived{};
    GroupClock::time_point last_reply{};
    bool ping_answered = false;
    FaultRecord fault;

    std::atomic<bool> running{false};

    // --- the loop thread's -------------------------------------------------
    bool silent = false;
    uint64_t sequence_when_silent = 0;
    GroupClock::time_point set_up_at{};
    GroupClock::time_point last_ping{};
    uint64_t sequence_at_snapshot = 0;
    bool pending = false;
    float pending_value = 0.0f;
    ActuatorGroup::Extras pending_extras = ActuatorGroup::unchanged_extras();
    ActuatorGroup::Extras sent_extras = ActuatorGroup::unchanged_extras();
    std::vector<uint8_t> frame;

    // Ready-made one-byte frames: stopping never allocates.
    const std::vector<uint8_t> stop_frame{static_cast<uint8_t>(wire::Command::STOP)};
    const std::vector<uint8_t> start_frame{static_cast<uint8_t>(wire::Command::START)};
    const std::vector<uint8_t> ping_frame{static_cast<uint8_t>(wire::Command::PING)};

    // Last: destroyed first, so its callback is gone before the fields above.
    std::unique_ptr<OrreryActuator> driver;
};

// The group's view of one bus: an OCP that forwards everything to the host's
// transport and notes each reply for the member it belongs to on the way.
class GroupBus final : public OCP {
public:
    using Clock = std::function<GroupClock::time_point()>;

    GroupBus(OCP& bus, Clock clock, std::mutex& statistics_mutex, std::vector<ActuatorStatistics>& statistics)
        : bus_(bus),
          can_(dynamic_cast<CanBus*>(&bus)),
          sim_(dynamic_cast<SimBus*>(&bus)),
          clock_(std::move(clock)),
          statistics_mutex_(statistics_mutex),
          statistics_(statistics) {}

    OCP& host_bus() const { return bus_; }
    CanBus* can() const { return can_; }
    SimBus* sim() const { return sim_; }

    // Before the member's driver registers its callback.
    void expect(int address, GroupMember& member, std::size_t member_index) {
        std::lock_guard<std::mutex> lock(mutex_);
        members_[address] = {&member, member_index};
    }

    bool send(int address, const std::vector<uint8_t>& frame) override { return bus_.send(address, frame); }

    void setCallback(int address, ReceiveCallback callback) override {
        std::pair<GroupMember*, std::size_t> member{nullptr, 0};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const auto found = members_.find(address);
            if (found != members_.end()) member = found->second;
        }
        if (member.first == nullptr) {  // not one of ours (a changed address): pass through
            bus_.setCallback(address, std::move(callback));
            return;
        }
        GroupMember* m = member.first;
        const std::size_t index = member.second;
        bus_.setCallback(address, [this, m, index, callback = std::move(callback)](int source, std::vector<uint8_t> bytes,
                                                                                  int kind) {
            m->record(bytes, kind, clock_(), statistics_mutex_, statistics_, index);
            callback(source, std::move(bytes), kind);
        });
    }

    void removeCallback(int address) override { bus_.removeCallback(address); }
    // The host owns the bus; the group never closes it.
    void close() override {}

private:
    OCP& bus_;
    CanBus* const can_;
    SimBus* const sim_;
    const Clock clock_;
    std::mutex& statistics_mutex_;
    std::vector<ActuatorStatistics>& statistics_;
    std::mutex mutex_;
    std::unordered_map<int, std::pair<GroupMember*, std::size_t>> members_;
};

void GroupMember::record(const std::vector<uint8_t>& bytes, int kind, GroupClock::time_point now,
                         std::mutex& statistics_mutex, std::vector<ActuatorStatistics>& statistics, std::size_t index) {
    bool items_seen = false;
    bool new_fault = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        last_reply = now;
        std::size_t p = 0;
        while (p < bytes.size()) {
            const uint8_t code = bytes[p];
            if (code == static_cast<uint8_t>(wire::RecordCode::RECORD_END)) break;
            if (code == static_cast<uint8_t>(wire::RecordCode::PING_REPLY)) {
                ping_answered = true;
                break;
            }
            if (code == static_cast<uint8_t>(wire::RecordCode::ERROR_FLAGS)) {
                if (p + wire::RECORD_SIZE <= bytes.size()) {
                    const uint32_t word = wire::read_u32(&bytes[p + 1]);
                    fault.error_word = word;
                    fault.present = word != 0;
                    fault.severe = (word >> FIRST_SEVERE_ERROR_BIT) != 0;
                    fault.when = now;
                    if (word != 0) {
                        ++fault.count;
                        new_fault = true;
                    }
                    // The driver's error reaction stops the device on a severe error.
                    if (fault.severe) running.store(false);
                }
                break;
            }
            if (!wire::is_item_code(code) || p + wire::RECORD_SIZE > bytes.size()) break;
            const int16_t index = item_index[code];
            if (index >= 0) {
                const uint32_t word = wire::read_u32(&bytes[p + 1]);
                words[static_cast<std::size_t>(index)] = word;
                values[static_cast<std::size_t>(index)] = wire::decode_item_value(code, word);
                items_seen = true;
            }
            p += wire::RECORD_SIZE;
        }
        if (kind == wire::REPLY_STREAMED && items_seen) {
            ++sequence;
            arrived = now;
        }
    }
    if (new_fault) {
        std::lock_guard<std::mutex> lock(statistics_mutex);
        ++statistics[index].faults;
    }
}

}  // namespace detail

// --- small value types --------------------------------------------------------

const char* to_string(FeedbackStatus status) {
    switch (status) {
        case FeedbackStatus::fresh: return "fresh";
        case FeedbackStatus::stale: return "stale";
        case FeedbackStatus::missing: return "missing";
    }
    return "missing";
}

std::vector<std::string> FaultRecord::descriptions() const {
    std::vector<std::string> texts;
    for (int bit = 0; bit < 32; ++bit) {
        if (((error_word >> bit) & 1u) == 0) continue;
        const ErrorBitInfo* named = find_error_bit(bit);
        texts.push_back(named ? std::string(named->description) : "Unknown error bit " + std::to_string(bit));
    }
    return texts;
}

namespace {
std::size_t position_of(const std::vector<uint8_t>& codes, OrreryActuator::OCP_Items item) {
    const auto found = std::find(codes.begin(), codes.end(), static_cast<uint8_t>(item));
    if (found == codes.end())
        throw std::out_of_range("item 0x" + hex_address(static_cast<int>(item)).substr(2) +
                                " is not among the group's feedback items");
    return static_cast<std::size_t>(found - codes.begin());
}
}  // namespace

float ActuatorSnapshot::value(OrreryActuator::OCP_Items item) const { return values.at(position_of(item_codes, item)); }

uint32_t ActuatorSnapshot::word(OrreryActuator::OCP_Items item) const { return words.at(position_of(item_codes, item)); }

// --- the group ----------------------------------------------------------------

ActuatorGroup::ActuatorGroup(ActuatorGroupOptions options) : options_(std::move(options)) {
    check_positive(options_.stale_after, "stale_after");
    check_positive(options_.silent_after, "silent_after");
    check_positive(options_.ping_interval, "ping_interval");
    if (options_.stop_when_missing_for.count() < 0)
        throw std::invalid_argument("ActuatorGroupOptions::stop_when_missing_for must not be negative");
}

ActuatorGroup::~ActuatorGroup() {
    stop_all();
    std::vector<std::pair<const OCP*, int>> claims;
    for (const auto& member : members_) claims.emplace_back(&member->bus.host_bus(), member->address);
    members_.clear();  // each driver sends STOP once more and removes its callback
    for (const auto& [bus, address] : claims) Claims::instance().release(bus, address);
}

GroupClock::time_point ActuatorGroup::now() const { return options_.clock ? options_.clock() : GroupClock::now(); }

detail::GroupBus& ActuatorGroup::bus_for(OCP& bus) {
    for (auto& known : buses_) {
        if (&known->host_bus() == &bus) return *known;
    }
    using Clock = detail::GroupBus::Clock;
    const Clock clock = options_.clock ? options_.clock : Clock([] { return GroupClock::now(); });
    buses_.push_back(std::make_unique<detail::GroupBus>(bus, clock, statistics_mutex_, statistics_));
    link_states_.emplace_back();
    return *buses_.back();
}

std::size_t ActuatorGroup::add(OCP& bus, int address) {
    if (!wire::is_valid_device_address(address))
        throw std::invalid_argument("actuator address " + hex_address(address) + " is outside 0x10..0x3ffe");
    if (!Claims::instance().claim(&bus, address))
        throw std::invalid_argument("actuator " + hex_address(address) +
                                    " is already in a group on this bus; one driver per address");
    try {
        detail::GroupBus& group_bus = bus_for(bus);
        const std::size_t bus_index = static_cast<std::size_t>(
            std::find_if(buses_.begin(), buses_.end(), [&](const auto& b) { return b.get() == &group_bus; }) -
            buses_.begin());
        const std::size_t index = members_.size();
        {
            std::lock_guard<std::mutex> lock(statistics_mutex_);
            // The buses hold references into statistics_: reserve keeps them valid
            // only while it does not grow, so the vector is only grown here, before
            // the new member's callback exists, and the receive threads reach it
            // under this same mutex.
            ActuatorStatistics entry;
            entry.address = address;
            entry.bus = bus_index;
            statistics_.push_back(entry);
        }
        auto member = std::make_unique<detail::GroupMember>(address, bus_index, group_bus);
        group_bus.expect(address, *member, index);
        member->driver = std::make_unique<OrreryActuator>(group_bus, address);
        members_.push_back(std::move(member));
        return index;
    } catch (...) {
        Claims::instance().release(&bus, address);
        throw;
    }
}

std::size_t ActuatorGroup::size() const { return members_.size(); }

int ActuatorGroup::address(std::size_t index) const { return members_.at(index)->address; }

OrreryActuator& ActuatorGroup::driver(std::size_t index) { return *members_.at(index)->driver; }

void ActuatorGroup::set_up(const GroupSetup& setup) {
    if (setup.feedback_rate_hz < 1 || setup.feedback_rate_hz > wire::MAX_FEEDBACK_RATE_HZ)
        throw std::invalid_argument("feedback rate " + std::to_string(setup.feedback_rate_hz) +
                                    " Hz is outside 1..10000");
    if (!is_group_mode(setup.mode))
        throw std::invalid_argument("mode " + std::to_string(static_cast<int>(setup.mode)) +
                                    " is not torque, speed, position or impedance");
    for (const auto item : setup.items) {
        if (!wire::is_item_code(static_cast<uint8_t>(item)))
            throw std::invalid_argument("0x" + hex_address(static_cast<int>(item)).substr(2) + " is not a feedback item");
    }
    setup_ = setup;
    set_up_done_ = true;
    for (auto& member : members_) {
        {
            std::lock_guard<std::mutex> lock(member->mutex);
            member->item_index.fill(-1);
            for (std::size_t i = 0; i < setup_.items.size(); ++i) {
                auto& slot = member->item_index[static_cast<uint8_t>(setup_.items[i])];
                if (slot < 0) slot = static_cast<int16_t>(i);
            }
            member->values.assign(setup_.items.size(), NOT_RECEIVED);
            member->words.assign(setup_.items.size(), 0);
            member->sequence = 0;
            member->arrived = {};
        }
        member->sequence_at_snapshot = 0;
        member->pending = false;
        send_set_up(*member);
    }
}

void ActuatorGroup::send_set_up(detail::GroupMember& member) {
    // Stopped first: a device set up again after a restart is left stopped
    // until the host starts it, whatever it was doing before.
    member.driver->send_ocp_common(member.stop_frame);
    member.running.store(false);
    member.driver->setFeedbackItems(setup_.items);
    member.driver->setFeedbackRate(setup_.feedback_rate_hz);
    member.driver->change_mode(setup_.mode);
    member.sent_extras = unchanged_extras();
    member.set_up_at = now();
    member.silent = false;
}

void ActuatorGroup::start(std::size_t index) {
    auto& member = *members_.at(index);
    member.running.store(true);
    member.driver->send_ocp_common(member.start_frame);
}

void ActuatorGroup::start_all() {
    for (std::size_t i = 0; i < members_.size(); ++i) start(i);
}

void ActuatorGroup::stop(std::size_t index) noexcept {
    if (index >= members_.size()) return;
    auto& member = *members_[index];
    member.running.store(false);
    member.driver->send_ocp_common(member.stop_frame);
}

void ActuatorGroup::stop_all() noexcept {
    for (std::size_t i = 0; i < members_.size(); ++i) stop(i);
}

ActuatorGroup::Extras ActuatorGroup::unchanged_extras() {
    Extras extras;
    extras.fill(UNCHANGED);
    return extras;
}

bool ActuatorGroup::set_setpoint(std::size_t index, float value) {
    auto& member = *members_.at(index);
    return set_setpoint(index, value, member.pending ? member.pending_extras : member.sent_extras);
}

bool ActuatorGroup::set_setpoint(std::size_t index, float value, const Extras& extras) {
    auto& member = *members_.at(index);
    const bool extras_ok = std::none_of(extras.begin(), extras.end(), [](float x) { return std::isinf(x); });
    if (!std::isfinite(value) || !extras_ok) {
        std::lock_guard<std::mutex> lock(statistics_mutex_);
        ++statistics_[index].setpoints_refused;
        return false;
    }
    if (member.pending) {
        std::lock_guard<std::mutex> lock(statistics_mutex_);
        ++statistics_[index].setpoints_superseded;
    }
    member.pending = true;
    member.pending_value = value;
    member.pending_extras = extras;
    return true;
}

std::size_t ActuatorGroup::send_setpoints() {
    std::size_t sent = 0;
    for (auto& member : members_) {
        if (!member->pending) continue;
        member->pending = false;
        if (member->silent) continue;  // nobody listens; the set-up comes first when it answers
        send_setpoint_frame(*member, static_cast<std::size_t>(&member - members_.data()));
        ++sent;
    }
    return sent;
}

void ActuatorGroup::send_setpoint_frame(detail::GroupMember& member, std::size_t index) {
    const std::size_t extras = extras_of(setup_.mode);
    const bool full = !same_bits(member.pending_extras, member.sent_extras, extras);
    auto& frame = member.frame;
    frame.clear();
    if (full) {
        frame.push_back(static_cast<uint8_t>(full_command_of(setup_.mode)));
        append_float(frame, member.pending_value);
        for (std::size_t k = 0; k < extras; ++k) append_float(frame, member.pending_extras[k]);
        member.sent_extras = member.pending_extras;
    } else {
        frame.push_back(static_cast<uint8_t>(wire::Command::SET_SETPOINT));
        append_float(frame, member.pending_value);
    }
    member.driver->send_ocp_common(frame);
    std::lock_guard<std::mutex> lock(statistics_mutex_);
    ++(full ? statistics_[index].setpoints_full : statistics_[index].setpoints_short);
}

void ActuatorGroup::maintain() {
    if (!set_up_done_) return;
    const auto t = now();
    for (std::size_t i = 0; i < members_.size(); ++i) {
        auto& member = *members_[i];
        GroupClock::time_point last_reply;
        uint64_t sequence;
        bool answered_ping;
        {
            std::lock_guard<std::mutex> lock(member.mutex);
            last_reply = member.last_reply;
            sequence = member.sequence;
            answered_ping = member.ping_answered;
            if (!member.silent) member.ping_answered = false;
        }
        if (!member.silent) {
            const auto heard = std::max(last_reply, member.set_up_at);
            if (t - heard <= options_.silent_after) continue;
            member.silent = true;
            member.sequence_when_silent = sequence;
            member.last_ping = GroupClock::time_point{};
            answered_ping = false;
            {
                std::lock_guard<std::mutex> lock(member.mutex);
                member.ping_answered = false;
            }
        }
        if (sequence != member.sequence_when_silent) {
            member.silent = false;  // the stream came back by itself: its set-up stands
        } else if (answered_ping) {
            send_set_up(member);
            std::lock_guard<std::mutex> lock(statistics_mutex_);
            ++statistics_[i].restarts;
        } else if (member.last_ping == GroupClock::time_point{} || t - member.last_ping >= options_.ping_interval) {
            member.driver->send_ocp_common(member.ping_frame);
            member.last_ping = t;
            std::lock_guard<std::mutex> lock(statistics_mutex_);
            ++statistics_[i].pings;
        }
    }
}

void ActuatorGroup::take_snapshot(GroupSnapshot& snapshot) {
    const auto t = now();
    snapshot.taken = t;
    snapshot.number = ++snapshots_;
    if (snapshot.actuators.size() != members_.size()) snapshot.actuators.resize(members_.size());
    bool lost = false;
    // Read before the statistics lock: a bus may run its callbacks, which
    // take that lock, while holding its own.
    for (std::size_t b = 0; b < buses_.size(); ++b) {
        link_states_[b] = buses_[b]->can() ? std::optional<CanLinkState>(buses_[b]->can()->link_state()) : std::nullopt;
    }
    std::lock_guard<std::mutex> statistics_lock(statistics_mutex_);
    for (std::size_t i = 0; i < members_.size(); ++i) {
        auto& member = *members_[i];
        auto& a = snapshot.actuators[i];
        a.address = member.address;
        a.bus = member.bus_index;
        {
            std::lock_guard<std::mutex> lock(member.mutex);
            a.values.assign(member.values.begin(), member.values.end());
            a.words.assign(member.words.begin(), member.words.end());
            a.sequence = member.sequence;
            a.arrived = member.arrived;
            a.fault = member.fault;
        }
        a.item_codes.resize(setup_.items.size());
        for (std::size_t k = 0; k < setup_.items.size(); ++k) a.item_codes[k] = static_cast<uint8_t>(setup_.items[k]);
        a.running = member.running.load();
        a.answering = !member.silent;
        a.link = link_states_[member.bus_index];

        auto& statistics = statistics_[i];
        if (a.sequence == 0) {
            a.status = FeedbackStatus::missing;
            a.age = nanoseconds(0);
        } else {
            a.age = t - a.arrived;
            if (a.sequence != member.sequence_at_snapshot) {
                a.status = FeedbackStatus::fresh;
            } else {
                a.status = a.age <= options_.stale_after ? FeedbackStatus::stale : FeedbackStatus::missing;
            }
            statistics.feedback_age.record(a.age);
        }
        member.sequence_at_snapshot = a.sequence;
        switch (a.status) {
            case FeedbackStatus::fresh: ++statistics.fresh; break;
            case FeedbackStatus::stale: ++statistics.stale; break;
            case FeedbackStatus::missing: ++statistics.missing; break;
        }
        if (options_.stop_when_missing_for.count() > 0 && a.running && a.status == FeedbackStatus::missing) {
            const auto since = a.sequence == 0 ? t - member.set_up_at : a.age;
            if (since >= options_.stop_when_missing_for) lost = true;
        }
    }
    feedback_lost_.store(lost);
}

bool ActuatorGroup::feedback_lost() const { return feedback_lost_.load(); }

GroupStatistics ActuatorGroup::statistics() const {
    GroupStatistics result;
    {
        std::lock_guard<std::mutex> lock(statistics_mutex_);
        result.actuators = statistics_;
    }
    for (const auto& bus : buses_) {
        BusStatistics entry;
        if (bus->can()) {
            entry.link = bus->can()->link_state();
            entry.counters = bus->can()->counters();
        } else if (bus->sim()) {
            entry.counters = bus->sim()->counters();
        }
        result.buses.push_back(entry);
    }
    return result;
}

void ActuatorGroup::reset_statistics() {
    std::lock_guard<std::mutex> lock(statistics_mutex_);
    for (auto& entry : statistics_) {
        const int address = entry.address;
        const std::size_t bus = entry.bus;
        entry = ActuatorStatistics{};
        entry.address = address;
        entry.bus = bus;
    }
}

}  // namespace ocp_api
