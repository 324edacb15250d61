// Actuators on the bus: the driver of one physical actuator, the bus scanner,
// and the simulated actuator with the same command surface.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ocp_api/codec.hpp"
#include "ocp_api/identifiers.hpp"
#include "ocp_api/ocp.hpp"
#include "ocp_api/orrery_actuator_virtual.hpp"
#include "ocp_api/wire.hpp"

namespace ocp_api {

// Default of the optional setpoint arguments: a NaN tells the device to leave
// the quantity as it is.
inline constexpr float UNCHANGED = std::numeric_limits<float>::quiet_NaN();

// One actuator at one bus address, reached through a transport that the host
// owns and shares between actuators.
//
// Commands are fire-and-forget frames. Replies arrive on the transport's receive
// thread and are walked by can_callback(); feedback, requested items,
// parameters, the model name and the firmware version are kept behind one mutex,
// so any method may be called while replies stream in. Host callbacks run on the
// receive thread, outside that mutex: they may call back into the actuator.
//
// Failures are reported as one line on standard error; nothing throws.
class OrreryActuator : public ActuatorIdentifiers<OrreryActuator> {
public:
    using FeedbackMap = std::unordered_map<OCP_Items, float>;
    using ParameterMap = std::unordered_map<OCP_Parameters, float>;
    using ErrorMap = std::unordered_map<int, std::string>;
    using FeedbackCallback = std::function<void(int, FeedbackMap)>;
    using ErrorCallback = std::function<void(int, ErrorMap)>;
    using LowFreqFeedbackCallback = std::function<void(FeedbackMap)>;

    // Model names indexed by the model code of a ping reply.
    static const std::vector<std::string> MODELS_NAMES;

    // Registers the receive callback for `address`; sends nothing.
    OrreryActuator(OCP& transport, int address);
    // Sends STOP and removes the receive callback of the current address.
    ~OrreryActuator();
    OrreryActuator(const OrreryActuator&) = delete;
    OrreryActuator& operator=(const OrreryActuator&) = delete;
    OrreryActuator(OrreryActuator&&) = delete;
    OrreryActuator& operator=(OrreryActuator&&) = delete;

    // --- lifecycle --------------------------------------------------------
    bool send_ping(float timeout_s = 1.0f);
    bool connect(float timeout_s = 1.0f);
    void start();
    void stop();
    void disconnect();
    // Replace the callback; an empty one switches the call off. Never throw,
    // also when memory is short: nothing is allocated here.
    void set_feedback_callback(FeedbackCallback cb) noexcept;
    void set_error_callback(ErrorCallback cb) noexcept;
    // Kept for interface compatibility; the device has no low-frequency
    // channel, so these do nothing at all.
    void set_low_freq_feedback_callback(LowFreqFeedbackCallback cb);
    void set_low_freq_feedback_items(const std::vector<OCP_Items>& items);
    void set_low_freq_feedback_rate(int rate_hz);
    void set_low_freq_feedback_rate(Rates rate);

    // The single path to the bus: sends `frame` to the current address.
    void send_ocp_common(const std::vector<uint8_t>& frame);

    // --- reply dispatcher (runs on the transport's receive thread) --------
    void can_callback(int source, std::vector<uint8_t> bytes, int kind);

    // --- feedback streaming -------------------------------------------------
    void setFeedbackItems(const std::vector<OCP_Items>& items);
    void setFeedbackRate(int hz);
    void setFeedbackRate(Rates rate);
    FeedbackMap get_feedback() const;
    FeedbackMap getItemsBlocking(const std::vector<OCP_Items>& items, float timeout_s = 1.0f);

    // --- control modes and setpoints -------------------------------------
    // Arguments after the first default to NaN, which the device reads as
    // "leave this quantity as it is".
    void change_mode(Mode mode);
    void change_setpoint(float a, float b = 0.0f, float c = 0.0f);
    void change_torque_setpoint(float torque, float aux_0d = UNCHANGED, float aux_0e = UNCHANGED,
                                float aux_0f = UNCHANGED, float a5 = UNCHANGED);
    void change_speed_setpoint(float speed, float speed_ff = UNCHANGED, float aux_0e = UNCHANGED,
                               float aux_0d = UNCHANGED, float t_ff = UNCHANGED);
    void change_position_setpoint(float position, float speed_ff = UNCHANGED, float aux_0e = UNCHANGED,
                                  float aux_0d = UNCHANGED, float aux_0f = UNCHANGED, float t_ff = UNCHANGED);
    void change_impedance_setpoint(float position, float speed_ff = UNCHANGED, float k_stiff = UNCHANGED,
                                   float k_damp = UNCHANGED, float a5 = UNCHANGED, float t_ff = UNCHANGED,
                                   float a7 = UNCHANGED, float a8 = UNCHANGED);
    void internal_change_speed_setpoint(float a1, float a2 = UNCHANGED, float a3 = UNCHANGED,
                                        float a4 = UNCHANGED);
    void internal_change_position_setpoint(float a1, float a2 = UNCHANGED, float a3 = UNCHANGED,
                                           float a4 = UNCHANGED, float a5 = UNCHANGED, float a6 = UNCHANGED,
                                           float a7 = UNCHANGED, float a8 = UNCHANGED, float a9 = UNCHANGED);
    void set_torque_performance(TorquePerformance preset);
    void set_speed_performance(SpeedPerformance preset);

