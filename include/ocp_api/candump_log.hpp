// Tooling (ocpctl dump and scope): not needed to drive actuators.
//
// Reading (and writing) CAN log lines in the format of `candump -L`, the usual
// way to record a bus on Linux and the format `canplayer` replays:
//
//   (1700000000.123456) can0 12345678#DEADBEEF      extended data frame
//   (1700000000.123456) can0 123#11.22              standard frame, '.' separators allowed
//   (1700000000.123456) can0 12345678##1DEADBEEF    CAN-FD: a flags digit, then the data
//   (1700000000.123456) can0 123#R                  remote frame (also 123#R5: 5 bytes asked)
//   (1700000000.123456) can0 20000004#0004000000000000   error frame (bit 29 of an 8-digit id)
//
// A line that is not a frame (a comment, a cut line, a line of another tool)
// is reported with the reason, never thrown.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "ocp_api/can_link.hpp"

namespace ocp_api {

struct LoggedFrame {
    enum class Type : uint8_t {
        data,    // a classic or CAN-FD data frame
        remote,  // a remote transmission request; `frame.len` is the length asked for
        error,   // an error frame: `frame.id` holds the error class bits, `frame.data` the details
    };

    std::chrono::microseconds timestamp{0};  // since the Unix epoch, as logged
    std::string interface;                   // "can0"
    Type type = Type::data;
    CanFrame frame;
};

// Parses one log line (without its line end). Returns the frame, or nullopt
// with the reason in `*problem` when one is given.
std::optional<LoggedFrame> parse_candump_line(std::string_view line, std::string* problem = nullptr);

// The line `candump -L` writes for the frame (without a line end); parsing it
// gives the frame back.
std::string format_candump_line(const LoggedFrame& logged);

// Reads a log line by line. Lines longer than MAX_LINE are reported as such
// without being held in memory.
class CandumpLogReader {
public:
    static constexpr std::size_t MAX_LINE = 1024;

    struct Line {
        std::size_t number = 0;            // from 1
        std::optional<LoggedFrame> frame;  // empty for a line that is not a frame
        std::string problem;               // why not; empty for a blank line
    };

    explicit CandumpLogReader(std::istream& in) : in_(in) {}

    // The next line, or nullopt at the end of the input. Blank lines are
    // skipped.
    std::optional<Line> next();

    std::size_t frames() const { return frames_; }
    std::size_t rejected_lines() const { return rejected_; }

private:
    std::istream& in_;
    std::size_t line_number_ = 0;
    std::size_t frames_ = 0;
    std::size_t rejected_ = 0;
};

}  // namespace ocp_api
