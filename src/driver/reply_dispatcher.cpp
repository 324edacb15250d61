// The reply dispatcher: walks one reply buffer record by record on the
// transport's receive thread.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"

namespace ocp_api {

namespace {

bool record_is_complete(std::size_t position, std::size_t size) { return position + wire::RECORD_SIZE <= size; }

}  // namespace

void OrreryActuator::can_callback(int /*source*/, std::vector<uint8_t> bytes, int kind) {
    const std::size_t size = bytes.size();
    // Default bucket count, grown as records are inserted: the host sees this
    // map (or its copy), and its iteration order depends on the bucket count.
    FeedbackMap items;
    items.max_load_factor(1.0f);
    std::size_t p = 0;
    while (p < size) {
        const uint8_t code = bytes[p];
        switch (static_cast<wire::RecordCode>(code)) {
            case wire::RecordCode::RECORD_END:
                deliver_items(std::move(items), kind);
                return;
            case wire::RecordCode::PING_REPLY:
                if (!record_is_complete(p, size)) break;
                handle_ping_reply(wire::read_u16(&bytes[p + wire::PING_MODEL_OFFSET]),
                                  wire::read_u16(&bytes[p + wire::PING_FIRMWARE_OFFSET]));
                return;
            case wire::RecordCode::PARAMETERS:
                parse_parameters(bytes, static_cast<int>(p + 1));
                return;
            case wire::RecordCode::ERROR_FLAGS:
                if (!record_is_complete(p, size)) break;
                parse_errors(wire::read_u32(&bytes[p + 1]));
                return;
            default:
                if (wire::is_item_code(code)) {
                    if (!record_is_complete(p, size)) break;
                    items[static_cast<OCP_Items>(code)] = wire::decode_item_value(code, wire::read_u32(&bytes[p + 1]));
                    p += wire::RECORD_SIZE;
                    continue;
                }
                detail::ErrorLine(detail::AfterLine::DECIMAL) << "Unknown command 0x" << std::hex << static_cast<unsigned>(code);
                return;
        }
        break;  // a truncated record ends the walk like RECORD_END
    }
    deliver_items(std::move(items), kind);
}

void OrreryActuator::handle_ping_reply(uint16_t model_code, uint16_t firmware_word) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        firmware_version_ = parse_firmware_version(firmware_word);
        model_name_ = model_code < MODELS_NAMES.size() ? MODELS_NAMES[model_code] : MODELS_NAMES[0];
    }
    ping_answered_.store(true, std::memory_order_release);
}

void OrreryActuator::deliver_items(FeedbackMap items, int kind) {
    if (kind != wire::REPLY_STREAMED) {
        std::lock_guard<std::mutex> lock(mutex_);
        requested_items_ = std::move(items);
        return;
    }
    std::shared_ptr<const FeedbackCallback> callback;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [item, value] : items) feedback_[item] = value;
        callback = feedback_callback_.current();
    }
    // The host sees only the items of this buffer.
    if (callback) (*callback)(address_.load(), std::move(items));
}

}  // namespace ocp_api
