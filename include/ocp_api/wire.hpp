// The wire format's primitives: command codes, reply record codes, record
// layouts and the reading and writing of little-endian values. The typed
// codec (codec.hpp) builds every command and record from these, and the
// identifier tables (identifier_tables.hpp) give each item and parameter its
// wire type; nothing else writes or reads protocol bytes.
//
// All multi-byte values are little-endian; floats are IEEE 754 single precision.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ocp_api/identifiers.hpp"

namespace ocp_api {

// Appends the 4 bytes of `value` to `bytes`, least significant byte first.
void append_float(std::vector<uint8_t>& bytes, float value);

namespace wire {

using Frame = std::vector<uint8_t>;

// First byte of a command frame (host to device).
enum class Command : uint8_t {
    START = 0x01,
    STOP = 0x02,
    SET_MODE = 0x03,
    SET_SETPOINT = 0x04,
    SET_FEEDBACK_RATE = 0x06,
    SET_FEEDBACK_ITEMS = 0x07,
    SET_HOME_POSITION = 0x0A,
    SET_PARAMETERS = 0x0B,
    GET_PARAMETERS = 0x0C,
    SET_TORQUE_PERFORMANCE = 0x0D,
    SET_SPEED_PERFORMANCE = 0x0E,
    GET_ITEMS = 0x0F,
    SET_SETPOINT_EXT = 0x10,
    SET_TORQUE_SETPOINT = 0x11,
    SET_SPEED_SETPOINT = 0x12,
    SET_POSITION_SETPOINT = 0x13,
    SET_IMPEDANCE_SETPOINT = 0x14,
    SET_SPEED_SETPOINT_INTERNAL = 0x15,
    SET_POSITION_SETPOINT_INTERNAL = 0x16,
    SAVE_CONFIG = 0x39,
    PING = 0x40,
    BLINK = 0x41,
    ENTER_BOOTLOADER = 0xC1,
    CLEAR_CONFIG = 0xC2,
};

// How a transport treats a command that has to wait behind others for its
// address (see docs/can-mapping.md, "Queueing").
enum class CommandClass : uint8_t {
    ordinary,  // kept in order; configuration is never dropped for age
    motion,    // START: kept in order, but a later STOP cancels it while it waits
    setpoint,  // the setpoint commands: latest wins, dropped when too old, cancelled by a STOP
    safety,    // STOP: ahead of everything queued for its address
};
// (codec::command_class gives a command's class, from the command table.)

// First byte of a record in a reply buffer (device to host). Item records use
// the feedback item code itself as their record code.
enum class RecordCode : uint8_t {
    RECORD_END = 0x00,
    PING_REPLY = 0x80,
    ERROR_FLAGS = 0x82,
    PARAMETERS = 0x83,
};

// Third argument of the transport's receive callback.
inline constexpr int REPLY_STREAMED = 0;   // streamed feedback
inline constexpr int REPLY_REQUESTED = 1;  // answer to GET_ITEMS

// Item, ping-reply, error and parameter records are all 5 bytes: a code byte and
// a 4-byte value (or, for a ping reply, two 16-bit words).
inline constexpr std::size_t RECORD_SIZE = 5;
inline constexpr std::size_t PING_MODEL_OFFSET = 1;
inline constexpr std::size_t PING_FIRMWARE_OFFSET = 3;

// A SET_PARAMETERS or GET_PARAMETERS frame carries at most this many entries.
inline constexpr std::size_t MAX_PARAMETERS_PER_FRAME = 9;

// The feedback period on the wire counts units of 100 us.
inline constexpr int PERIOD_UNITS_PER_SECOND = 10000;
inline constexpr int MAX_FEEDBACK_RATE_HZ = 10000;

// How the 4 value bytes of an item or parameter record are to be read.
enum class ValueType : uint8_t {
    F32,   // IEEE 754 single
    U32,   // unsigned 32-bit integer, converted to float by value
    I32,   // signed 32-bit integer, converted to float by value
    MODE,  // sent as a float, truncated toward zero on receipt
};

// --- frame building -------------------------------------------------------

// A frame holding the command code, with room for `payload_bytes` more (so
// building a command costs one allocation).
Frame make_frame(Command command, std::size_t payload_bytes = 0);
void append_u8(Frame& frame, uint8_t value);
void append_u16(Frame& frame, uint16_t value);
void append_u32(Frame& frame, uint32_t value);

// --- reading ----------------------------------------------------------------
// The caller guarantees that the bytes exist.

uint16_t read_u16(const uint8_t* bytes);
uint32_t read_u32(const uint8_t* bytes);
float read_f32(const uint8_t* bytes);
float float_from_bits(uint32_t word);
uint32_t bits_from_float(float value);

// --- items ------------------------------------------------------------------

// From the identifier tables: whether a code is a feedback item, and the wire
// type of an item's or a parameter's value (F32 for codes not listed).
bool is_item_code(uint8_t code);
ValueType item_value_type(uint8_t code);
// Host side: the float that a 4-byte item value stands for.
float decode_item_value(uint8_t code, uint32_t word);
// Device side: the 4-byte word that carries `value` for this item.
uint32_t encode_item_value(uint8_t code, float value);

// --- parameters -------------------------------------------------------------

ValueType parameter_value_type(uint8_t code);
float decode_parameter_value(uint8_t code, uint32_t word);
uint32_t encode_parameter_value(uint8_t code, float value);

// --- versions ---------------------------------------------------------------

// Firmware version word: bits 15..11 major, 10..6 minor, 5..0 patch.
uint16_t firmware_word(unsigned major, unsigned minor, unsigned patch);
std::string firmware_version_text(uint16_t word);

// Addresses an actuator may take on the bus.
inline constexpr int MIN_DEVICE_ADDRESS = 0x10;
inline constexpr int MAX_DEVICE_ADDRESS = 0x3FFE;
inline constexpr int ADAPTER_ADDRESS = 0;
bool is_valid_device_address(int address);

}  // namespace wire
}  // namespace ocp_api
