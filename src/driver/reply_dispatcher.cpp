// The reply dispatcher: walks one reply buffer record by record on the
// transport's receive thread.
#include "ocp_api/orrery_actuator.hpp"

#include "common/diagnostics.hpp"
#include "ocp_api/identifier_tables.hpp"

namespace ocp_api {

void OrreryActuator::can_callback(int /*source*/, std::vector<uint8_t> bytes, int kind) {
    // Default bucket count, grown as records are inserted: the host sees this
    // map (or its copy), and its iteration order depends on the bucket count.
    FeedbackMap items;
    items.max_load_factor(1.0f);
    codec::ReplyReader reader(bytes);
    for (;;) {
        const codec::Record record = reader.next();
        switch (record.kind) {
            case codec::Record::Kind::ITEM:
                // A later record for the same item wins.
                items[static_cast<OCP_Items>(record.item.code)] = record.item.value();
                continue;
            case codec::Record::Kind::PING_REPLY:
                handle_ping_reply(record.ping.model_code, record.ping.firmware_word);
                return;
            case codec::Record::Kind::PARAMETERS:
                parse_parameters(bytes, static_cast<int>(record.offset + 1));
                return;
            case codec::Record::Kind::ERROR_FLAGS:
                parse_errors(record.errors.flags);
                return;
            case codec::Record::Kind::UNKNOWN:
                // Items read before it are dropped with the rest of the buffer.
                detail::ErrorLine(detail::AfterLine::DECIMAL)
                    << "Unknown command 0x" << std::hex << static_cast<unsigned>(record.code);
                return;
            case codec::Record::Kind::END:
            case codec::Record::Kind::TRUNCATED:  // a cut record ends the walk like RECORD_END
                deliver_items(std::move(items), kind);
                return;
        }
    }
}

void OrreryActuator::handle_ping_reply(uint16_t model_code, uint16_t firmware_word) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        firmware_version_ = parse_firmware_version(firmware_word);
        model_name_ = model_name_of(model_code);
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
