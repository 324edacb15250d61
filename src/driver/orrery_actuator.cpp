// Lifecycle of a physical actuator: construction, liveness, start and stop,
// host callbacks and accessors.
#include "ocp_api/orrery_actuator.hpp"

#include "common/timing.hpp"
#include "ocp_api/identifier_tables.hpp"

namespace ocp_api {

const std::vector<std::string> OrreryActuator::MODELS_NAMES = [] {
    std::vector<std::string> names;
    for (const ModelInfo& model : tables::MODELS) names.emplace_back(model.name);
    return names;
}();

OrreryActuator::OrreryActuator(OCP& transport, int address) : transport_(transport), address_(address) {
    feedback_.max_load_factor(1.0f);
    requested_items_.max_load_factor(1.0f);
    parameters_.max_load_factor(1.0f);
    ErrorCallback default_callback = [this](int source, ErrorMap errors) { default_error_callback(source, errors); };
    std::shared_ptr<const ErrorCallback> none;
    error_callback_.replace(default_callback, none);
    transport_.setCallback(address, [this](int source, std::vector<uint8_t> bytes, int kind) {
        can_callback(source, std::move(bytes), kind);
    });
}

OrreryActuator::~OrreryActuator() {
    stop();
    transport_.removeCallback(address_.load());
}

bool OrreryActuator::send_ping(float timeout_s) {
    ping_answered_.store(false);
    send(codec::Ping{});
    return detail::poll_until(timeout_s, detail::PING_POLL_PERIOD, [this] { return ping_answered_.load(); });
}

bool OrreryActuator::connect(float timeout_s) {
    connected_.store(send_ping(timeout_s));
    return connected_.load();
}

void OrreryActuator::start() { send(codec::Start{}); }

void OrreryActuator::stop() { send(codec::Stop{}); }

void OrreryActuator::disconnect() {
    stop();
    transport_.removeCallback(address_.load());
    connected_.store(false);
}

// The callback replaced ends up in `cb` or `retired` and dies when the
// setter returns, after the lock is released, so its destructor may call back
// into the actuator.
void OrreryActuator::set_feedback_callback(FeedbackCallback cb) noexcept {
    std::shared_ptr<const FeedbackCallback> retired;
    std::lock_guard<std::mutex> lock(mutex_);
    feedback_callback_.replace(cb, retired);
}

void OrreryActuator::set_error_callback(ErrorCallback cb) noexcept {
    std::shared_ptr<const ErrorCallback> retired;
    std::lock_guard<std::mutex> lock(mutex_);
    error_callback_.replace(cb, retired);
}

void OrreryActuator::set_low_freq_feedback_callback(LowFreqFeedbackCallback) {}
void OrreryActuator::set_low_freq_feedback_items(const std::vector<OCP_Items>&) {}
void OrreryActuator::set_low_freq_feedback_rate(int) {}
void OrreryActuator::set_low_freq_feedback_rate(Rates) {}

void OrreryActuator::send_ocp_common(const std::vector<uint8_t>& frame) { transport_.send(address_.load(), frame); }

int OrreryActuator::get_address() const { return address_.load(); }

std::string OrreryActuator::get_model_name() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return model_name_;
}

std::string OrreryActuator::get_firmware_version() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return firmware_version_;
}

bool OrreryActuator::is_connected() const { return connected_.load(); }

OrreryActuator::Mode OrreryActuator::get_mode() const { return mode_.load(); }

bool OrreryActuator::get_can_high_speed() const { return can_high_speed_.load(); }

}  // namespace ocp_api
