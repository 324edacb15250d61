// A group of actuators driven together, as the joints of one robot: any number
// of actuators on any number of buses, set up in one call, read as one
// snapshot per control period (with how fresh each value is) and commanded
// with one setpoint each per period, in the smallest frame that carries it.
//
//   ocp_api::ActuatorGroup group;
//   group.add(bus_a, 0x21);
//   group.add(bus_b, 0x31);
//   group.set_up({{Item::POS_FB_4C, Item::SPD_FB_45}, 1000, Mode::IMPEDANCE});
//   group.start_all();
//   ocp_api::GroupSnapshot snapshot;
//   group.take_snapshot(snapshot);          // once per period
//   group.set_setpoint(0, 0.5f);
//   group.send_setpoints();
//   group.maintain();
//
// Threads: take_snapshot, set_setpoint, send_setpoints and maintain belong to
// one thread, the control loop's (LoopRunner calls them). stop_all, stop,
// statistics and reset_statistics may be called from any thread at any time.
// add and set_up are called before the loop runs. Replies are recorded on the
// transports' receive threads.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ocp_api/can_bus.hpp"
#include "ocp_api/can_link.hpp"
#include "ocp_api/ocp.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/sim_bus.hpp"
#include "ocp_api/timing_histogram.hpp"

namespace ocp_api {

namespace detail {
class GroupBus;
struct GroupMember;
}  // namespace detail

using GroupClock = std::chrono::steady_clock;

// How old an actuator's latest feedback is at a snapshot.
enum class FeedbackStatus : uint8_t {
    fresh,    // arrived since the previous snapshot
    stale,    // older, but not older than ActuatorGroupOptions::stale_after
    missing,  // older than that, or nothing arrived since the set-up
};
const char* to_string(FeedbackStatus status);

// The last error record a device sent, as the group received it.
struct FaultRecord {
    bool present = false;      // an error record with at least one bit arrived
    uint32_t error_word = 0;   // exactly as sent
    bool severe = false;       // a bit at or above 16: the device was stopped
    GroupClock::time_point when{};
    uint64_t count = 0;        // error records with bits set since the group was made

    // "Overtemperature", "Current maximum", ...: one text per bit set, in bit
    // order; bits the protocol does not name read "Unknown error bit N".
    std::vector<std::string> descriptions() const;
};

// One actuator at one snapshot.
struct ActuatorSnapshot {
    int address = 0;
    std::size_t bus = 0;  // index of the bus in the order add() first saw it
    FeedbackStatus status = FeedbackStatus::missing;
    uint64_t sequence = 0;                // streamed replies received since the set-up; 0: none
    GroupClock::time_point arrived{};     // when the latest one arrived (host steady clock)
    std::chrono::nanoseconds age{0};      // snapshot time minus arrival time; 0 when none arrived
    // One entry per item of the set-up, in its order: the float the driver
    // makes of the value, and the 4 bytes as sent (exact for the integer
    // items, ERRORS_90 among them). NaN and 0 until the item has arrived.
    std::vector<float> values;
    std::vector<uint32_t> words;
    // As far as the host knows: started by this group and not stopped since
    // (by the host, the watchdog, a severe error or a restart).
    bool running = false;
    // False while the device has sent nothing for ActuatorGroupOptions::silent_after.
    bool answering = false;
    FaultRecord fault;
    // The bus's link state, for transports that have one (CAN); empty otherwise.
    std::optional<CanLinkState> link;

    // The value of `item`; throws std::out_of_range when the set-up does not stream it.
    float value(OrreryActuator::OCP_Items item) const;
    uint32_t word(OrreryActuator::OCP_Items item) const;

