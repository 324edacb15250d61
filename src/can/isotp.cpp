// ISO-TP segmentation and reassembly, driven by frames and by time.
//
// Protocol control information (PCI) in the first byte's high nibble:
//   0 single frame     low nibble: length 1..7, or 0 then the length in byte 1 (CAN-FD, 8..62)
//   1 first frame      12-bit message length in the low nibble and byte 1
//   2 consecutive      low nibble: sequence number 1..15, 0, 1, ...
//   3 flow control     low nibble: 0 continue, 1 wait, 2 overflow; byte 1 block size, byte 2 STmin
#include "ocp_api/isotp.hpp"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace ocp_api::can {

namespace {

enum class Pci : uint8_t { single = 0x0, first = 0x1, consecutive = 0x2, flow_control = 0x3 };
enum class FlowStatus : uint8_t { continue_to_send = 0x0, wait = 0x1, overflow = 0x2 };

constexpr std::size_t CLASSIC_LENGTH = 8;
constexpr std::size_t SHORT_SF_MAX = 7;        // length in the low nibble
constexpr std::size_t SF_HEADER = 1;
constexpr std::size_t SF_ESCAPE_HEADER = 2;    // 0x00, then the length
constexpr std::size_t FF_HEADER = 2;
constexpr std::size_t FF_ESCAPE_HEADER = 6;    // 0x10 0x00, then a 32-bit length
constexpr std::size_t CF_HEADER = 1;
constexpr std::size_t FC_LENGTH = 3;
constexpr uint8_t SEQUENCE_MASK = 0x0F;

constexpr uint8_t ST_MIN_LONGEST_MS = 0x7F;
constexpr uint8_t ST_MIN_FIRST_US_CODE = 0xF1;
constexpr uint8_t ST_MIN_LAST_US_CODE = 0xF9;

uint8_t pci_byte(Pci pci, uint8_t low_nibble) {
    return static_cast<uint8_t>((static_cast<uint8_t>(pci) << 4) | (low_nibble & 0x0F));
}
Pci pci_of(const CanFrame& frame) { return static_cast<Pci>(frame.data[0] >> 4); }
uint8_t low_nibble(uint8_t byte) { return byte & 0x0F; }

std::size_t tx_data_length(const IsoTpOptions& options) {
    return options.fd ? options.fd_data_length : CLASSIC_LENGTH;
}

// A frame on `id` carrying `payload`, filled up with ISOTP_PADDING to 8 bytes
// (classic) or to the next CAN-FD length.
CanFrame padded_frame(uint32_t id, bool fd, const std::vector<uint8_t>& payload) {
    CanFrame frame;
    frame.id = id;
    frame.extended = true;
    frame.fd = fd;
    frame.len = fd ? fd_frame_length(payload.size()) : static_cast<uint8_t>(CLASSIC_LENGTH);
    std::fill(frame.data.begin(), frame.data.begin() + frame.len, ISOTP_PADDING);
    std::copy(payload.begin(), payload.end(), frame.data.begin());
    return frame;
}

}  // namespace

IsoTpCounters& IsoTpCounters::operator+=(const IsoTpCounters& other) {
    frames_out += other.frames_out;
    messages_out += other.messages_out;
    messages_in += other.messages_in;
    segmentation_errors += other.segmentation_errors;
    timeouts += other.timeouts;
    overflows += other.overflows;
    dropped += other.dropped;
    ignored_frames += other.ignored_frames;
    return *this;
}

void validate(const IsoTpOptions& options) {
    if (options.fd && (options.fd_data_length < CLASSIC_LENGTH || !is_valid_frame_length(options.fd_data_length, true)))
        throw std::invalid_argument("CAN-FD data length must be 8, 12, 16, 20, 24, 32, 48 or 64, not " +
                                    std::to_string(options.fd_data_length));
    if (options.n_bs.count() <= 0 || options.n_cr.count() <= 0)
        throw std::invalid_argument("ISO-TP time-outs must be positive");
    if (options.max_wait_frames < 0) throw std::invalid_argument("ISO-TP max_wait_frames must not be negative");
}

