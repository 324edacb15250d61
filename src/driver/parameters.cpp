// Parameter access and configuration storage.
#include "ocp_api/orrery_actuator.hpp"

#include <algorithm>
#include <cmath>

#include "common/diagnostics.hpp"
#include "common/timing.hpp"

namespace ocp_api {

void OrreryActuator::set_parameters(const ParameterMap& values) {
    // Nine entries to a frame, in the map's iteration order; the entries are
    // encoded as they come, so a frame costs one allocation.
    const std::size_t full_frame_payload = wire::MAX_PARAMETERS_PER_FRAME * wire::RECORD_SIZE;
    wire::Frame frame = wire::make_frame(codec::SetParameters::CODE, full_frame_payload);
    std::size_t entries = 0;
    for (const auto& [id, value] : values) {
        codec::ParameterSetting{code_of(id), value}.encode_into(frame);
        if (++entries % wire::MAX_PARAMETERS_PER_FRAME == 0) {
            send_ocp_common(frame);
            frame = wire::make_frame(codec::SetParameters::CODE, full_frame_payload);
        }
    }
    if (entries % wire::MAX_PARAMETERS_PER_FRAME != 0) send_ocp_common(frame);
}

bool OrreryActuator::request_parameter_batch(const std::vector<OCP_Parameters>& ids, float timeout_s) {
    codec::GetParameters command;
    command.codes.reserve(ids.size());
    for (const OCP_Parameters id : ids) command.codes.push_back(code_of(id));
    parameters_received_.store(false);
    send(command);
    // The flag gets one last look after the deadline: an answer parsed during
    // the final sleep still counts.
    const auto received = [this] { return parameters_received_.load(std::memory_order_acquire); };
    return detail::poll_until(timeout_s, detail::PARAMETER_POLL_PERIOD, received) || received();
}

OrreryActuator::ParameterMap OrreryActuator::get_parameters(const std::vector<OCP_Parameters>& ids, float timeout_s) {
    // At most nine identifiers fit one request; the rest follow in later
    // batches. A time-out ends the requests: on the first batch the result is
    // empty, on a later one it is what the store holds by then.
    std::size_t first = 0;
    do {
        const std::size_t count = std::min(ids.size() - first, wire::MAX_PARAMETERS_PER_FRAME);
        const std::vector<OCP_Parameters> batch(ids.begin() + static_cast<std::ptrdiff_t>(first),
                                                ids.begin() + static_cast<std::ptrdiff_t>(first + count));
        if (!request_parameter_batch(batch, timeout_s)) {
            detail::ErrorLine() << "Timeout waiting for parameters";
            if (first == 0) return {};
            break;
        }
        first += count;
    } while (first < ids.size());
    std::lock_guard<std::mutex> lock(mutex_);
    return parameters_;
}

OrreryActuator::ParameterMap OrreryActuator::get_parameters_all() {
    return get_parameters(std::vector<OCP_Parameters>(ALL_PARAMETERS.begin(), ALL_PARAMETERS.end()), 1.0f);
}

void OrreryActuator::parse_parameters(const std::vector<uint8_t>& bytes, int offset) {
    if (offset < 0 || static_cast<std::size_t>(offset) > bytes.size()) return;
    codec::ParameterEntryReader entries(bytes, static_cast<std::size_t>(offset));
    std::size_t stored = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        codec::ParameterEntry entry;
        while (entries.next(entry)) {  // identifier 0 ends the list
            parameters_[static_cast<OCP_Parameters>(entry.code)] = entry.value();
            ++stored;
        }
    }
    if (stored > 0) parameters_received_.store(true, std::memory_order_release);
}

void OrreryActuator::save_config() { send(codec::SaveConfig{}); }

void OrreryActuator::clear_config() {
    send(codec::ClearConfig{});
    detail::ErrorLine() << "Warning: Actuator configuration cleared. Device will reset.";
    detail::sleep_resuming(detail::DEVICE_RESET_PAUSE);
}

void OrreryActuator::restore_factory_parameters(float wait_s) {
    stop();
    setFeedbackRate(Rates::RATE_OFF);
    // The same command as clear_config, deliberately without its warning.
    send(codec::ClearConfig{});
    can_high_speed_.store(false);
    mode_.store(Mode::SPEED);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        parameters_.clear();
        feedback_.clear();
        requested_items_.clear();
    }
    detail::sleep_milliseconds_resuming(detail::whole_milliseconds(wait_s));
}

}  // namespace ocp_api
