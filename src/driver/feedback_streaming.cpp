// Choosing, rating and reading streamed feedback; one-shot item requests.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"
#include "common/timing.hpp"

namespace ocp_api {

void OrreryActuator::setFeedbackItems(const std::vector<OCP_Items>& items) {
    send_ocp_common(codec::encode_item_list(codec::SetFeedbackItems::CODE, items));
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
    send(codec::SetFeedbackRate::from_hz(hz));
}

void OrreryActuator::setFeedbackRate(Rates rate) { setFeedbackRate(static_cast<int>(rate)); }

OrreryActuator::FeedbackMap OrreryActuator::get_feedback() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return feedback_;
}

OrreryActuator::FeedbackMap OrreryActuator::getItemsBlocking(const std::vector<OCP_Items>& items, float timeout_s) {
    const wire::Frame frame = codec::encode_item_list(codec::GetItems::CODE, items);
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