std::chrono::microseconds st_min_duration(uint8_t code) {
    if (code <= ST_MIN_LONGEST_MS) return std::chrono::milliseconds(code);
    if (code >= ST_MIN_FIRST_US_CODE && code <= ST_MIN_LAST_US_CODE)
        return std::chrono::microseconds(100 * (code - ST_MIN_FIRST_US_CODE + 1));
    return std::chrono::milliseconds(ST_MIN_LONGEST_MS);
}

std::size_t single_frame_capacity(const IsoTpOptions& options) {
    const std::size_t tx_dl = tx_data_length(options);
    return tx_dl <= CLASSIC_LENGTH ? SHORT_SF_MAX : tx_dl - SF_ESCAPE_HEADER;
}

bool is_flow_control(const CanFrame& frame) { return frame.len > 0 && pci_of(frame) == Pci::flow_control; }

// --- IsoTpSender ---------------------------------------------------------------

IsoTpSender::IsoTpSender(IsoTpOptions options) : options_(options) { validate(options_); }

bool IsoTpSender::queue(uint32_t tx_id, std::vector<uint8_t> message, IsoTpTime now, std::vector<CanFrame>& out) {
    if (message.empty() || message.size() > ISOTP_MAX_MESSAGE) return false;
    queue_.push_back({tx_id, std::move(message)});
    if (state_ == State::idle) start_next(now, out);
    return true;
}

bool IsoTpSender::idle() const { return state_ == State::idle && queue_.empty(); }

CanFrame IsoTpSender::frame_with(const std::vector<uint8_t>& payload) const {
    return padded_frame(message_.tx_id, options_.fd, payload);
}

// Sends queued messages that fit a single frame, up to the first that needs
// segmenting, whose first frame then waits for flow control.
void IsoTpSender::start_next(IsoTpTime now, std::vector<CanFrame>& out) {
    while (state_ == State::idle && !queue_.empty()) {
        message_ = std::move(queue_.front());
        queue_.pop_front();
        const std::vector<uint8_t>& bytes = message_.bytes;
        std::vector<uint8_t> payload;
        if (bytes.size() <= single_frame_capacity(options_)) {
            // Up to 7 bytes the length fits the low nibble even on CAN-FD, so
            // the frame stays 8 bytes long; longer ones use the escape form.
            if (bytes.size() <= SHORT_SF_MAX) {
                payload.push_back(pci_byte(Pci::single, static_cast<uint8_t>(bytes.size())));
            } else {
                payload.push_back(pci_byte(Pci::single, 0));
                payload.push_back(static_cast<uint8_t>(bytes.size()));
            }
            payload.insert(payload.end(), bytes.begin(), bytes.end());
            out.push_back(frame_with(payload));
            ++counters_.frames_out;
            ++counters_.messages_out;
            continue;
        }
        const auto length = static_cast<uint16_t>(bytes.size());
        payload.push_back(pci_byte(Pci::first, static_cast<uint8_t>(length >> 8)));
        payload.push_back(static_cast<uint8_t>(length & 0xFF));
        sent_ = tx_data_length(options_) - FF_HEADER;
        payload.insert(payload.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent_));
        out.push_back(frame_with(payload));
        ++counters_.frames_out;
        sequence_ = 1;
        waits_in_row_ = 0;
        state_ = State::waiting_for_flow_control;
        next_time_ = now + options_.n_bs;
    }
}

void IsoTpSender::on_flow_control(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    if (frame.len < FC_LENGTH || pci_of(frame) != Pci::flow_control) {
        ++counters_.segmentation_errors;
        return;
    }
    if (state_ != State::waiting_for_flow_control) {
        ++counters_.ignored_frames;
        return;
    }
    switch (static_cast<FlowStatus>(low_nibble(frame.data[0]))) {
    case FlowStatus::continue_to_send:
        block_left_ = frame.data[1];
        gap_ = st_min_duration(frame.data[2]);
        waits_in_row_ = 0;
        state_ = State::sending_block;
        next_time_ = now;
        send_consecutive_frames(now, out);
        return;
    case FlowStatus::wait:
        if (++waits_in_row_ > options_.max_wait_frames) {
            give_up();
            start_next(now, out);
        } else {
            next_time_ = now + options_.n_bs;
        }
        return;
    case FlowStatus::overflow:
        ++counters_.overflows;
        give_up();
        start_next(now, out);
        return;
    }
    ++counters_.segmentation_errors;  // a flow status the standard does not define
    give_up();
    start_next(now, out);
}

