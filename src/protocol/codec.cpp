// Encoding and decoding of every command and reply record.
#include "ocp_api/codec.hpp"

#include <algorithm>
#include <cstdio>

#include "ocp_api/identifier_tables.hpp"

namespace ocp_api::codec {

namespace {

std::string plural_bytes(std::size_t count) { return std::to_string(count) + (count == 1 ? " byte" : " bytes"); }

std::string code_text(uint8_t code) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", code);
    return text;
}

void note(std::string& problem, const std::string& text) {
    if (problem.empty()) problem = text;
}

std::size_t payload_size(ByteView frame) { return frame.size == 0 ? 0 : frame.size - 1; }
const uint8_t* payload(ByteView frame) { return frame.data + 1; }

// The frame's code byte against the command's; notes an empty frame or a
// code of another command.
template <class Message>
bool check_code(ByteView frame, Command code, Decoded<Message>& decoded) {
    if (frame.size == 0) {
        note(decoded.problem, "empty command frame");
        return false;
    }
    if (frame.data[0] != static_cast<uint8_t>(code)) {
        note(decoded.problem, "command " + code_text(frame.data[0]) + ", expected " +
                                  code_text(static_cast<uint8_t>(code)));
        return false;
    }
    return true;
}

template <class Message>
void expect_payload(ByteView frame, std::size_t expected, Decoded<Message>& decoded) {
    const std::size_t size = payload_size(frame);
    if (size < expected)
        note(decoded.problem, "payload of " + plural_bytes(size) + ", expected " + std::to_string(expected));
    else if (size > expected)
        note(decoded.problem, plural_bytes(size - expected) + " after the payload");
}

// One byte after the code.
template <class Message>
Decoded<Message> decode_byte(ByteView frame, uint8_t Message::*field) {
    Decoded<Message> decoded;
    decoded.expected = 1;
    if (!check_code(frame, Message::CODE, decoded)) return decoded;
    expect_payload(frame, 1, decoded);
    if (payload_size(frame) >= 1) {
        decoded.value.*field = payload(frame)[0];
        decoded.fields = 1;
    }
    return decoded;
}

template <class Message>
Frame encode_byte(const Message& message, uint8_t Message::*field) {
    Frame frame = wire::make_frame(Message::CODE, 1);
    wire::append_u8(frame, message.*field);
    return frame;
}

// --- item and parameter code lists ---------------------------------------------------

Frame encode_codes(Command command, const std::vector<uint8_t>& codes) {
    Frame frame = wire::make_frame(command, codes.size());
    frame.insert(frame.end(), codes.begin(), codes.end());
    return frame;
}

template <class Message>
Decoded<Message> decode_item_list(ByteView frame) {
    Decoded<Message> decoded;
    if (!check_code(frame, Message::CODE, decoded)) return decoded;
    const std::size_t size = payload_size(frame);
    decoded.value.items.assign(payload(frame), payload(frame) + size);
    decoded.fields = size;
    for (const uint8_t code : decoded.value.items) {
        if (!find_item(code)) note(decoded.problem, "unknown item code " + code_text(code));
    }
    return decoded;
}

template <class Message>
void check_parameter_count(std::size_t count, Decoded<Message>& decoded) {
    if (count == 0) note(decoded.problem, "no parameter entries");
    if (count > wire::MAX_PARAMETERS_PER_FRAME)
        note(decoded.problem, std::to_string(count) + " parameter entries, at most " +
                                  std::to_string(wire::MAX_PARAMETERS_PER_FRAME));
}

template <class Message>
void check_parameter_code(uint8_t code, Decoded<Message>& decoded) {
    if (!find_parameter(code)) note(decoded.problem, "unknown parameter code " + code_text(code));
}

// --- setpoints ---------------------------------------------------------------------

template <class Message>
struct FloatField {
    std::string_view name;
    float Message::*member;
};

template <class Message>
struct Floats;

#define OCP_FIELD(type, member) \
    FloatField<type> { #member, &type::member }

template <>
struct Floats<SetSetpoint> {
    static constexpr std::array<FloatField<SetSetpoint>, 1> FIELDS = {{OCP_FIELD(SetSetpoint, setpoint)}};
};
template <>
struct Floats<SetSetpointExt> {
    static constexpr std::array<FloatField<SetSetpointExt>, 3> FIELDS = {
        {OCP_FIELD(SetSetpointExt, a), OCP_FIELD(SetSetpointExt, b), OCP_FIELD(SetSetpointExt, c)}};
};
template <>
struct Floats<SetTorqueSetpoint> {
    using M = SetTorqueSetpoint;
    static constexpr std::array<FloatField<M>, 5> FIELDS = {{OCP_FIELD(M, torque), OCP_FIELD(M, aux_0d),
                                                             OCP_FIELD(M, aux_0e), OCP_FIELD(M, aux_0f),
                                                             OCP_FIELD(M, a5)}};
};
template <>
struct Floats<SetSpeedSetpoint> {
    using M = SetSpeedSetpoint;
    static constexpr std::array<FloatField<M>, 5> FIELDS = {{OCP_FIELD(M, speed), OCP_FIELD(M, speed_ff),
                                                             OCP_FIELD(M, aux_0e), OCP_FIELD(M, aux_0d),
                                                             OCP_FIELD(M, t_ff)}};
};
template <>
struct Floats<SetPositionSetpoint> {
    using M = SetPositionSetpoint;
    static constexpr std::array<FloatField<M>, 6> FIELDS = {{OCP_FIELD(M, position), OCP_FIELD(M, speed_ff),
                                                             OCP_FIELD(M, aux_0e), OCP_FIELD(M, aux_0d),
                                                             OCP_FIELD(M, aux_0f), OCP_FIELD(M, t_ff)}};
};
template <>
struct Floats<SetImpedanceSetpoint> {
    using M = SetImpedanceSetpoint;
    static constexpr std::array<FloatField<M>, 8> FIELDS = {
        {OCP_FIELD(M, position), OCP_FIELD(M, speed_ff), OCP_FIELD(M, k_stiff), OCP_FIELD(M, k_damp),
         OCP_FIELD(M, a5), OCP_FIELD(M, t_ff), OCP_FIELD(M, a7), OCP_FIELD(M, a8)}};
};
template <>
struct Floats<SetSpeedSetpointInternal> {
    using M = SetSpeedSetpointInternal;
    static constexpr std::array<FloatField<M>, 4> FIELDS = {
        {OCP_FIELD(M, a1), OCP_FIELD(M, a2), OCP_FIELD(M, a3), OCP_FIELD(M, a4)}};
};
template <>
struct Floats<SetPositionSetpointInternal> {
    using M = SetPositionSetpointInternal;
    static constexpr std::array<FloatField<M>, 9> FIELDS = {
        {OCP_FIELD(M, a1), OCP_FIELD(M, a2), OCP_FIELD(M, a3), OCP_FIELD(M, a4), OCP_FIELD(M, a5), OCP_FIELD(M, a6),
         OCP_FIELD(M, a7), OCP_FIELD(M, a8), OCP_FIELD(M, a9)}};
};

#undef OCP_FIELD

template <class Message>
Frame encode_floats(const Message& message) {
    const auto& fields = Floats<Message>::FIELDS;
    Frame frame = wire::make_frame(Message::CODE, sizeof(float) * fields.size());
    for (const auto& field : fields) append_float(frame, message.*field.member);
    return frame;
}

template <class Message>
Decoded<Message> decode_floats(ByteView frame) {
    const auto& fields = Floats<Message>::FIELDS;
    Decoded<Message> decoded;
    decoded.expected = fields.size();
    if (!check_code(frame, Message::CODE, decoded)) return decoded;
    expect_payload(frame, sizeof(float) * fields.size(), decoded);
    const std::size_t present = std::min(fields.size(), payload_size(frame) / sizeof(float));
    for (std::size_t i = 0; i < present; ++i)
        decoded.value.*fields[i].member = wire::read_f32(payload(frame) + i * sizeof(float));
    decoded.fields = present;
    return decoded;
}

template <class Message>
std::vector<std::string_view> names_of() {
    std::vector<std::string_view> names;
    for (const auto& field : Floats<Message>::FIELDS) names.push_back(field.name);
    return names;
}

template <class Message>
Decoded<std::vector<float>> floats_of(ByteView frame) {
    const Decoded<Message> typed = decode_floats<Message>(frame);
    Decoded<std::vector<float>> decoded;
    decoded.expected = typed.expected;
    decoded.fields = typed.fields;
    decoded.problem = typed.problem;
    for (std::size_t i = 0; i < typed.fields; ++i)
        decoded.value.push_back(typed.value.*Floats<Message>::FIELDS[i].member);
    return decoded;
}

}  // namespace

// --- the command table ---------------------------------------------------------------

namespace {

constexpr uint8_t NOT_A_COMMAND = 0xFF;

// The row of COMMANDS for each code, so a transport classifies every command
// it sends with one look-up.
constexpr std::array<uint8_t, 256> command_rows() {
    std::array<uint8_t, 256> rows{};
    for (auto& row : rows) row = NOT_A_COMMAND;
    for (std::size_t i = 0; i < COMMANDS.size(); ++i) rows[static_cast<uint8_t>(COMMANDS[i].code)] = static_cast<uint8_t>(i);
    return rows;
}

constexpr std::array<uint8_t, 256> COMMAND_ROWS = command_rows();

}  // namespace

const CommandInfo* find_command(uint8_t code) {
    const uint8_t row = COMMAND_ROWS[code];
    return row == NOT_A_COMMAND ? nullptr : &COMMANDS[row];
}

bool is_setpoint(uint8_t code) { return command_class(code) == wire::CommandClass::setpoint; }

wire::CommandClass command_class(uint8_t code) {
    const CommandInfo* info = find_command(code);
    return info ? info->queueing : wire::CommandClass::ordinary;
}

// --- commands ------------------------------------------------------------------------

template <Command Code>
Decoded<BareCommand<Code>> BareCommand<Code>::decode(ByteView frame) {
    Decoded<BareCommand> decoded;
    if (check_code(frame, Code, decoded)) expect_payload(frame, 0, decoded);
    return decoded;
}

template struct BareCommand<Command::START>;
template struct BareCommand<Command::STOP>;
template struct BareCommand<Command::SET_HOME_POSITION>;
template struct BareCommand<Command::SAVE_CONFIG>;
template struct BareCommand<Command::PING>;
template struct BareCommand<Command::BLINK>;
template struct BareCommand<Command::ENTER_BOOTLOADER>;
template struct BareCommand<Command::CLEAR_CONFIG>;

Frame SetMode::encode() const { return encode_byte(*this, &SetMode::mode); }
Decoded<SetMode> SetMode::decode(ByteView frame) { return decode_byte(frame, &SetMode::mode); }
Frame SetTorquePerformance::encode() const { return encode_byte(*this, &SetTorquePerformance::preset); }
Decoded<SetTorquePerformance> SetTorquePerformance::decode(ByteView frame) {
    return decode_byte(frame, &SetTorquePerformance::preset);
}
Frame SetSpeedPerformance::encode() const { return encode_byte(*this, &SetSpeedPerformance::preset); }
Decoded<SetSpeedPerformance> SetSpeedPerformance::decode(ByteView frame) {
    return decode_byte(frame, &SetSpeedPerformance::preset);
}

SetFeedbackRate SetFeedbackRate::from_hz(int hz) {
    if (hz <= 0) return {0};
    return {static_cast<uint32_t>((wire::PERIOD_UNITS_PER_SECOND + hz / 2) / hz)};
}

Frame SetFeedbackRate::encode() const {
    Frame frame = wire::make_frame(CODE, sizeof(uint32_t));
    wire::append_u32(frame, period);
    return frame;
}

Decoded<SetFeedbackRate> SetFeedbackRate::decode(ByteView frame) {
    Decoded<SetFeedbackRate> decoded;
    decoded.expected = 1;
    if (!check_code(frame, CODE, decoded)) return decoded;
    expect_payload(frame, sizeof(uint32_t), decoded);
    if (payload_size(frame) >= sizeof(uint32_t)) {
        decoded.value.period = wire::read_u32(payload(frame));
        decoded.fields = 1;
    }
    return decoded;
}

Decoded<SetFeedbackItems> SetFeedbackItems::decode(ByteView frame) { return decode_item_list<SetFeedbackItems>(frame); }
Decoded<GetItems> GetItems::decode(ByteView frame) { return decode_item_list<GetItems>(frame); }

void ParameterSetting::encode_into(Frame& frame) const {
    wire::append_u8(frame, code);
    append_float(frame, value);
}

Frame SetParameters::encode() const {
    Frame frame = wire::make_frame(CODE, entries.size() * wire::RECORD_SIZE);
    for (const ParameterSetting& entry : entries) entry.encode_into(frame);
    return frame;
}

Decoded<SetParameters> SetParameters::decode(ByteView frame) {
    Decoded<SetParameters> decoded;
    if (!check_code(frame, CODE, decoded)) return decoded;
    const std::size_t count = payload_size(frame) / wire::RECORD_SIZE;
    check_parameter_count(count, decoded);
    for (std::size_t i = 0; i < count; ++i) {
        const uint8_t* entry = payload(frame) + i * wire::RECORD_SIZE;
        check_parameter_code(entry[0], decoded);
        decoded.value.entries.push_back({entry[0], wire::read_f32(entry + 1)});
    }
    decoded.fields = count;
    const std::size_t left = payload_size(frame) % wire::RECORD_SIZE;
    if (left != 0)
        note(decoded.problem, "truncated parameter entry: " + std::to_string(left) + " of " +
                                  std::to_string(wire::RECORD_SIZE) + " bytes");
    return decoded;
}

Frame GetParameters::encode() const { return encode_codes(CODE, codes); }

Decoded<GetParameters> GetParameters::decode(ByteView frame) {
    Decoded<GetParameters> decoded;
    if (!check_code(frame, CODE, decoded)) return decoded;
    const std::size_t count = payload_size(frame);
    check_parameter_count(count, decoded);
    decoded.value.codes.assign(payload(frame), payload(frame) + count);
    for (const uint8_t code : decoded.value.codes) check_parameter_code(code, decoded);
    decoded.fields = count;
    return decoded;
}

Frame SetSetpoint::encode() const { return encode_floats(*this); }
Decoded<SetSetpoint> SetSetpoint::decode(ByteView frame) { return decode_floats<SetSetpoint>(frame); }
Frame SetSetpointExt::encode() const { return encode_floats(*this); }
Decoded<SetSetpointExt> SetSetpointExt::decode(ByteView frame) { return decode_floats<SetSetpointExt>(frame); }
Frame SetTorqueSetpoint::encode() const { return encode_floats(*this); }
Decoded<SetTorqueSetpoint> SetTorqueSetpoint::decode(ByteView frame) {
    return decode_floats<SetTorqueSetpoint>(frame);
}
Frame SetSpeedSetpoint::encode() const { return encode_floats(*this); }
Decoded<SetSpeedSetpoint> SetSpeedSetpoint::decode(ByteView frame) { return decode_floats<SetSpeedSetpoint>(frame); }
Frame SetPositionSetpoint::encode() const { return encode_floats(*this); }
Decoded<SetPositionSetpoint> SetPositionSetpoint::decode(ByteView frame) {
    return decode_floats<SetPositionSetpoint>(frame);
}
Frame SetImpedanceSetpoint::encode() const { return encode_floats(*this); }
Decoded<SetImpedanceSetpoint> SetImpedanceSetpoint::decode(ByteView frame) {
    return decode_floats<SetImpedanceSetpoint>(frame);
}
Frame SetSpeedSetpointInternal::encode() const { return encode_floats(*this); }
Decoded<SetSpeedSetpointInternal> SetSpeedSetpointInternal::decode(ByteView frame) {
    return decode_floats<SetSpeedSetpointInternal>(frame);
}
Frame SetPositionSetpointInternal::encode() const { return encode_floats(*this); }
Decoded<SetPositionSetpointInternal> SetPositionSetpointInternal::decode(ByteView frame) {
    return decode_floats<SetPositionSetpointInternal>(frame);
}

std::size_t setpoint_float_count(Command command) {
    switch (command) {
        case Command::SET_SETPOINT: return Floats<SetSetpoint>::FIELDS.size();
        case Command::SET_SETPOINT_EXT: return Floats<SetSetpointExt>::FIELDS.size();
        case Command::SET_TORQUE_SETPOINT: return Floats<SetTorqueSetpoint>::FIELDS.size();
        case Command::SET_SPEED_SETPOINT: return Floats<SetSpeedSetpoint>::FIELDS.size();
        case Command::SET_POSITION_SETPOINT: return Floats<SetPositionSetpoint>::FIELDS.size();
        case Command::SET_IMPEDANCE_SETPOINT: return Floats<SetImpedanceSetpoint>::FIELDS.size();
        case Command::SET_SPEED_SETPOINT_INTERNAL: return Floats<SetSpeedSetpointInternal>::FIELDS.size();
        case Command::SET_POSITION_SETPOINT_INTERNAL: return Floats<SetPositionSetpointInternal>::FIELDS.size();
        default: return 0;
    }
}

std::vector<std::string_view> setpoint_field_names(Command command) {
    switch (command) {
        case Command::SET_SETPOINT: return names_of<SetSetpoint>();
        case Command::SET_SETPOINT_EXT: return names_of<SetSetpointExt>();
        case Command::SET_TORQUE_SETPOINT: return names_of<SetTorqueSetpoint>();
        case Command::SET_SPEED_SETPOINT: return names_of<SetSpeedSetpoint>();
        case Command::SET_POSITION_SETPOINT: return names_of<SetPositionSetpoint>();
        case Command::SET_IMPEDANCE_SETPOINT: return names_of<SetImpedanceSetpoint>();
        case Command::SET_SPEED_SETPOINT_INTERNAL: return names_of<SetSpeedSetpointInternal>();
        case Command::SET_POSITION_SETPOINT_INTERNAL: return names_of<SetPositionSetpointInternal>();
        default: return {};
    }
}

Decoded<std::vector<float>> decode_setpoint_floats(ByteView frame) {
    Decoded<std::vector<float>> decoded;
    if (frame.size == 0) {
        decoded.problem = "empty command frame";
        return decoded;
    }
    switch (static_cast<Command>(frame.data[0])) {
        case Command::SET_SETPOINT: return floats_of<SetSetpoint>(frame);
        case Command::SET_SETPOINT_EXT: return floats_of<SetSetpointExt>(frame);
        case Command::SET_TORQUE_SETPOINT: return floats_of<SetTorqueSetpoint>(frame);
        case Command::SET_SPEED_SETPOINT: return floats_of<SetSpeedSetpoint>(frame);
        case Command::SET_POSITION_SETPOINT: return floats_of<SetPositionSetpoint>(frame);
        case Command::SET_IMPEDANCE_SETPOINT: return floats_of<SetImpedanceSetpoint>(frame);
        case Command::SET_SPEED_SETPOINT_INTERNAL: return floats_of<SetSpeedSetpointInternal>(frame);
        case Command::SET_POSITION_SETPOINT_INTERNAL: return floats_of<SetPositionSetpointInternal>(frame);
        default: break;
    }
    decoded.problem = "command " + code_text(frame.data[0]) + " is no setpoint";
    return decoded;
}

// --- reply records ---------------------------------------------------------------------

ItemRecord ItemRecord::of(uint8_t code, float value) { return {code, wire::encode_item_value(code, value)}; }

float ItemRecord::value() const { return wire::decode_item_value(code, word); }

void ItemRecord::encode_into(Frame& buffer) const {
    wire::append_u8(buffer, code);
    wire::append_u32(buffer, word);
}

void PingReply::encode_into(Frame& buffer) const {
    wire::append_u8(buffer, static_cast<uint8_t>(CODE));
    wire::append_u16(buffer, model_code);
    wire::append_u16(buffer, firmware_word);
}

Frame PingReply::encode() const {
    Frame buffer;
    buffer.reserve(wire::RECORD_SIZE);
    encode_into(buffer);
    return buffer;
}

void ErrorFlags::encode_into(Frame& buffer) const {
    wire::append_u8(buffer, static_cast<uint8_t>(CODE));
    wire::append_u32(buffer, flags);
}

Frame ErrorFlags::encode() const {
    Frame buffer;
    buffer.reserve(wire::RECORD_SIZE);
    encode_into(buffer);
    return buffer;
}

ParameterEntry ParameterEntry::of(uint8_t code, float value) {
    return {code, wire::encode_parameter_value(code, value)};
}

float ParameterEntry::value() const { return wire::decode_parameter_value(code, word); }

void ParameterEntry::encode_into(Frame& buffer) const {
    wire::append_u8(buffer, code);
    wire::append_u32(buffer, word);
}

Frame ParametersRecord::encode() const {
    Frame buffer;
    buffer.reserve(1 + entries.size() * wire::RECORD_SIZE);
    wire::append_u8(buffer, static_cast<uint8_t>(CODE));
    for (const ParameterEntry& entry : entries) entry.encode_into(buffer);
    return buffer;
}

ParameterEntryReader::ParameterEntryReader(ByteView bytes, std::size_t offset)
    : bytes_(bytes), position_(std::min(offset, bytes.size)) {}

bool ParameterEntryReader::next(ParameterEntry& entry) {
    if (done_ || position_ >= bytes_.size) return false;
    const uint8_t* at = bytes_.data + position_;
    if (at[0] == 0) {  // a zero code ends the entries
        ++position_;
        done_ = true;
        return false;
    }
    if (bytes_.size - position_ < wire::RECORD_SIZE) {
        truncated_ = bytes_.size - position_;
        done_ = true;
        return false;
    }
    entry = {at[0], wire::read_u32(at + 1)};
    position_ += wire::RECORD_SIZE;
    return true;
}

Record ReplyReader::next() {
    Record record;
    record.offset = position_;
    if (done_ || position_ >= bytes_.size) {
        done_ = true;
        return record;
    }
    const uint8_t* at = bytes_.data + position_;
    record.code = at[0];
    const auto code = static_cast<wire::RecordCode>(at[0]);
    if (code == wire::RecordCode::RECORD_END) {
        ++position_;
        done_ = true;
        return record;
    }
    if (code == wire::RecordCode::PARAMETERS) {
        record.kind = Record::Kind::PARAMETERS;
        ++position_;
        done_ = true;
        return record;
    }
    const bool item = find_item(at[0]) != nullptr;
    if (!item && code != wire::RecordCode::PING_REPLY && code != wire::RecordCode::ERROR_FLAGS) {
        record.kind = Record::Kind::UNKNOWN;
        done_ = true;
        return record;
    }
    if (bytes_.size - position_ < wire::RECORD_SIZE) {
        record.kind = Record::Kind::TRUNCATED;
        done_ = true;
        return record;
    }
    position_ += wire::RECORD_SIZE;
    if (item) {
        record.kind = Record::Kind::ITEM;
        record.item = {at[0], wire::read_u32(at + 1)};
        return record;
    }
    done_ = true;
    if (code == wire::RecordCode::PING_REPLY) {
        record.kind = Record::Kind::PING_REPLY;
        record.ping = {wire::read_u16(at + wire::PING_MODEL_OFFSET), wire::read_u16(at + wire::PING_FIRMWARE_OFFSET)};
    } else {
        record.kind = Record::Kind::ERROR_FLAGS;
        record.errors = {wire::read_u32(at + 1)};
    }
    return record;
}

}  // namespace ocp_api::codec