    // Filled by take_snapshot, for value() and word().
    std::vector<uint8_t> item_codes;
};

struct GroupSnapshot {
    GroupClock::time_point taken{};
    uint64_t number = 0;  // 1 for the first snapshot
    std::vector<ActuatorSnapshot> actuators;  // in the order of add()
};

// What set_up sends to every actuator, and again to one that restarted.
struct GroupSetup {
    std::vector<OrreryActuator::OCP_Items> items;
    int feedback_rate_hz = 1000;  // 1..10000: the group needs a stream to see a device alive
    OrreryActuator::Mode mode = OrreryActuator::Mode::IMPEDANCE;
};

struct ActuatorGroupOptions {
    // Feedback older than this at a snapshot is missing rather than stale.
    std::chrono::nanoseconds stale_after = std::chrono::milliseconds(20);
    // A device that sent nothing for this long is silent: it is pinged every
    // ping_interval, and set up again when it answers.
    std::chrono::nanoseconds silent_after = std::chrono::milliseconds(200);
    std::chrono::nanoseconds ping_interval = std::chrono::milliseconds(200);
    // When non-zero, a running actuator whose feedback has been missing this
    // long makes feedback_lost() true, and the loop runner stops the group.
    std::chrono::nanoseconds stop_when_missing_for{0};
    // The clock of arrival times and snapshots; tests put a controllable one
    // here. Empty: std::chrono::steady_clock::now.
    std::function<GroupClock::time_point()> clock;
};

struct ActuatorStatistics {
    int address = 0;
    std::size_t bus = 0;
    TimingHistogram feedback_age;  // at every snapshot that had a value
    uint64_t fresh = 0;
    uint64_t stale = 0;
    uint64_t missing = 0;
    uint64_t setpoints_short = 0;       // SET_SETPOINT frames (5 bytes)
    uint64_t setpoints_full = 0;        // the mode's full command
    uint64_t setpoints_superseded = 0;  // replaced before they were sent
    uint64_t setpoints_refused = 0;     // non-finite: refused, the previous one kept
    uint64_t faults = 0;                // error records with bits set
    uint64_t restarts = 0;              // silent, answered again, set up again
    uint64_t pings = 0;                 // sent to the silent device
};

struct BusStatistics {
    std::optional<CanLinkState> link;
    // The transport's own counters, for the transports that keep them.
    std::variant<std::monostate, SimBusCounters, CanBusCounters> counters;
};

struct GroupStatistics {
    std::vector<ActuatorStatistics> actuators;  // in the order of add()
    std::vector<BusStatistics> buses;
};

class ActuatorGroup {
public:
    // Throws std::invalid_argument naming the option for a duration <= 0.
    explicit ActuatorGroup(ActuatorGroupOptions options = {});
    // Stops every actuator (one STOP each), then releases them.
    ~ActuatorGroup();
    ActuatorGroup(const ActuatorGroup&) = delete;
    ActuatorGroup& operator=(const ActuatorGroup&) = delete;

    // Adds the actuator at `address` on `bus` and returns its index. Sends
    // nothing. Throws std::invalid_argument for an address outside
    // 0x10..0x3FFE, and for an address that this or another group already
    // drives on the same bus: two drivers for one address would take each
    // other's replies. The bus must outlive the group.
    std::size_t add(OCP& bus, int address);
    std::size_t size() const;
    int address(std::size_t index) const;

    // Sends the set-up to every actuator: STOP, the feedback items and rate,
    // the mode. Actuators are left stopped. Throws std::invalid_argument for a
    // rate outside 1..10000 or a mode other than the four named ones.
    void set_up(const GroupSetup& setup);
    const GroupSetup& setup() const { return setup_; }

    void start(std::size_t index);
    void start_all();
    // Safe from any thread; never throws.
    void stop(std::size_t index) noexcept;
    void stop_all() noexcept;

    // Fills `snapshot`, reusing its storage: once the snapshot has been
    // filled for this group, no allocation.
    void take_snapshot(GroupSnapshot& snapshot);

    // The main setpoint of the set-up's mode, and optionally the further
    // arguments of the mode's full command (NaN leaves a quantity as the
    // device has it; the layout is the driver's change_*_setpoint after the
    // first argument). Kept until send_setpoints(). Returns false, and counts
    // it, for a non-finite value or an infinite extra; the previous setpoint
    // stays in force.
    using Extras = std::array<float, 7>;
    static Extras unchanged_extras();
    bool set_setpoint(std::size_t index, float value);
    bool set_setpoint(std::size_t index, float value, const Extras& extras);
    // Sends every setpoint set since the last call: SET_SETPOINT (5 bytes)
    // when the extras are the ones last sent, the mode's full command when
    // they changed. Silent devices are skipped. Returns the frames sent.
    std::size_t send_setpoints();

    // Pings silent devices and sets up again those that answer (leaving them
    // stopped). Call once per period; the loop runner does.
    void maintain();

    // True when stop_when_missing_for is set and a running actuator's feedback
    // has been missing that long at the last snapshot.
    bool feedback_lost() const;

    GroupStatistics statistics() const;
    void reset_statistics();

    // The driver of one actuator, for what the group does not cover
    // (parameters, administration). The group's records do not depend on the
    // driver's callbacks; replacing its error callback replaces the driver's
    // own reaction (a report and a STOP on severe errors).
    OrreryActuator& driver(std::size_t index);

private:
    GroupClock::time_point now() const;
    detail::GroupBus& bus_for(OCP& bus);
    void send_set_up(detail::GroupMember& member);
    void send_setpoint_frame(detail::GroupMember& member, std::size_t index);

    const ActuatorGroupOptions options_;
    GroupSetup setup_;
    bool set_up_done_ = false;
    // Before the buses and members, whose callbacks use them.
    mutable std::mutex statistics_mutex_;  // guards statistics_
    std::vector<ActuatorStatistics> statistics_;
    std::vector<std::unique_ptr<detail::GroupBus>> buses_;
    std::vector<std::unique_ptr<detail::GroupMember>> members_;
    std::vector<std::optional<CanLinkState>> link_states_;  // per bus, at the last snapshot
    uint64_t snapshots_ = 0;
    std::atomic<bool> feedback_lost_{false};

};

}  // namespace ocp_api
