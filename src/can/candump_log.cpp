// Log lines of `candump -L`: "(seconds.micros) interface frame".
#include "ocp_api/candump_log.hpp"

#include <algorithm>
#include <limits>
#include <cstdio>

namespace ocp_api {

namespace {

// How a log line writes what a SocketCAN frame carries in its flag bits.
constexpr uint32_t ERROR_FRAME_FLAG = 0x20000000;  // in an 8-digit identifier
constexpr uint32_t EXTENDED_ID_MASK = 0x1FFFFFFF;
constexpr uint32_t STANDARD_ID_MASK = 0x7FF;
constexpr std::size_t EXTENDED_ID_DIGITS = 8;
constexpr std::size_t STANDARD_ID_DIGITS = 3;
constexpr uint8_t FD_FLAG_BRS = 0x01;  // bit-rate switch; 0x02 (ESI) and 0x04 (FD) are not kept
constexpr std::size_t CLASSIC_MAX_DATA = 8;
constexpr std::size_t MICROS_DIGITS = 6;
constexpr std::size_t MAX_FRACTION_DIGITS = 9;
constexpr std::size_t MAX_SECONDS_DIGITS = 12;
// Nanoseconds since the epoch overflow a signed 64-bit count in the year 2262;
// later timestamps could not be placed on any clock of the host. An hour is
// kept back for the time-outs that reading a log adds to its timestamps.
constexpr int64_t LAST_LOGGABLE_SECOND = std::numeric_limits<int64_t>::max() / 1000000000 - 3600;

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_space(char c) { return c == ' ' || c == '\t'; }

// Splits off the next field separated by spaces or tabs.
std::string_view next_field(std::string_view& rest) {
    std::size_t start = 0;
    while (start < rest.size() && is_space(rest[start])) ++start;
    std::size_t end = start;
    while (end < rest.size() && !is_space(rest[end])) ++end;
    const std::string_view field = rest.substr(start, end - start);
    rest.remove_prefix(end);
    return field;
}

// "(1700000000.123456)" into microseconds; more than six fraction digits are cut.
std::optional<std::chrono::microseconds> parse_timestamp(std::string_view field) {
    if (field.size() < 4 || field.front() != '(' || field.back() != ')') return std::nullopt;
    field = field.substr(1, field.size() - 2);
    const std::size_t dot = field.find('.');
    if (dot == std::string_view::npos || dot == 0 || dot > MAX_SECONDS_DIGITS) return std::nullopt;
    const std::string_view whole = field.substr(0, dot);
    const std::string_view fraction = field.substr(dot + 1);
    if (fraction.empty() || fraction.size() > MAX_FRACTION_DIGITS) return std::nullopt;
    if (!std::all_of(whole.begin(), whole.end(), is_digit) || !std::all_of(fraction.begin(), fraction.end(), is_digit))
        return std::nullopt;
    int64_t seconds = 0;
    for (const char c : whole) seconds = seconds * 10 + (c - '0');
    int64_t micros = 0;
    for (std::size_t i = 0; i < MICROS_DIGITS; ++i) micros = micros * 10 + (i < fraction.size() ? fraction[i] - '0' : 0);
    return std::chrono::seconds(seconds) + std::chrono::microseconds(micros);
}

std::optional<uint32_t> parse_hex_number(std::string_view digits) {
    uint32_t value = 0;
    for (const char c : digits) {
        const int digit = hex_digit(c);
        if (digit < 0) return std::nullopt;
        value = (value << 4) | static_cast<uint32_t>(digit);
    }
    return value;
}

// Hex pairs, optionally separated by single dots, into `frame.data`.
bool parse_data(std::string_view text, std::size_t max_bytes, CanFrame& frame, std::string& problem) {
    std::size_t length = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == '.' && i > 0 && i + 1 < text.size() && text[i - 1] != '.') {
            ++i;
            continue;
        }
        if (i + 1 >= text.size()) {
            problem = "odd number of hex digits in the data";
            return false;
        }
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) {
            problem = "data is not hex";
            return false;
        }
        if (length == max_bytes) {
            problem = "more than " + std::to_string(max_bytes) + " data bytes";
            return false;
        }
        frame.data[length++] = static_cast<uint8_t>((high << 4) | low);
        i += 2;
    }
    frame.len = static_cast<uint8_t>(length);
    return true;
}

bool parse_identifier(std::string_view digits, LoggedFrame& logged, std::string& problem) {
    const auto value = parse_hex_number(digits);
    if (!value || (digits.size() != EXTENDED_ID_DIGITS && digits.size() != STANDARD_ID_DIGITS)) {
        problem = "identifier is not 3 or 8 hex digits";
        return false;
    }
    logged.frame.extended = digits.size() == EXTENDED_ID_DIGITS;
    if (logged.frame.extended && (*value & ERROR_FRAME_FLAG) != 0) {
        logged.type = LoggedFrame::Type::error;
        logged.frame.id = *value & ~ERROR_FRAME_FLAG;
    } else {
        logged.frame.id = *value;
    }
    const uint32_t mask = logged.frame.extended ? EXTENDED_ID_MASK : STANDARD_ID_MASK;
    if ((logged.frame.id & ~mask) != 0) {
        problem = "identifier out of range";
        return false;
    }
    return true;
}