    // --- parameters and configuration storage ------------------------------
    void set_parameters(const ParameterMap& values);
    ParameterMap get_parameters(const std::vector<OCP_Parameters>& ids, float timeout_s = 1.0f);
    ParameterMap get_parameters_all();
    void parse_parameters(const std::vector<uint8_t>& bytes, int offset);
    void restore_factory_parameters(float wait_s = 1.0f);
    void save_config();
    void clear_config();

    // --- errors and firmware version ---------------------------------------
    void parse_errors(uint32_t error_word);
    void default_error_callback(int address, const ErrorMap& errors);
    static std::string parse_firmware_version(uint16_t word);

    // --- device administration ---------------------------------------------
    void changeAddress(int new_address);
    void set_can_high_speed(bool on);
    void enter_bootloader();
    void set_home_position();
    void blink();

    // --- accessors -------------------------------------------------------
    int get_address() const;
    std::string get_model_name() const;
    std::string get_firmware_version() const;
    bool is_connected() const;
    Mode get_mode() const;
    bool get_can_high_speed() const;

protected:
    // A host callback that the setter replaces without allocating and the
    // receive thread calls outside the lock. The setter swaps the function
    // into a pending slot and takes the active one out, so the function it
    // replaces dies at once in the setter, after the lock is released; only
    // a call running at that moment on the receive thread keeps its own
    // reference until it returns. The next caller wraps the pending function
    // in a shared pointer. Every member function is called with the
    // actuator's mutex held.
    template <class Function>
    class CallbackSlot {
    public:
        // Leaves the previous pending function in `function` and the active
        // one in `retired`, for the caller to destroy after releasing the lock.
        void replace(Function& function, std::shared_ptr<const Function>& retired) noexcept {
            pending_.swap(function);
            retired = std::move(active_);
            changed_ = true;
        }
        std::shared_ptr<const Function> current() {
            if (changed_) {
                active_ = pending_ ? std::make_shared<const Function>(std::move(pending_)) : nullptr;
                pending_ = nullptr;
                changed_ = false;
            }
            return active_;
        }

    private:
        Function pending_;
        bool changed_ = false;
        std::shared_ptr<const Function> active_;
    };

    template <class Command>
    void send(const Command& command) {
        send_ocp_common(command.encode());
    }
    void ensure_mode(Mode mode);
    bool request_parameter_batch(const std::vector<OCP_Parameters>& ids, float timeout_s);
    void handle_ping_reply(uint16_t model_code, uint16_t firmware_word);
    void deliver_items(FeedbackMap items, int kind);

    OCP& transport_;
    std::atomic<int> address_;
    std::atomic<bool> connected_{false};
    std::atomic<bool> can_high_speed_{false};
    std::atomic<Mode> mode_{Mode::SPEED};
    std::atomic<bool> ping_answered_{false};
    std::atomic<bool> parameters_received_{false};

    // Guards everything below. Never held while a host callback runs.
    mutable std::mutex mutex_;
    std::string model_name_;
    std::string firmware_version_{"x.x.x"};
    FeedbackMap feedback_;
    FeedbackMap requested_items_;
    ParameterMap parameters_;
    CallbackSlot<FeedbackCallback> feedback_callback_;
    CallbackSlot<ErrorCallback> error_callback_;
};

// Finds actuators on the bus. Bound to address 0, where the CAN adapter must
// answer; scan() pings each address of a range and lists those that answer.
class OrreryActuatorScanner : public OrreryActuator {
public:
    explicit OrreryActuatorScanner(OCP& ocp);
    std::vector<int> scan(int first_address, int last_address);
};

}  // namespace ocp_api
