// The simulated actuator: the command surface of a physical actuator over a
// fixed-step motor model that the host advances. No bus, no transport, no
// threads: time passes only inside step() and start_steps().
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ocp_api/identifiers.hpp"

namespace ocp_api {

// Not thread-safe: use one object from one thread at a time.
class OrreryActuatorVirtual : public ActuatorIdentifiers<OrreryActuatorVirtual> {
public:
    using FeedbackMap = std::unordered_map<OCP_Items, float>;
    using ParameterMap = std::unordered_map<OCP_Parameters, float>;
    using ErrorMap = std::unordered_map<int, std::string>;
    using FeedbackCallback = std::function<void(int, FeedbackMap)>;
    using ErrorCallback = std::function<void(int, ErrorMap)>;
    using LowFreqFeedbackCallback = std::function<void(FeedbackMap)>;
    using Report = std::unordered_map<std::string, float>;
    using FlagReport = std::unordered_map<std::string, bool>;
    using GroupedReport = std::unordered_map<std::string, std::unordered_map<std::string, float>>;

    static constexpr float NaN = std::numeric_limits<float>::quiet_NaN();

    // True for 0x10..0x3FFE, the range a physical actuator accepts.
    static bool is_valid_actuator_address(int address);

    // Throws std::invalid_argument("Invalid virtual actuator address") when the
    // address is out of range.
    explicit OrreryActuatorVirtual(int address);
    ~OrreryActuatorVirtual();
    OrreryActuatorVirtual(const OrreryActuatorVirtual&) = delete;
    OrreryActuatorVirtual& operator=(const OrreryActuatorVirtual&) = delete;
    // Every member is a value, so moving is safe; callbacks move along.
    OrreryActuatorVirtual(OrreryActuatorVirtual&&) = default;
    OrreryActuatorVirtual& operator=(OrreryActuatorVirtual&&) = default;

    bool has_errors() const;
    // The stored parameter, or NaN when it was never set. Never inserts.
    float param_or_nan(OCP_Parameters id) const;

    // --- stepping and feedback ---------------------------------------------
    // Advances max(steps, 1) steps of 0.1 ms; a given load stays for later
    // steps. Calls the feedback callback at most once per call.
    FeedbackMap step(std::optional<float> load = std::nullopt, int steps = 1);
    void start_steps(int steps);
    void update_feedback_snapshot();
    // The value the model gives `item` now, as a snapshot would hold it (0 for
    // codes the model does not compute), whether or not it is a feedback item.
    float item_value(OCP_Items item) const;
    FeedbackMap get_feedback() const;
    // Refreshes the snapshot and answers at once; items not among the
    // feedback items are NaN.
    FeedbackMap get_items_blocking(const std::vector<OCP_Items>& items, float timeout_s = 1.0f);
    void set_feedback_items(const std::vector<OCP_Items>& items);
    void set_feedback_rate(int rate_hz);
    void set_feedback_rate(Rates rate);
    void set_feedback_callback(FeedbackCallback cb);
    void set_error_callback(ErrorCallback cb);
    void set_low_freq_feedback_callback(LowFreqFeedbackCallback cb);
    void set_low_freq_feedback_items(const std::vector<OCP_Items>& items);
    void set_low_freq_feedback_rate(int rate_hz);
    void set_low_freq_feedback_rate(Rates rate);

    // --- liveness ------------------------------------------------------------
    bool connect(float timeout_s = 1.0f);
    bool send_ping(float timeout_s = 1.0f) const;
    void start();
    void stop();
    void disconnect();
    void change_load(float load);
    float get_sim_time(int digits = 4) const;
    float get_sim_rate_hz() const;

