// The library's diagnostic lines. Each is assembled first and written with one
// call, then flushed, so lines from the receive thread and the host's threads
// never interleave mid-line.
#pragma once

#include <iosfwd>
#include <sstream>
#include <string>

namespace ocp_api::detail {

// The number base a line leaves its stream in. A line that shows numbers in
// hexadecimal leaves the stream in decimal afterwards, whatever base the host
// had set on it; other lines leave the stream's format alone.
enum class AfterLine { KEEP_BASE, DECIMAL };

void write_line(std::ostream& stream, const std::string& text, AfterLine after = AfterLine::KEEP_BASE);

// Assembles a diagnostic with stream syntax: error_line() << "Rate " << hz;
// the line goes to standard error when the temporary dies.
class ErrorLine {
public:
    explicit ErrorLine(AfterLine after = AfterLine::KEEP_BASE) : after_(after) {}
    ErrorLine(const ErrorLine&) = delete;
    ErrorLine& operator=(const ErrorLine&) = delete;
    ~ErrorLine();

    template <typename T>
    ErrorLine& operator<<(const T& value) {
        text_ << value;
        return *this;
    }
    ErrorLine& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
        text_ << manipulator;
        return *this;
    }

private:
    AfterLine after_;
    std::ostringstream text_;
};

}  // namespace ocp_api::detail
