// The typed codec: every command and every reply record as a value type with
// named fields, each with one encode and one decode. This is the only place
// where command and record bytes are written or read; the driver encodes with
// it, the reply dispatcher, the scanner, the emulated devices and the traffic
// decoder decode with it.
//
//   codec::SetPositionSetpoint{1.5f}.encode()         13 f0 ... (24 bytes + code)
//   codec::SetMode::decode(frame).value.mode          7
//   codec::ReplyReader reader(buffer);                walks a reply record by record
//
// Decoding never throws and never reads past its input. A command's decode
// keeps what it could read (`fields` counts the values read) and names what is
// wrong in `problem`; `complete()` says that every value was there, `ok()`
// that nothing else was wrong either.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "ocp_api/wire.hpp"

namespace ocp_api::codec {

using wire::Command;
using wire::Frame;

// A run of bytes to read; it owns nothing.
struct ByteView {
    const uint8_t* data = nullptr;
    std::size_t size = 0;

    ByteView() = default;
    ByteView(const uint8_t* bytes, std::size_t count) : data(bytes), size(count) {}
    ByteView(const std::vector<uint8_t>& bytes) : data(bytes.data()), size(bytes.size()) {}  // NOLINT: a view
};

// A NaN in a setpoint argument after the first tells the device to leave that
// quantity as it is.
inline constexpr float LEAVE = std::numeric_limits<float>::quiet_NaN();

template <class Message>
struct Decoded {
    Message value{};
    std::size_t fields = 0;  // values read (list entries for the list commands)
    std::size_t expected = 0;  // values a complete command has (0 for the lists)
    std::string problem;     // empty when the frame is exactly right

