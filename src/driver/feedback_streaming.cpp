// Choosing, rating and reading streamed feedback; one-shot item requests.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"
#include "common/timing.hpp"

namespace ocp_api {

namespace {

wire::Frame item_list_frame(wire::Command command, const std::vector<OrreryActuator::OCP_Items>& items) {
    wire::Frame frame = wire::make_frame(command, items.size());
    for (const auto item : items) wire::append_u8(frame, code_of(item));
    return frame;
}

}  // namespace

void OrreryActuator::setFeedbackItems(const std::vector<OCP_Items>& items) {
    send_ocp_common(item_list_frame(wire::Command::SET_FEEDBACK_ITEMS, items));
    std::lock_guard<std::mutex> lock(mutex_);
    feedback_.clear();
}

void OrreryActuator::setFeedbackRate(int hz) {
    if (hz < 0) {
        detail::ErrorLine() << "Rate must be non-negative";
        return;
    }
    if (hz > wire::MAX_FEEDBACK_RATE_HZ) {
        detail::ErrorLine() << "Rate cannot exceed " << wire::MAX_FEEDBACK_RATE_HZ << " Hz";
        return;
    }
    wire::Frame frame = wire::make_frame(wire::Command::SET_FEEDBACK_RATE, sizeof(uint32_t));
    wire::append_u32(frame, wire::feedback_period_from_hz(hz));
    send_ocp_common(frame);
}

void OrreryActuator::setFeedbackRate(Rates rate) { setFeedbackRate(static_cast<int>(rate)); }

OrreryActuator::FeedbackMap OrreryActuator::get_feedback() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return feedback_;
}

OrreryActuator::FeedbackMap OrreryActuator::getItemsBlocking(const std::vector<OCP_Items>& items, float timeout_s) {
    const wire::Frame frame = item_list_frame(wire::Command::GET_ITEMS, items);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requested_items_.clear();
    }
    send_ocp_common(frame);
    FeedbackMap answer;
    const bool answered = detail::poll_until(timeout_s, detail::ITEM_POLL_PERIOD, [&] {
        std::lock_guard<std::mutex> lock(mutex_);
        if (requested_items_.empty()) return false;
        answer = requested_items_;
        return true;
    });
    if (!answered) {
        detail::ErrorLine() << "Timeout waiting for feedback items";
        return {};
    }
    return answer;
}

}  // namespace ocp_api
