// Reply buffers into an actuator's dispatcher, with both kinds of reply, and
// into the parameter parser at any offset, checking what the actuator keeps.
//
// Input: a selector byte (bits 0-1: streamed reply, requested reply, or the
// parameter parser), an argument byte (the kind, or a signed offset), then the
// buffer itself.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <streambuf>

#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/orrery_actuator.hpp"
#include "ocp_api/wire.hpp"
#include "support/fuzz_input.hpp"

namespace {

using ocp_api::OrreryActuator;
using ocp_fuzz::require;

// The actuator only sends (STOP on destruction); nothing needs to arrive.
class NullTransport : public ocp_api::OCP {
public:
    bool send(int, const std::vector<uint8_t>&) override { return true; }
    void setCallback(int, ReceiveCallback) override {}
    void removeCallback(int) override {}
    void close() override {}
};

// Reads the flags and maps the dispatcher writes.
class ProbedActuator : public OrreryActuator {
public:
    using OrreryActuator::OrreryActuator;
    bool parameters_flag() const { return parameters_received_.load(); }
    bool ping_flag() const { return ping_answered_.load(); }
    ParameterMap stored_parameters() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return parameters_;
    }
    FeedbackMap requested_items() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requested_items_;
    }
};

// "Unknown command" lines would flood the fuzzer's output; they are part of
// the driver's documented behaviour, not what this harness checks.
class DiscardingBuffer : public std::streambuf {
protected:
    int overflow(int c) override { return c; }
};

// Points standard error at a DiscardingBuffer while it lives, and back at its
// own buffer before the streams are flushed at exit.
class SilencedStandardError {
public:
    SilencedStandardError() : original_(std::cerr.rdbuf(&discard_)) {}
    ~SilencedStandardError() { std::cerr.rdbuf(original_); }
    SilencedStandardError(const SilencedStandardError&) = delete;
    SilencedStandardError& operator=(const SilencedStandardError&) = delete;

private:
    DiscardingBuffer discard_;
    std::streambuf* original_;
};

bool same_float(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool all_items_valid(const OrreryActuator::FeedbackMap& items) {
    for (const auto& [item, value] : items)
        if (!ocp_api::wire::is_item_code(static_cast<uint8_t>(item))) return false;
    return true;
}

bool is_known_error_bit(int bit) {
    for (const auto& known : ocp_api::tables::ERROR_BITS)
        if (known.bit == bit) return true;
    return false;
}

// What a buffer must lead to, read independently of the dispatcher: the item
// records up to the first record that is not an item, and how the walk ends.
enum class Ending { ITEMS, PING, PARAMETERS, ERRORS, UNKNOWN };
struct Expected {
    Ending ending = Ending::ITEMS;
    OrreryActuator::FeedbackMap items;
};

Expected expected_walk(const std::vector<uint8_t>& bytes) {
    using ocp_api::wire::RecordCode;
    constexpr std::size_t RECORD = ocp_api::wire::RECORD_SIZE;
    Expected expected;
    for (std::size_t p = 0; p < bytes.size(); p += RECORD) {
        const uint8_t code = bytes[p];
        const bool whole = p + RECORD <= bytes.size();
        if (code == static_cast<uint8_t>(RecordCode::RECORD_END)) break;
        if (code == static_cast<uint8_t>(RecordCode::PARAMETERS)) {
            expected.ending = Ending::PARAMETERS;
            break;
        }
        if (code == static_cast<uint8_t>(RecordCode::PING_REPLY) || code == static_cast<uint8_t>(RecordCode::ERROR_FLAGS)) {
            if (whole) expected.ending = code == static_cast<uint8_t>(RecordCode::PING_REPLY) ? Ending::PING : Ending::ERRORS;
            break;
        }
        if (!ocp_api::wire::is_item_code(code)) {
            expected.ending = Ending::UNKNOWN;
            break;
        }
        if (!whole) break;
        expected.items[static_cast<OrreryActuator::OCP_Items>(code)] =
            ocp_api::wire::decode_item_value(code, ocp_api::wire::read_u32(&bytes[p + 1]));
    }
    return expected;
}

bool same_items(const OrreryActuator::FeedbackMap& a, const OrreryActuator::FeedbackMap& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [item, value] : a)
        if (b.count(item) == 0 || !same_float(b.at(item), value)) return false;
    return true;
}

struct Observed {
    int feedback_calls = 0;
    OrreryActuator::FeedbackMap delivered;
    int error_calls = 0;
};