void IsoTpSender::send_consecutive_frames(IsoTpTime now, std::vector<CanFrame>& out) {
    const std::size_t per_frame = tx_data_length(options_) - CF_HEADER;
    while (state_ == State::sending_block && now >= next_time_) {
        const std::vector<uint8_t>& bytes = message_.bytes;
        const std::size_t take = std::min(per_frame, bytes.size() - sent_);
        std::vector<uint8_t> payload{pci_byte(Pci::consecutive, sequence_)};
        const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(sent_);
        payload.insert(payload.end(), from, from + static_cast<std::ptrdiff_t>(take));
        out.push_back(frame_with(payload));
        ++counters_.frames_out;
        sent_ += take;
        sequence_ = static_cast<uint8_t>((sequence_ + 1) & SEQUENCE_MASK);
        if (sent_ == bytes.size()) {
            ++counters_.messages_out;
            finish_message();
            start_next(now, out);
            return;
        }
        if (block_left_ > 0 && --block_left_ == 0) {
            state_ = State::waiting_for_flow_control;
            next_time_ = now + options_.n_bs;
            return;
        }
        next_time_ = now + gap_;
    }
}

void IsoTpSender::on_time(IsoTpTime now, std::vector<CanFrame>& out) {
    if (state_ == State::waiting_for_flow_control && now >= next_time_) {
        ++counters_.timeouts;
        give_up();
        start_next(now, out);
    }
    if (state_ == State::sending_block) send_consecutive_frames(now, out);
}

std::optional<IsoTpTime> IsoTpSender::deadline() const {
    if (state_ == State::idle) return std::nullopt;
    return next_time_;
}

void IsoTpSender::finish_message() {
    state_ = State::idle;
    message_ = {};
    sent_ = 0;
}

void IsoTpSender::give_up() {
    ++counters_.dropped;
    finish_message();
}

void IsoTpSender::abandon() {
    if (state_ != State::idle) give_up();
    counters_.dropped += queue_.size();
    queue_.clear();
}

// --- IsoTpReceiver -------------------------------------------------------------

IsoTpReceiver::IsoTpReceiver(uint32_t fc_id, IsoTpOptions options) : fc_id_(fc_id), options_(options) {
    validate(options_);
}

std::optional<std::vector<uint8_t>> IsoTpReceiver::on_frame(const CanFrame& frame, IsoTpTime now,
                                                            std::vector<CanFrame>& out) {
    if (frame.len == 0 || frame.len > CanFrame::MAX_DATA) {
        ++counters_.segmentation_errors;
        return std::nullopt;
    }
    switch (pci_of(frame)) {
    case Pci::single:
        return on_single_frame(frame);
    case Pci::first:
        on_first_frame(frame, now, out);
        return std::nullopt;
    case Pci::consecutive:
        return on_consecutive_frame(frame, now, out);
    case Pci::flow_control:
        ++counters_.ignored_frames;
        return std::nullopt;
    }
    ++counters_.segmentation_errors;  // PCI types 4..15 are reserved
    return std::nullopt;
}

// A new single or first frame ends a half-received message: the peer gave it up.
void IsoTpReceiver::drop_partial() {
    if (!receiving_) return;
    ++counters_.segmentation_errors;
    ++counters_.dropped;
    receiving_ = false;
    message_.clear();
}

std::optional<std::vector<uint8_t>> IsoTpReceiver::on_single_frame(const CanFrame& frame) {
    drop_partial();
    // Up to 8 bytes the length is in the low nibble; longer (CAN-FD) frames
    // carry 0 there and the length in the next byte.
    std::size_t length = low_nibble(frame.data[0]);
    std::size_t header = SF_HEADER;
    if (frame.len > CLASSIC_LENGTH) {
        if (length != 0) {
            ++counters_.segmentation_errors;
            return std::nullopt;
        }
        length = frame.data[1];
        header = SF_ESCAPE_HEADER;
    }
    if (length == 0 || length > frame.len - header) {
        ++counters_.segmentation_errors;
        return std::nullopt;
    }
    ++counters_.messages_in;
    const auto from = frame.data.begin() + static_cast<std::ptrdiff_t>(header);
    return std::vector<uint8_t>(from, from + static_cast<std::ptrdiff_t>(length));
}

