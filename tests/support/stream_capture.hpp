// Captures what is written to std::cout or std::cerr while it lives. Read the
// text only when no other thread may still write to the stream.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace ocp_test {

class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : stream_(stream), saved_(stream.rdbuf(buffer_.rdbuf())) {}
    ~StreamCapture() { stream_.rdbuf(saved_); }
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

    std::string text() const { return buffer_.str(); }

private:
    std::ostream& stream_;
    std::ostringstream buffer_;
    std::streambuf* saved_;
};

// Puts a stream in hexadecimal, as a host might have done, and restores the
// stream's format flags when it dies.
class HostSetHex {
public:
    explicit HostSetHex(std::ostream& stream) : stream_(stream), saved_(stream.flags()) { stream_ << std::hex; }
    ~HostSetHex() { stream_.flags(saved_); }
    HostSetHex(const HostSetHex&) = delete;
    HostSetHex& operator=(const HostSetHex&) = delete;

private:
    std::ostream& stream_;
    std::ios_base::fmtflags saved_;
};

inline bool in_decimal(const std::ostream& stream) {
    return (stream.flags() & std::ios_base::basefield) == std::ios_base::dec;
}

}  // namespace ocp_test