// What follows '#': data, "R" with an optional length, or for CAN-FD '#',
// a flags digit and data. A classic frame may end in "_X", the raw DLC of an
// 8-byte frame, which changes nothing here.
bool parse_payload(std::string_view text, LoggedFrame& logged, std::string& problem) {
    CanFrame& frame = logged.frame;
    if (!text.empty() && text.front() == '#') {
        if (logged.type == LoggedFrame::Type::error) {
            problem = "an error frame cannot be CAN-FD";
            return false;
        }
        if (text.size() < 2 || hex_digit(text[1]) < 0) {
            problem = "CAN-FD frame without its flags digit";
            return false;
        }
        frame.fd = true;
        frame.brs = (hex_digit(text[1]) & FD_FLAG_BRS) != 0;
        if (!parse_data(text.substr(2), CanFrame::MAX_DATA, frame, problem)) return false;
        if (!is_valid_frame_length(frame.len, true)) {
            problem = "CAN-FD frames do not carry " + std::to_string(frame.len) + " data bytes";
            return false;
        }
        return true;
    }
    if (!text.empty() && (text.front() == 'R' || text.front() == 'r')) {
        if (logged.type == LoggedFrame::Type::error) {
            problem = "an error frame cannot be a remote frame";
            return false;
        }
        logged.type = LoggedFrame::Type::remote;
        const std::string_view length = text.substr(1);
        if (length.size() > 1 || (length.size() == 1 && (!is_digit(length[0]) || length[0] > '8'))) {
            problem = "remote frame length is not a digit 0..8";
            return false;
        }
        frame.len = static_cast<uint8_t>(length.empty() ? 0 : length[0] - '0');
        return true;
    }
    const std::size_t underscore = text.find('_');
    if (underscore != std::string_view::npos) {
        const std::string_view dlc = text.substr(underscore + 1);
        if (dlc.size() != 1 || hex_digit(dlc[0]) < 0) {
            problem = "bad raw DLC after '_'";
            return false;
        }
        text = text.substr(0, underscore);
    }
    return parse_data(text, CLASSIC_MAX_DATA, frame, problem);
}

std::optional<LoggedFrame> fail(std::string* problem, std::string reason) {
    if (problem) *problem = std::move(reason);
    return std::nullopt;
}

}  // namespace

std::optional<LoggedFrame> parse_candump_line(std::string_view line, std::string* problem) {
    std::string_view rest = line;
    LoggedFrame logged;
    const auto timestamp = parse_timestamp(next_field(rest));
    if (!timestamp) return fail(problem, "no (seconds.microseconds) timestamp");
    if (*timestamp >= std::chrono::seconds(LAST_LOGGABLE_SECOND + 1))
        return fail(problem, "timestamp past the year 2262 (at most " + std::to_string(LAST_LOGGABLE_SECOND) + " s)");
    logged.timestamp = *timestamp;
    const std::string_view interface = next_field(rest);
    if (interface.empty()) return fail(problem, "no interface name");
    logged.interface = std::string(interface);
    const std::string_view frame_text = next_field(rest);
    const std::size_t hash = frame_text.find('#');
    if (hash == std::string_view::npos) return fail(problem, "no '#' in the frame");
    // candump may add a direction (R or T) after the frame; nothing else.
    const std::string_view extra = next_field(rest);
    if (!next_field(rest).empty() || !(extra.empty() || extra == "R" || extra == "T"))
        return fail(problem, "unexpected text after the frame");

    std::string reason;
    if (!parse_identifier(frame_text.substr(0, hash), logged, reason) ||
        !parse_payload(frame_text.substr(hash + 1), logged, reason))
        return fail(problem, reason);
    return logged;
}

std::string format_candump_line(const LoggedFrame& logged) {
    const CanFrame& frame = logged.frame;
    const auto micros = logged.timestamp.count();
    char head[64];
    std::snprintf(head, sizeof head, "(%010lld.%06lld) ", static_cast<long long>(micros / 1000000),
                  static_cast<long long>(micros % 1000000));
    std::string line = head + logged.interface + " ";
    char id[16];
    if (logged.type == LoggedFrame::Type::error) {
        std::snprintf(id, sizeof id, "%08X#", static_cast<unsigned>(frame.id | ERROR_FRAME_FLAG));
    } else if (frame.extended) {
        std::snprintf(id, sizeof id, "%08X#", static_cast<unsigned>(frame.id));
    } else {
        std::snprintf(id, sizeof id, "%03X#", static_cast<unsigned>(frame.id));
    }
    line += id;
    if (logged.type == LoggedFrame::Type::remote) {
        line += "R";
        if (frame.len > 0) line += std::to_string(frame.len);
        return line;
    }
    if (frame.fd) {
        line += "#";
        line += frame.brs ? "1" : "0";
    }
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < frame.len && i < CanFrame::MAX_DATA; ++i) {
        line += DIGITS[frame.data[i] >> 4];
        line += DIGITS[frame.data[i] & 0x0F];
    }
    return line;
}

std::optional<CandumpLogReader::Line> CandumpLogReader::next() {
    std::streambuf* input = in_.rdbuf();
    while (input != nullptr) {
        std::string text;
        bool too_long = false;
        bool any = false;
        for (int c = input->sbumpc(); c != std::char_traits<char>::eof(); c = input->sbumpc()) {
            any = true;
            if (c == '\n') break;
            if (text.size() < MAX_LINE) {
                text += static_cast<char>(c);
            } else {
                too_long = true;
            }
        }
        if (!any) return std::nullopt;
        ++line_number_;
        while (!text.empty() && (text.back() == '\r' || is_space(text.back()))) text.pop_back();
        if (text.empty() && !too_long) continue;

        Line line;
        line.number = line_number_;
        if (too_long) {
            line.problem = "line longer than " + std::to_string(MAX_LINE) + " characters";
        } else {
            line.frame = parse_candump_line(text, &line.problem);
        }
        if (line.frame) {
            ++frames_;
        } else {
            ++rejected_;
        }
        return line;
    }
    return std::nullopt;
}

}  // namespace ocp_api
