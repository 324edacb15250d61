#include "common/diagnostics.hpp"

#include <iostream>

namespace ocp_api::detail {

void write_line(std::ostream& stream, const std::string& text, AfterLine after) {
    std::string line = text;
    line += '\n';
    stream.write(line.data(), static_cast<std::streamsize>(line.size()));
    stream.flush();
    // Only touch the flags when they need it: a stream already in decimal is
    // left untouched, so lines written from two threads do not race on it.
    const bool decimal = (stream.flags() & std::ios_base::basefield) == std::ios_base::dec;
    if (after == AfterLine::DECIMAL && !decimal) stream.setf(std::ios_base::dec, std::ios_base::basefield);
}

ErrorLine::~ErrorLine() { write_line(std::cerr, text_.str(), after_); }

}  // namespace ocp_api::detail