    bool complete() const { return fields >= expected; }
    bool ok() const { return problem.empty(); }
};

// --- the command table ---------------------------------------------------------

struct CommandInfo {
    Command code;
    std::string_view name;
    // How a transport treats it while it waits behind others: setpoints are
    // superseded by a newer one of the same command, a STOP goes first.
    wire::CommandClass queueing;
};

inline constexpr std::array<CommandInfo, 24> COMMANDS = {{
    {Command::START, "START", wire::CommandClass::motion},
    {Command::STOP, "STOP", wire::CommandClass::safety},
    {Command::SET_MODE, "SET_MODE", wire::CommandClass::ordinary},
    {Command::SET_SETPOINT, "SET_SETPOINT", wire::CommandClass::setpoint},
    {Command::SET_FEEDBACK_RATE, "SET_FEEDBACK_RATE", wire::CommandClass::ordinary},
    {Command::SET_FEEDBACK_ITEMS, "SET_FEEDBACK_ITEMS", wire::CommandClass::ordinary},
    {Command::SET_HOME_POSITION, "SET_HOME_POSITION", wire::CommandClass::ordinary},
    {Command::SET_PARAMETERS, "SET_PARAMETERS", wire::CommandClass::ordinary},
    {Command::GET_PARAMETERS, "GET_PARAMETERS", wire::CommandClass::ordinary},
    {Command::SET_TORQUE_PERFORMANCE, "SET_TORQUE_PERFORMANCE", wire::CommandClass::ordinary},
    {Command::SET_SPEED_PERFORMANCE, "SET_SPEED_PERFORMANCE", wire::CommandClass::ordinary},
    {Command::GET_ITEMS, "GET_ITEMS", wire::CommandClass::ordinary},
    {Command::SET_SETPOINT_EXT, "SET_SETPOINT_EXT", wire::CommandClass::setpoint},
    {Command::SET_TORQUE_SETPOINT, "SET_TORQUE_SETPOINT", wire::CommandClass::setpoint},
    {Command::SET_SPEED_SETPOINT, "SET_SPEED_SETPOINT", wire::CommandClass::setpoint},
    {Command::SET_POSITION_SETPOINT, "SET_POSITION_SETPOINT", wire::CommandClass::setpoint},
    {Command::SET_IMPEDANCE_SETPOINT, "SET_IMPEDANCE_SETPOINT", wire::CommandClass::setpoint},
    {Command::SET_SPEED_SETPOINT_INTERNAL, "SET_SPEED_SETPOINT_INTERNAL", wire::CommandClass::setpoint},
    {Command::SET_POSITION_SETPOINT_INTERNAL, "SET_POSITION_SETPOINT_INTERNAL", wire::CommandClass::setpoint},
    {Command::SAVE_CONFIG, "SAVE_CONFIG", wire::CommandClass::ordinary},
    {Command::PING, "PING", wire::CommandClass::ordinary},
    {Command::BLINK, "BLINK", wire::CommandClass::ordinary},
    {Command::ENTER_BOOTLOADER, "ENTER_BOOTLOADER", wire::CommandClass::ordinary},
    {Command::CLEAR_CONFIG, "CLEAR_CONFIG", wire::CommandClass::ordinary},
}};

// nullptr for a code that is no command.
const CommandInfo* find_command(uint8_t code);
// True for the setpoint commands (0x04, 0x10 to 0x16): those that only say
// where the axis should be now, so that a newer one makes an older one moot.
bool is_setpoint(uint8_t code);
// The queueing class of the command with `code`; ordinary for a code that is
// no command.
wire::CommandClass command_class(uint8_t code);

// --- commands without a payload ---------------------------------------------------

template <Command Code>
struct BareCommand {
    static constexpr Command CODE = Code;
    Frame encode() const { return wire::make_frame(Code); }
    static Decoded<BareCommand> decode(ByteView frame);
};

using Start = BareCommand<Command::START>;
using Stop = BareCommand<Command::STOP>;
using SetHomePosition = BareCommand<Command::SET_HOME_POSITION>;
using SaveConfig = BareCommand<Command::SAVE_CONFIG>;
using Ping = BareCommand<Command::PING>;
using Blink = BareCommand<Command::BLINK>;
using EnterBootloader = BareCommand<Command::ENTER_BOOTLOADER>;
using ClearConfig = BareCommand<Command::CLEAR_CONFIG>;

// --- commands with one byte -------------------------------------------------------

struct SetMode {
    static constexpr Command CODE = Command::SET_MODE;
    uint8_t mode = 0;  // a Mode value; others are passed on unchanged
    Frame encode() const;
    static Decoded<SetMode> decode(ByteView frame);
};

struct SetTorquePerformance {
    static constexpr Command CODE = Command::SET_TORQUE_PERFORMANCE;
    uint8_t preset = 0;
    Frame encode() const;
    static Decoded<SetTorquePerformance> decode(ByteView frame);
};

struct SetSpeedPerformance {
    static constexpr Command CODE = Command::SET_SPEED_PERFORMANCE;
    uint8_t preset = 0;
    Frame encode() const;
    static Decoded<SetSpeedPerformance> decode(ByteView frame);
};

// --- feedback -------------------------------------------------------------------

struct SetFeedbackRate {
    static constexpr Command CODE = Command::SET_FEEDBACK_RATE;
    uint32_t period = 0;  // in units of 100 us; 0 turns streaming off
    // Rounded integer division of 10000 by the rate; 0 Hz gives 0 (off).
    // `hz` must be in 0..wire::MAX_FEEDBACK_RATE_HZ.
    static SetFeedbackRate from_hz(int hz);
    Frame encode() const;
    static Decoded<SetFeedbackRate> decode(ByteView frame);
};

// Item codes in the caller's order, any count, duplicates kept. Decoding
// keeps every byte; a code that is no item is named in `problem`.
// Encodes a list of item codes, or of either class's OCP_Items, straight
// into a frame, without a copy of the list first.
template <class List>
Frame encode_item_list(Command command, const List& items) {
    Frame frame = wire::make_frame(command, items.size());
    for (const auto item : items) wire::append_u8(frame, static_cast<uint8_t>(item));
    return frame;
}

struct SetFeedbackItems {
    static constexpr Command CODE = Command::SET_FEEDBACK_ITEMS;
    std::vector<uint8_t> items;
    Frame encode() const { return encode_item_list(CODE, items); }
    static Decoded<SetFeedbackItems> decode(ByteView frame);
};

struct GetItems {
    static constexpr Command CODE = Command::GET_ITEMS;
    std::vector<uint8_t> items;
    Frame encode() const { return encode_item_list(CODE, items); }
    static Decoded<GetItems> decode(ByteView frame);
};

// --- parameters -------------------------------------------------------------------

// The host sends every parameter value as a float, whatever its type on the
// way back (the device reads integer parameters from the float it gets).
struct ParameterSetting {
    uint8_t code = 0;
    float value = 0.0f;
    void encode_into(Frame& frame) const;  // the code and the float's 4 bytes
};

// 1 to 9 entries make a well-formed frame; encode writes what it is given.
struct SetParameters {
    static constexpr Command CODE = Command::SET_PARAMETERS;
    std::vector<ParameterSetting> entries;
    Frame encode() const;
    static Decoded<SetParameters> decode(ByteView frame);
};

struct GetParameters {
    static constexpr Command CODE = Command::GET_PARAMETERS;
    std::vector<uint8_t> codes;
    Frame encode() const;
    static Decoded<GetParameters> decode(ByteView frame);
};

// --- setpoints ----------------------------------------------------------------------
// Floats in argument order, as the actuator's methods take them.

struct SetSetpoint {
    static constexpr Command CODE = Command::SET_SETPOINT;
    float setpoint = 0.0f;
    Frame encode() const;
    static Decoded<SetSetpoint> decode(ByteView frame);
};

struct SetSetpointExt {
    static constexpr Command CODE = Command::SET_SETPOINT_EXT;
    float a = 0.0f, b = 0.0f, c = 0.0f;
    Frame encode() const;
    static Decoded<SetSetpointExt> decode(ByteView frame);
};

struct SetTorqueSetpoint {
    static constexpr Command CODE = Command::SET_TORQUE_SETPOINT;
    float torque = 0.0f, aux_0d = LEAVE, aux_0e = LEAVE, aux_0f = LEAVE, a5 = LEAVE;
    Frame encode() const;
    static Decoded<SetTorqueSetpoint> decode(ByteView frame);
};

struct SetSpeedSetpoint {
    static constexpr Command CODE = Command::SET_SPEED_SETPOINT;
    float speed = 0.0f, speed_ff = LEAVE, aux_0e = LEAVE, aux_0d = LEAVE, t_ff = LEAVE;
    Frame encode() const;
    static Decoded<SetSpeedSetpoint> decode(ByteView frame);
};

struct SetPositionSetpoint {
    static constexpr Command CODE = Command::SET_POSITION_SETPOINT;
    float position = 0.0f, speed_ff = LEAVE, aux_0e = LEAVE, aux_0d = LEAVE, aux_0f = LEAVE, t_ff = LEAVE;
    Frame encode() const;
    static Decoded<SetPositionSetpoint> decode(ByteView frame);
};

struct SetImpedanceSetpoint {
    static constexpr Command CODE = Command::SET_IMPEDANCE_SETPOINT;
    float position = 0.0f, speed_ff = LEAVE, k_stiff = LEAVE, k_damp = LEAVE, a5 = LEAVE, t_ff = LEAVE,
          a7 = LEAVE, a8 = LEAVE;
    Frame encode() const;
    static Decoded<SetImpedanceSetpoint> decode(ByteView frame);
};

struct SetSpeedSetpointInternal {
    static constexpr Command CODE = Command::SET_SPEED_SETPOINT_INTERNAL;
    float a1 = 0.0f, a2 = LEAVE, a3 = LEAVE, a4 = LEAVE;
    Frame encode() const;
    static Decoded<SetSpeedSetpointInternal> decode(ByteView frame);
};

struct SetPositionSetpointInternal {
    static constexpr Command CODE = Command::SET_POSITION_SETPOINT_INTERNAL;
    float a1 = 0.0f, a2 = LEAVE, a3 = LEAVE, a4 = LEAVE, a5 = LEAVE, a6 = LEAVE, a7 = LEAVE, a8 = LEAVE,
          a9 = LEAVE;
    Frame encode() const;
    static Decoded<SetPositionSetpointInternal> decode(ByteView frame);
};

// The names of a setpoint command's floats, in wire order; empty for a code
// that is no setpoint. For tools and the traffic decoder.
std::vector<std::string_view> setpoint_field_names(Command command);
// How many floats a setpoint command carries; 0 for a command that is no setpoint.
std::size_t setpoint_float_count(Command command);
// The floats of any setpoint frame, as far as they are present.
Decoded<std::vector<float>> decode_setpoint_floats(ByteView frame);

// --- reply records ----------------------------------------------------------------
// Every record but PARAMETERS is 5 bytes: a code and 4 value bytes.

// A feedback item: the code and its 4 value bytes as a word. The device
// writes the item's wire type; the host reads it back as a float.
struct ItemRecord {
    uint8_t code = 0;
    uint32_t word = 0;
    // The word that carries `value` in the item's wire type (saturated for
    // the integer items).
    static ItemRecord of(uint8_t code, float value);
    float value() const;
    void encode_into(Frame& buffer) const;
};

struct PingReply {
    static constexpr wire::RecordCode CODE = wire::RecordCode::PING_REPLY;
    uint16_t model_code = 0;
    uint16_t firmware_word = 0;
    void encode_into(Frame& buffer) const;
    Frame encode() const;
};

struct ErrorFlags {
    static constexpr wire::RecordCode CODE = wire::RecordCode::ERROR_FLAGS;
    uint32_t flags = 0;
    void encode_into(Frame& buffer) const;
    Frame encode() const;
};

// One entry of a PARAMETERS record: the code and the 4 value bytes as a word.
struct ParameterEntry {
    uint8_t code = 0;
    uint32_t word = 0;
    // The device side: the value in the parameter's wire type.
    static ParameterEntry of(uint8_t code, float value);
    // The host side: MODE truncated toward zero, the integer parameters by
    // value, every other as the float whose bits the word is.
    float value() const;
    void encode_into(Frame& buffer) const;
};

// A PARAMETERS record: its code, then entries up to a zero code or the end.
struct ParametersRecord {
    static constexpr wire::RecordCode CODE = wire::RecordCode::PARAMETERS;
    std::vector<ParameterEntry> entries;
    Frame encode() const;
};

// Reads the entries of a PARAMETERS record from `offset` (the byte after its
// code): entries of 5 bytes until a zero code byte or the end of the bytes.
class ParameterEntryReader {
public:
    ParameterEntryReader(ByteView bytes, std::size_t offset);
    // The next entry; false when the entries are over.
    bool next(ParameterEntry& entry);
    // Where reading stopped (past the zero code when one ended the entries).
    std::size_t position() const { return position_; }
    // Bytes of an entry cut short at the end; 0 when none was.
    std::size_t truncated_bytes() const { return truncated_; }

private:
    ByteView bytes_;
    std::size_t position_;
    std::size_t truncated_ = 0;
    bool done_ = false;
};

// One record of a reply buffer, as the reply walk finds it.
struct Record {
    enum class Kind : uint8_t {
        END,          // a RECORD_END byte, or no bytes left
        ITEM,         // `item` holds it; the walk goes on
        PING_REPLY,   // `ping` holds it; ends the walk
        ERROR_FLAGS,  // `errors` holds it; ends the walk
        PARAMETERS,   // its entries start at `offset` + 1 (ParameterEntryReader); ends the walk
        TRUNCATED,    // a 5-byte record cut short; ends the walk as END would
        UNKNOWN,      // a code that opens no record; ends the walk
    };
    Kind kind = Kind::END;
    uint8_t code = 0;
    std::size_t offset = 0;  // where the record starts
    ItemRecord item;
    PingReply ping;
    ErrorFlags errors;
};

// Walks a reply buffer record by record. Item records follow each other; any
// other record ends the walk, after which next() gives END.
class ReplyReader {
public:
    explicit ReplyReader(ByteView bytes) : bytes_(bytes) {}
    Record next();
    // Bytes read so far: past the last record read, and past a RECORD_END.
    std::size_t position() const { return position_; }
    std::size_t size() const { return bytes_.size; }

private:
    ByteView bytes_;
    std::size_t position_ = 0;
    bool done_ = false;
};

}  // namespace ocp_api::codec
