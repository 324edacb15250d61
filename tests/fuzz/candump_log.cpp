// candump -L log text into the log reader: every line is either a frame that
// writes back to a line parsing to the same frame, or a rejection with a
// reason; the reader's counts add up, and it never holds more than one line.
//
// Input: the log text itself.
#include <cstdint>
#include <sstream>
#include <string>

#include "ocp_api/candump_log.hpp"
#include "support/fuzz_input.hpp"

namespace {

using ocp_api::CanFrame;
using ocp_api::LoggedFrame;
using ocp_fuzz::require;

bool same_frame(const LoggedFrame& a, const LoggedFrame& b) {
    if (a.timestamp != b.timestamp || a.interface != b.interface || a.type != b.type) return false;
    const CanFrame& x = a.frame;
    const CanFrame& y = b.frame;
    if (x.id != y.id || x.extended != y.extended || x.fd != y.fd || x.brs != y.brs || x.len != y.len) return false;
    if (a.type == LoggedFrame::Type::remote) return true;
    for (std::size_t i = 0; i < x.len; ++i)
        if (x.data[i] != y.data[i]) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::istringstream log(std::string(reinterpret_cast<const char*>(data), size));
    ocp_api::CandumpLogReader reader(log);
    std::size_t lines = 0;
    while (const auto line = reader.next()) {
        ++lines;
        if (line->frame) {
            const LoggedFrame& frame = *line->frame;
            require(frame.frame.len <= CanFrame::MAX_DATA, "frame longer than 64 bytes");
            require(frame.frame.fd || frame.frame.len <= 8, "classic frame longer than 8 bytes");
            const auto again = ocp_api::parse_candump_line(ocp_api::format_candump_line(frame));
            require(again.has_value() && same_frame(*again, frame), "a written line does not read back");
        } else {
            require(!line->problem.empty(), "a rejected line without a reason");
        }
    }
    require(reader.frames() + reader.rejected_lines() == lines, "line counts do not add up");
    return 0;
}
