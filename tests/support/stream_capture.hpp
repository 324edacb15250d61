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

}  // namespace ocp_test