void IsoTpReceiver::on_first_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    drop_partial();
    // The first frame fixes the frame length of the message (RX_DL): 8, or a
    // CAN-FD length.
    if (frame.len < CLASSIC_LENGTH || !is_valid_frame_length(frame.len, frame.fd)) {
        ++counters_.segmentation_errors;
        return;
    }
    std::size_t length = (static_cast<std::size_t>(low_nibble(frame.data[0])) << 8) | frame.data[1];
    std::size_t header = FF_HEADER;
    if (length == 0) {  // the escape form, for messages beyond 4095 bytes
        length = (static_cast<std::size_t>(frame.data[2]) << 24) | (static_cast<std::size_t>(frame.data[3]) << 16) |
                 (static_cast<std::size_t>(frame.data[4]) << 8) | frame.data[5];
        header = FF_ESCAPE_HEADER;
        if (length > ISOTP_MAX_MESSAGE) {
            ++counters_.overflows;
            send_flow_control(static_cast<uint8_t>(FlowStatus::overflow), out);
            return;
        }
    }
    const std::size_t in_first = frame.len - header;
    if (length <= in_first) {  // would have fitted without segmenting
        ++counters_.segmentation_errors;
        return;
    }
    const auto from = frame.data.begin() + static_cast<std::ptrdiff_t>(header);
    message_.assign(from, from + static_cast<std::ptrdiff_t>(in_first));
    expected_ = length;
    frame_length_ = frame.len;
    sequence_ = 1;
    receiving_ = true;
    block_left_ = options_.block_size;
    deadline_ = now + options_.n_cr;
    send_flow_control(static_cast<uint8_t>(FlowStatus::continue_to_send), out);
}

std::optional<std::vector<uint8_t>> IsoTpReceiver::on_consecutive_frame(const CanFrame& frame, IsoTpTime now,
                                                                        std::vector<CanFrame>& out) {
    if (!receiving_) {
        ++counters_.ignored_frames;
        return std::nullopt;
    }
    const std::size_t take = std::min(frame_length_ - CF_HEADER, expected_ - message_.size());
    const bool bad_sequence = low_nibble(frame.data[0]) != sequence_;
    const bool bad_length = frame.len > frame_length_ || frame.len - CF_HEADER < take;
    if (bad_sequence || bad_length) {
        ++counters_.segmentation_errors;
        ++counters_.dropped;
        receiving_ = false;
        message_.clear();
        return std::nullopt;
    }
    const auto from = frame.data.begin() + static_cast<std::ptrdiff_t>(CF_HEADER);
    message_.insert(message_.end(), from, from + static_cast<std::ptrdiff_t>(take));
    sequence_ = static_cast<uint8_t>((sequence_ + 1) & SEQUENCE_MASK);
    if (message_.size() == expected_) {
        receiving_ = false;
        ++counters_.messages_in;
        return std::move(message_);
    }
    deadline_ = now + options_.n_cr;
    if (options_.block_size > 0 && --block_left_ == 0) {
        block_left_ = options_.block_size;
        send_flow_control(static_cast<uint8_t>(FlowStatus::continue_to_send), out);
    }
    return std::nullopt;
}

void IsoTpReceiver::send_flow_control(uint8_t status, std::vector<CanFrame>& out) {
    const std::vector<uint8_t> payload{pci_byte(Pci::flow_control, status), options_.block_size, options_.st_min};
    out.push_back(padded_frame(fc_id_, options_.fd, payload));
    ++counters_.frames_out;
}

void IsoTpReceiver::on_time(IsoTpTime now) {
    if (receiving_ && now >= deadline_) {
        ++counters_.timeouts;
        ++counters_.dropped;
        receiving_ = false;
        message_.clear();
    }
}

std::optional<IsoTpTime> IsoTpReceiver::deadline() const {
    if (!receiving_) return std::nullopt;
    return deadline_;
}

}  // namespace ocp_api::can
