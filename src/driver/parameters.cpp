// Parameter access and configuration storage.
#include "ocp_api/orrery_actuator.hpp"

#include <algorithm>
#include <cmath>

#include "common/diagnostics.hpp"
#include "common/timing.hpp"

namespace ocp_api {

void OrreryActuator::set_parameters(const ParameterMap& values) {
    const std::size_t full_frame_payload = wire::MAX_PARAMETERS_PER_FRAME * wire::RECORD_SIZE;
    wire::Frame frame = wire::make_frame(wire::Command::SET_PARAMETERS, full_frame_payload);
    std::size_t records = 0;
    for (const auto& [id, value] : values) {
        wire::append_parameter_record(frame, code_of(id), value);
        if (++records % wire::MAX_PARAMETERS_PER_FRAME == 0) {
            send_ocp_common(frame);
            frame = wire::make_frame(wire::Command::SET_PARAMETERS, full_frame_payload);
        }
    }
    if (frame.size() > 1) send_ocp_common(frame);
}

bool OrreryActuator::request_parameter_batch(const std::vector<OCP_Parameters>& ids, float timeout_s) {
    wire::Frame frame = wire::make_frame(wire::Command::GET_PARAMETERS, ids.size());
    for (const OCP_Parameters id : ids) wire::append_u8(frame, static_cast<uint8_t>(id));
    parameters_received_.store(false);
    send_ocp_common(frame);
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
    const std::size_t start = static_cast<std::size_t>(offset);
    const std::size_t records = (bytes.size() - start) / wire::RECORD_SIZE;
    std::size_t stored = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t r = 0; r < records; ++r) {
            const uint8_t* record = &bytes[start + r * wire::RECORD_SIZE];
            const uint8_t id = record[0];
            if (id == 0) break;  // identifier 0 ends the list
            parameters_[static_cast<OCP_Parameters>(id)] = wire::decode_parameter_value(id, wire::read_u32(record + 1));
            ++stored;
        }
    }
    if (stored > 0) parameters_received_.store(true, std::memory_order_release);
}

void OrreryActuator::save_config() { send_command(wire::Command::SAVE_CONFIG); }

void OrreryActuator::clear_config() {
    send_command(wire::Command::CLEAR_CONFIG);
    detail::ErrorLine() << "Warning: Actuator configuration cleared. Device will reset.";
    detail::sleep_resuming(detail::DEVICE_RESET_PAUSE);
}

void OrreryActuator::restore_factory_parameters(float wait_s) {
    stop();
    setFeedbackRate(Rates::RATE_OFF);
    // The same command as clear_config, deliberately without its warning.
    send_command(wire::Command::CLEAR_CONFIG);
    can_high_speed_.store(false);
    mode_.store(Mode::SPEED);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        parameters_.clear();
        feedback_.clear();
        requested_items_.clear();
    }
    if (wait_s > 0.0f) {
        const float ms = std::trunc(wait_s * 1000.0f);
        // Waits beyond a day are clamped rather than overflowing the duration.
        const float bounded_ms = std::min(ms, 86400000.0f);
        if (bounded_ms > 0.0f) detail::sleep_resuming(std::chrono::milliseconds(static_cast<int64_t>(bounded_ms)));
    }
}

}  // namespace ocp_api