    // --- command surface (mirrors the physical actuator) ---------------------
    // NaN extra arguments leave their parameters as they are.
    void change_mode(Mode mode);
    void change_setpoint(float new_setpoint);
    void change_torque_setpoint(float torque_setpoint, float aux_0d = NaN, float aux_0e = NaN, float aux_0f = NaN,
                                float a5 = NaN);
    void change_speed_setpoint(float speed_setpoint, float speed_ff = NaN, float aux_0e = NaN, float aux_0d = NaN,
                               float t_ff = NaN);
    void change_position_setpoint(float position_setpoint, float speed_ff = NaN, float aux_0e = NaN, float aux_0d = NaN,
                                  float aux_0f = NaN, float t_ff = NaN);
    void change_impedance_setpoint(float position_setpoint, float speed_ff = NaN, float k_stiff = NaN, float k_damp = NaN,
                                   float a5 = NaN, float t_ff = NaN, float a7 = NaN, float a8 = NaN);
    void set_torque_performance(TorquePerformance preset);
    void set_speed_performance(SpeedPerformance preset);
    void set_can_high_speed(bool on);
    void set_home_position();
    // Throws std::invalid_argument("Invalid virtual actuator address") out of range.
    void change_address(int new_address);
    void set_parameters(const ParameterMap& values);
    ParameterMap get_parameters(const std::vector<OCP_Parameters>& ids, float timeout_s = 1.0f) const;
    ParameterMap get_parameters_all() const;
    void save_config();
    void blink(float seconds = 1.0f);

    // --- model catalogue -----------------------------------------------------
    static std::vector<std::string> discover_available_actuators(const std::string& directory);
    int64_t set_actuator(const std::string& model_name, const std::string& model_path,
                         const std::string& model_aux_path);
    int64_t set_actuator_from_paths(const std::string& model_path, const std::string& model_paths_extra);

    // --- introspection reports -------------------------------------------------
    Report get_info() const;
    Report get_motor_state() const;
    Report get_measurements() const;
    FlagReport get_debug_flags() const;
    GroupedReport get_all_parameters() const;

    // --- accessors -------------------------------------------------------------
    int get_address() const { return address; }
    std::string get_model_name() const { return model; }
    std::string get_firmware_version() const { return firmware; }
    std::string get_model_path() const { return model_path; }
    std::string get_model_aux_path() const { return model_aux_path; }
    std::string get_model_paths_extra() const { return model_paths_extra; }
    bool is_connected() const { return connected; }
    bool is_running() const { return running; }
    Mode get_mode() const { return mode; }
    bool get_can_high_speed() const { return can_high_speed; }
    TorquePerformance get_torque_performance() const { return torque_performance; }
    SpeedPerformance get_speed_performance() const { return speed_performance; }
    float get_setpoint() const { return setpoint; }
    float get_position() const { return position; }
    float get_speed() const { return speed; }
    float get_torque() const { return torque; }
    float get_load() const { return load_torque; }
    uint64_t get_step_count() const { return step_count; }
    int get_feedback_decimation() const { return feedback_decimation; }
    // The model's supply voltage (48 V unless a host or an emulator changes it
    // to study a brown-out; the model itself never does).
    float get_bus_voltage() const { return bus_voltage; }
    void set_bus_voltage(float volts) { bus_voltage = volts; }

private:
    void advance(std::optional<float> load, int steps);
    void store_if_given(OCP_Parameters id, float value);

    int32_t address;
    std::string model;
    std::string firmware;
    std::string model_path;
    std::string model_aux_path;
    std::string model_paths_extra;
    bool connected = false;
    bool running = false;
    bool can_high_speed = false;
    Mode mode = Mode::POSITION;
    TorquePerformance torque_performance = TorquePerformance::PRESET_2;
    SpeedPerformance speed_performance = SpeedPerformance::PRESET_2;
    float setpoint = 0.0f;
    float position = 0.0f;
    float speed = 0.0f;
    float torque = 0.0f;
    float load_torque = 0.0f;
    float bus_voltage = 48.0f;
    float winding_temperature = 25.0f;
    float aux_temperature = 25.0f;
    float sim_time = 0.0f;
    float sim_dt = 0.0001f;
    int32_t feedback_decimation = 0;
    uint64_t step_count = 0;
    uint64_t last_feedback_step = 0;
    std::vector<OCP_Items> feedback_items;
    FeedbackMap feedback;
    ParameterMap parameters;
    std::unordered_map<std::string, bool> limit_flags;
    FeedbackCallback feedback_callback;
    ErrorCallback error_callback;
    // Nodes of the snapshot map between taking them out and putting them back
    // in a refresh; empty outside update_feedback_snapshot.
    std::vector<FeedbackMap::node_type> spare_snapshot_nodes;
    // True when the snapshot map is as a refill with the present items leaves
    // it: the last refill had these items and did not rehash.
    bool snapshot_is_a_refill = false;
};

}  // namespace ocp_api
