#include "common/diagnostics.hpp"

#include <iostream>

namespace ocp_api::detail {

void write_line(std::ostream& stream, const std::string& text) {
    std::string line = text;
    line += '\n';
    stream.write(line.data(), static_cast<std::streamsize>(line.size()));
    stream.flush();
}

ErrorLine::~ErrorLine() { write_line(std::cerr, text_.str()); }

}  // namespace ocp_api::detail