void check_reply(ProbedActuator& actuator, const std::vector<uint8_t>& buffer, int kind, const Observed& seen) {
    actuator.can_callback(0x21, buffer, kind);
    const auto feedback = actuator.get_feedback();
    require(seen.feedback_calls <= 1, "the feedback callback runs at most once per buffer");
    require(all_items_valid(seen.delivered), "every delivered item has a valid code");
    require(all_items_valid(feedback), "every item in the feedback map has a valid code");
    require(all_items_valid(actuator.requested_items()), "every requested item has a valid code");
    if (kind != ocp_api::wire::REPLY_STREAMED) {
        require(seen.feedback_calls == 0, "a requested reply calls no feedback callback");
        require(feedback.empty(), "a requested reply leaves the feedback map alone");
    } else {
        // A fresh actuator: what it keeps is exactly what it delivered.
        require(feedback.size() == seen.delivered.size(), "the feedback map holds the delivered items");
        for (const auto& [item, value] : seen.delivered)
            require(feedback.count(item) == 1 && same_float(feedback.at(item), value),
                    "the feedback map holds the delivered values");
    }
    const Expected expected = expected_walk(buffer);
    if (expected.ending == Ending::ITEMS) {
        if (kind == ocp_api::wire::REPLY_STREAMED) {
            require(seen.feedback_calls == 1, "a streamed buffer of items calls the feedback callback once");
            require(same_items(seen.delivered, expected.items), "the callback gets exactly the buffer's items");
        } else {
            require(same_items(actuator.requested_items(), expected.items),
                    "a requested buffer of items replaces the requested items with exactly its items");
        }
    } else {
        require(seen.feedback_calls == 0 && feedback.empty() && actuator.requested_items().empty(),
                "a buffer that ends in a ping, parameters, errors or an unknown code delivers no items");
    }
    require(actuator.ping_flag() == (expected.ending == Ending::PING), "only a whole ping reply raises the ping flag");
    require(seen.error_calls == 0 || expected.ending == Ending::ERRORS, "only a whole error record reports errors");
    if (expected.ending != Ending::PARAMETERS)
        require(!actuator.parameters_flag(), "only a parameters record stores parameters");
    if (actuator.ping_flag()) {
        const auto& names = OrreryActuator::MODELS_NAMES;
        const std::string model = actuator.get_model_name();
        bool listed = false;
        for (const auto& name : names) listed = listed || name == model;
        require(listed, "a ping reply sets a model name from the table");
    }
}

void check_parser(ProbedActuator& actuator, const std::vector<uint8_t>& buffer, int offset) {
    actuator.parse_parameters(buffer, offset);
    const auto stored = actuator.stored_parameters();
    require(actuator.parameters_flag() == !stored.empty(),
            "the parameters-received flag is set exactly when a record was stored");
    for (const auto& [id, value] : stored) {
        require(static_cast<uint8_t>(id) != 0, "identifier 0 ends the list and is never stored");
        // The record must sit on a record boundary counted from the offset.
        bool found = false;
        for (std::size_t p = static_cast<std::size_t>(offset); p + ocp_api::wire::RECORD_SIZE <= buffer.size();
             p += ocp_api::wire::RECORD_SIZE)
            found = found || buffer[p] == static_cast<uint8_t>(id);
        require(offset >= 0 && found, "a stored parameter comes from a whole record after the offset");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const SilencedStandardError silenced;

    ocp_fuzz::FuzzInput input(data, size);
    const uint8_t selector = input.byte();
    const uint8_t argument = input.byte();
    const std::vector<uint8_t> buffer = input.rest();

    NullTransport transport;
    ProbedActuator actuator(transport, 0x21);
    Observed seen;
    actuator.set_feedback_callback([&seen](int, OrreryActuator::FeedbackMap items) {
        ++seen.feedback_calls;
        seen.delivered = std::move(items);
    });
    actuator.set_error_callback([&seen](int, OrreryActuator::ErrorMap errors) {
        ++seen.error_calls;
        require(!errors.empty(), "an error callback names at least one error");
        for (const auto& [bit, text] : errors)
            require(is_known_error_bit(bit) && !text.empty(), "every reported error is a known bit with a text");
    });

    switch (selector & 3) {
        case 0: check_reply(actuator, buffer, ocp_api::wire::REPLY_STREAMED, seen); break;
        case 1: check_reply(actuator, buffer, 1 + argument, seen); break;
        default: check_parser(actuator, buffer, static_cast<int8_t>(argument)); break;
    }
    require(seen.error_calls <= 1, "one buffer reports errors at most once");
    // parameters_received only ever comes with stored parameters, whichever path ran.
    require(actuator.parameters_flag() == !actuator.stored_parameters().empty(),
            "the parameters-received flag matches the stored parameters");
    return 0;
}
