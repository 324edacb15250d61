// The clock and the physics of the simulated actuator: a unit-inertia axis
// under four control laws, advanced in fixed steps of 0.1 ms.
#include <cmath>

#include "ocp_api/orrery_actuator_virtual.hpp"

namespace ocp_api {

namespace {

// Gains of the built-in control laws.
constexpr float POSITION_RATE = 20.0f;         // 1/s: first-order lag, 50 ms time constant
constexpr float POSITION_TORQUE_GAIN = 2.0f;   // reported torque per unit of position error
constexpr float SPEED_TORQUE_GAIN = 0.1f;      // acts on a zero error by construction
constexpr float DEFAULT_STIFFNESS = 1.0f;      // impedance gains when none is stored
constexpr float DEFAULT_DAMPING = 0.1f;
constexpr int FEEDBACK_TICKS_PER_SECOND = 10000;  // decimation = ticks per callback period
// Not a control mode: selects the law that only lets time pass.
constexpr OrreryActuatorVirtual::Mode HOLD = static_cast<OrreryActuatorVirtual::Mode>(0);

// The axis state that the laws update, and the simulated clock. Kept in locals
// while a call steps, so the compiler holds them in registers instead of
// storing every step. The clock advances inside each law's loop so that its
// chain of additions overlaps with the law's own arithmetic.
struct Axis {
    float position;
    float speed;
    float torque;
    float time;
};

// Simulated time grows by repeated float addition, one step at a time, so it
// drifts from step_count * sim_dt exactly as a stepping device clock would
// (10,000 steps from zero give 1.0000535 s).
void hold(Axis& axis, uint64_t n, float dt) {
    for (uint64_t i = 0; i < n; ++i) axis.time += dt;
}

void step_torque(Axis& axis, uint64_t n, float setpoint, float load, float dt) {
    for (uint64_t i = 0; i < n; ++i) {
        axis.torque = setpoint - load;
        axis.speed = axis.speed + axis.torque * dt;
        axis.position = axis.position + axis.speed * dt;
        axis.time += dt;
    }
}

void step_speed(Axis& axis, uint64_t n, float setpoint, float load, float dt) {
    for (uint64_t i = 0; i < n; ++i) {
        axis.speed = setpoint;
        axis.position = axis.position + setpoint * dt;
        // Computed from the speed just overwritten: the gain term is zero for a
        // finite setpoint, so the torque is the load's reaction.
        axis.torque = SPEED_TORQUE_GAIN * (setpoint - axis.speed) - load;
        axis.time += dt;
    }
}

void step_position(Axis& axis, uint64_t n, float setpoint, float load, float dt) {
    for (uint64_t i = 0; i < n; ++i) {
        const float error = setpoint - axis.position;
        axis.speed = POSITION_RATE * error;
        axis.torque = POSITION_TORQUE_GAIN * error - load;
        axis.position = axis.position + axis.speed * dt;
        axis.time += dt;
    }
}

void step_impedance(Axis& axis, uint64_t n, float setpoint, float load, float dt, float kp, float kd) {
    for (uint64_t i = 0; i < n; ++i) {
        axis.torque = kp * (setpoint - axis.position) - kd * axis.speed - load;
        axis.speed = axis.speed + axis.torque * dt;
        axis.position = axis.position + axis.speed * dt;
        axis.time += dt;
    }
}

float gain_or(float stored, float fallback) { return std::isnan(stored) ? fallback : stored; }

}  // namespace

OrreryActuatorVirtual::FeedbackMap OrreryActuatorVirtual::step(std::optional<float> load, int steps) {
    advance(load, steps);
    return feedback;
}

// Everything step() does but copying the snapshot out, so that start_steps
// (and emulated devices stepping in the background) pay no copy.
void OrreryActuatorVirtual::advance(std::optional<float> load, int steps) {
    if (load) load_torque = *load;
    const uint64_t n = steps > 0 ? static_cast<uint64_t>(steps) : 1;
    // Nothing the laws read can change during one call, so the mode, the load
    // and the impedance gains are read once, outside the loop.
    Axis axis{position, speed, torque, sim_time};
    const Mode law = running ? mode : HOLD;
    switch (law) {
        case Mode::TORQUE:
            step_torque(axis, n, setpoint, load_torque, sim_dt);
            break;
        case Mode::SPEED:
            step_speed(axis, n, setpoint, load_torque, sim_dt);
            break;
        case Mode::POSITION:
            step_position(axis, n, setpoint, load_torque, sim_dt);
            break;
        case Mode::IMPEDANCE:
            step_impedance(axis, n, setpoint, load_torque, sim_dt,
                           gain_or(param_or_nan(OCP_Parameters::K_STIFF), DEFAULT_STIFFNESS),
                           gain_or(param_or_nan(OCP_Parameters::K_DAMP), DEFAULT_DAMPING));
            break;
        default:
            // Stopped, or a mode without a law: the axis holds, time passes.
            hold(axis, n, sim_dt);
            break;
    }
    position = axis.position;
    speed = axis.speed;
    torque = axis.torque;
    sim_time = axis.time;
    step_count += n;

    update_feedback_snapshot();
    if (feedback_callback && feedback_decimation > 0 &&
        step_count - last_feedback_step >= static_cast<uint64_t>(feedback_decimation)) {
        feedback_callback(address, feedback);
        last_feedback_step = step_count;
    }
}

void OrreryActuatorVirtual::start_steps(int steps) { advance(std::nullopt, steps); }

float OrreryActuatorVirtual::item_value(OCP_Items item) const {
    switch (item) {
        case OCP_Items::POS_FB_41:
        case OCP_Items::POS_FB_43:
        case OCP_Items::POS_FB_4C:
        case OCP_Items::POS_FB_73:
            return position;
        case OCP_Items::SPD_FB_45:
            return speed;
        case OCP_Items::T_FB_49:
        case OCP_Items::T_FB_56:
            return torque;
        case OCP_Items::REF_4B:
        case OCP_Items::REF_4D:
        case OCP_Items::REF_55:
            return setpoint;
        case OCP_Items::POWER_MEC_5A:
        case OCP_Items::POWER_5D:
            return torque * speed;
        case OCP_Items::I_DC_5B:
            return bus_voltage == 0.0f ? 0.0f : torque * speed / bus_voltage;
        case OCP_Items::VBUS_70:
            return bus_voltage;
        case OCP_Items::TEMP_AUX_71:
            return aux_temperature;
        case OCP_Items::TEMP_WINDING_72:
            return winding_temperature;
        case OCP_Items::ERRORS_90:
            return has_errors() ? 1.0f : 0.0f;
        default:
            return 0.0f;
    }
}

void OrreryActuatorVirtual::update_feedback_snapshot() {
    // Cleared and refilled in item order, so the map iterates exactly as a
    // freshly refilled one would (rehashes during the first fill after a
    // change of items leave another order than a refill of the grown table).
    // Once a refill has left the map as a refill of it would (no rehash on the
    // way, the same items), refilling again gives the same map, so the values
    // are written in place.
    if (snapshot_is_a_refill) {
        for (const OCP_Items item : feedback_items) feedback.find(item)->second = item_value(item);
        return;
    }
    // The nodes are taken out and put back rather than freed and allocated
    // again: a refill allocates nothing once the items have settled.
    const std::size_t buckets_before = feedback.bucket_count();
    spare_snapshot_nodes.reserve(feedback_items.size());
    while (!feedback.empty()) spare_snapshot_nodes.push_back(feedback.extract(feedback.begin()));
    feedback.clear();
    for (const OCP_Items item : feedback_items) {
        const float value = item_value(item);
        if (spare_snapshot_nodes.empty()) {
            feedback[item] = value;
            continue;
        }
        FeedbackMap::node_type node = std::move(spare_snapshot_nodes.back());
        spare_snapshot_nodes.pop_back();
        node.key() = item;
        node.mapped() = value;
        auto inserted = feedback.insert(std::move(node));
        if (!inserted.inserted) {  // an item listed twice: one entry
            inserted.position->second = value;
            spare_snapshot_nodes.push_back(std::move(inserted.node));
        }
    }
    // Nodes of items no longer listed are released.
    spare_snapshot_nodes.clear();
    snapshot_is_a_refill = feedback.bucket_count() == buckets_before;
}

OrreryActuatorVirtual::FeedbackMap OrreryActuatorVirtual::get_feedback() const { return feedback; }

OrreryActuatorVirtual::FeedbackMap OrreryActuatorVirtual::get_items_blocking(const std::vector<OCP_Items>& items,
                                                                            float /*timeout_s*/) {
    update_feedback_snapshot();
    FeedbackMap answer;
    answer.max_load_factor(1.0f);
    for (const OCP_Items item : items) {
        const auto found = feedback.find(item);
        answer[item] = found == feedback.end() ? NaN : found->second;
    }
    return answer;
}

void OrreryActuatorVirtual::set_feedback_items(const std::vector<OCP_Items>& items) {
    feedback_items = items;
    snapshot_is_a_refill = false;
    update_feedback_snapshot();
}

void OrreryActuatorVirtual::set_feedback_rate(int rate_hz) {
    if (rate_hz <= 0) {
        feedback_decimation = 0;
        return;
    }
    const int decimation = (FEEDBACK_TICKS_PER_SECOND + rate_hz / 2) / rate_hz;
    feedback_decimation = decimation > 0 ? decimation : 1;
}

void OrreryActuatorVirtual::set_feedback_rate(Rates rate) { set_feedback_rate(static_cast<int>(rate)); }

void OrreryActuatorVirtual::set_feedback_callback(FeedbackCallback cb) { feedback_callback = std::move(cb); }
void OrreryActuatorVirtual::set_error_callback(ErrorCallback cb) { error_callback = std::move(cb); }
void OrreryActuatorVirtual::set_low_freq_feedback_callback(LowFreqFeedbackCallback) {}
void OrreryActuatorVirtual::set_low_freq_feedback_items(const std::vector<OCP_Items>&) {}
void OrreryActuatorVirtual::set_low_freq_feedback_rate(int) {}
void OrreryActuatorVirtual::set_low_freq_feedback_rate(Rates rate) { set_low_freq_feedback_rate(static_cast<int>(rate)); }

bool OrreryActuatorVirtual::connect(float /*timeout_s*/) {
    connected = true;
    return true;
}

bool OrreryActuatorVirtual::send_ping(float /*timeout_s*/) const { return connected; }

void OrreryActuatorVirtual::start() {
    connected = true;
    running = true;
}

void OrreryActuatorVirtual::stop() { running = false; }

void OrreryActuatorVirtual::disconnect() {
    connected = false;
    running = false;
}

void OrreryActuatorVirtual::change_load(float load) { load_torque = load; }

float OrreryActuatorVirtual::get_sim_time(int digits) const {
    const float scale = std::pow(10.0f, static_cast<float>(digits));
    if (scale > 0.0f && scale <= std::numeric_limits<float>::max()) return std::round(sim_time * scale) / scale;
    return sim_time;
}

float OrreryActuatorVirtual::get_sim_rate_hz() const { return sim_dt > 0.0f ? 1.0f / sim_dt : NaN; }

}  // namespace ocp_api
