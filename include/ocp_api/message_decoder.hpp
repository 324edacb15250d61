// Tooling (ocpctl dump and emulate): not needed to drive actuators.
//
// Reading traffic: one command frame (host to device) or one reply buffer
// (device to host) turned into names and values a person or a program can
// read, with a one-line text and a one-line JSON rendering.
//
// The decoder never throws on its input and never reads past it: whatever is
// wrong (an unknown code, a short payload, a cut record, bytes left over) is
// kept in DecodedMessage::problem, and what could be read before it is kept.
//
//   decode_command({0x03, 0x07}).text()             SET_MODE mode=POSITION(7)
//   decode_reply({0x4C, 0, 0, 0xC0, 0x3F}).text()   ITEMS POS_FB_4C=1.5
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ocp_api {

enum class MessageDirection : uint8_t {
    host_to_device,   // a command frame
    device_to_host,   // a reply buffer
};

// One value as it is on the wire.
struct DecodedValue {
    enum class Type : uint8_t { f32, u32, i32, u16, u8 };

    std::string name;              // argument, item or parameter name; "0x99" for an unknown code
    std::optional<uint8_t> code;   // the item or parameter code it is keyed by, if any
    Type type = Type::f32;
    double number = 0.0;           // the wire value, exactly (NaN and infinities pass through)
    std::string meaning;           // what the number stands for, when it names something:
                                   // a mode, a model, a firmware version, an error
    bool has_number = true;        // false for a bare name (a GET_PARAMETERS list, an error bit)
    bool shown_in_hex = false;     // text shows the number in hex (flag and version words)
};

// A command, or one record of a reply buffer.
struct DecodedPart {
    std::string name;              // "SET_PARAMETERS", "PING_REPLY", "ITEMS", ...
    uint8_t code = 0;              // command code, or record code (the first item's for ITEMS)
    std::vector<DecodedValue> values;
};

struct DecodedMessage {
    MessageDirection direction = MessageDirection::host_to_device;
    int kind = 0;                  // replies: the transport's kind (0 streamed, else requested items)
    std::vector<uint8_t> bytes;    // the message as it was given
    std::vector<DecodedPart> parts;  // one for a command; one per record (items grouped) for a reply
    std::string problem;           // empty when the message is well formed

    bool well_formed() const { return problem.empty(); }

    // One line without a line end: the parts joined by "; ", each its name and
    // its values, e.g.
    //   SET_PARAMETERS LIMIT_TORQUE=2.5 MODE=7
    //   ITEMS POS_FB_4C=1.5 ITEM_4A=-3; PING_REPLY model=HERON_A(3) firmware=1.1.2(0x0842)
    //   ERROR_FLAGS flags=0x00010001 bit0="Overtemperature" bit16="Current maximum"
    // A value is name=number, name=meaning(number), name="meaning" or a bare
    // name. An empty reply is "(empty)". A malformed message ends in
    // " !! <problem> [<bytes in hex>]".
    std::string text() const;
    // One JSON object on one line, e.g.
    //   {"direction":"host_to_device","bytes":"0307","parts":[{"name":"SET_MODE","code":3,
    //    "values":[{"name":"mode","type":"u8","value":7,"meaning":"POSITION"}]}]}
    // A malformed message has "problem"; floats that are not finite are null.
    std::string json() const;
};

DecodedMessage decode_command(const std::vector<uint8_t>& frame);
DecodedMessage decode_reply(const std::vector<uint8_t>& buffer, int kind = 0);

// The bytes as lower-case hex pairs without separators: "0307".
std::string hex_bytes(const std::vector<uint8_t>& bytes);

}  // namespace ocp_api
