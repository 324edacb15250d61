// ISO-TP segmentation and reassembly, driven by frames and by time.
//
// Protocol control information (PCI) in the first byte's high nibble:
//   0 single frame     low nibble: length 1..7, or 0 then the length in byte 1 (CAN-FD, 8..62)
//   1 first frame      12-bit message length in the low nibble and byte 1
//   2 consecutive      low nibble: sequence number 1..15, 0, 1, ...
//   3 flow control     low nibble: 0 continue, 1 wait, 2 overflow; byte 1 block size, byte 2 STmin
#include "can/isotp.hpp"

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

// Starts a frame on `id` of the length the options give a frame carrying
// `payload_size` bytes: 8 on classic CAN, the next CAN-FD length otherwise,
// filled with ISOTP_PADDING; the caller writes the payload.
CanFrame& start_frame(std::vector<CanFrame>& out, uint32_t id, bool fd, std::size_t payload_size) {
    CanFrame& frame = out.emplace_back();
    frame.id = id;
    frame.extended = true;
    frame.fd = fd;
    frame.len = fd ? fd_frame_length(payload_size) : static_cast<uint8_t>(CLASSIC_LENGTH);
    std::fill(frame.data.begin(), frame.data.begin() + frame.len, ISOTP_PADDING);
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
    superseded += other.superseded;
    expired += other.expired;
    cancelled += other.cancelled;
    preempted += other.preempted;
    queue_full += other.queue_full;
    receptions_refused += other.receptions_refused;
    receptions_evicted += other.receptions_evicted;
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

bool fits_single_frame(std::size_t size, const IsoTpOptions& options) {
    return size <= single_frame_capacity(options);
}

void append_single_frame(uint32_t tx_id, const uint8_t* data, std::size_t size, const IsoTpOptions& options,
                         std::vector<CanFrame>& out) {
    // Up to 7 bytes the length fits the low nibble even on CAN-FD, so the
    // frame stays 8 bytes long; longer ones use the escape form.
    const std::size_t header = size <= SHORT_SF_MAX ? SF_HEADER : SF_ESCAPE_HEADER;
    CanFrame& frame = start_frame(out, tx_id, options.fd, header + size);
    if (header == SF_HEADER) {
        frame.data[0] = pci_byte(Pci::single, static_cast<uint8_t>(size));
    } else {
        frame.data[0] = pci_byte(Pci::single, 0);
        frame.data[1] = static_cast<uint8_t>(size);
    }
    std::copy(data, data + size, frame.data.begin() + static_cast<std::ptrdiff_t>(header));
}

// --- IsoTpSender ---------------------------------------------------------------

IsoTpSender::IsoTpSender(IsoTpOptions options, IsoTpCounters* shared)
    : options_(options), counters_(shared ? shared : &own_counters_), slots_(options.queue_limit + 2) {
    validate(options_);
}

IsoTpSender::IsoTpSender(IsoTpSender&& other) noexcept
    : options_(other.options_),
      own_counters_(other.own_counters_),
      counters_(other.counters_ == &other.own_counters_ ? &own_counters_ : other.counters_),
      slots_(std::move(other.slots_)),
      waiting_(other.waiting_),
      state_(other.state_),
      message_(std::move(other.message_)),
      sent_(other.sent_),
      sequence_(other.sequence_),
      block_left_(other.block_left_),
      gap_(other.gap_),
      next_time_(other.next_time_),
      waits_in_row_(other.waits_in_row_) {
    other.waiting_ = 0;
    other.state_ = State::idle;
}

bool IsoTpSender::queue(uint32_t tx_id, const uint8_t* data, std::size_t size, MessageClass message_class,
                        IsoTpTime now, std::vector<CanFrame>& out) {
    if (size == 0 || size > ISOTP_MAX_MESSAGE) return false;
    if (message_class == MessageClass::safety) {
        preempt_for_safety();
    } else if (message_class == MessageClass::setpoint) {
        replace_waiting_setpoint(tx_id, data[0]);
    }
    // The spare slot is kept for a safety message.
    if (message_class != MessageClass::safety && waiting_ >= options_.queue_limit) {
        ++counters_->queue_full;
        return false;
    }
    push_back(tx_id, data, size, message_class, now);
    if (message_class == MessageClass::safety) {
        // Ahead of whatever was put back in the queue by preempt_for_safety().
        std::rotate(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(waiting_ - 1),
                    slots_.begin() + static_cast<std::ptrdiff_t>(waiting_));
    }
    if (state_ == State::idle) start_next(now, out);
    return true;
}

// A safety message (STOP) must be the next thing the peer receives: the
// message in progress is abandoned (the peer drops a half-received message
// when a new single frame arrives) and put back to go again from its start
// unless it is motion or a setpoint, which the safety message overrides, as it
// does the ones waiting.
void IsoTpSender::preempt_for_safety() {
    for (std::size_t i = waiting_; i-- > 0;) {
        const MessageClass waiting_class = slots_[i].message_class;
        if (waiting_class == MessageClass::motion || waiting_class == MessageClass::setpoint) {
            remove_waiting(i);
            ++counters_->cancelled;
        }
    }
    if (state_ == State::idle) return;
    ++counters_->preempted;
    const MessageClass current = message_.message_class;
    if (current == MessageClass::motion || current == MessageClass::setpoint) {
        ++counters_->cancelled;
    } else {
        push_front(message_);
    }
    finish_message();
}

// Latest wins: a waiting setpoint with the same code is dropped, and the new
// one joins the back of the queue, so everything else keeps the order in
// which it was sent.
bool IsoTpSender::replace_waiting_setpoint(uint32_t tx_id, uint8_t code) {
    for (std::size_t i = 0; i < waiting_; ++i) {
        const Outgoing& slot = slots_[i];
        if (slot.message_class == MessageClass::setpoint && slot.tx_id == tx_id && slot.bytes[0] == code) {
            remove_waiting(i);
            ++counters_->superseded;
            return true;
        }
    }
    return false;
}

void IsoTpSender::push_back(uint32_t tx_id, const uint8_t* data, std::size_t size, MessageClass message_class,
                            IsoTpTime now) {
    Outgoing& slot = slots_[waiting_++];
    slot.tx_id = tx_id;
    slot.message_class = message_class;
    slot.queued_at = now;
    slot.bytes.assign(data, data + size);  // reuses the slot's buffer
}

// Puts `message` (its buffer swapped in) first in the queue.
void IsoTpSender::push_front(Outgoing& message) {
    std::swap(slots_[waiting_], message);
    ++waiting_;
    std::rotate(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(waiting_ - 1),
                slots_.begin() + static_cast<std::ptrdiff_t>(waiting_));
}

// Takes slot `index` out of the queue; its buffer moves behind the waiting ones.
void IsoTpSender::remove_waiting(std::size_t index) {
    std::rotate(slots_.begin() + static_cast<std::ptrdiff_t>(index),
                slots_.begin() + static_cast<std::ptrdiff_t>(index + 1),
                slots_.begin() + static_cast<std::ptrdiff_t>(waiting_));
    --waiting_;
}

bool IsoTpSender::idle() const { return state_ == State::idle && waiting_ == 0; }

CanFrame& IsoTpSender::next_frame(std::vector<CanFrame>& out) const {
    ++counters_->frames_out;
    return start_frame(out, message_.tx_id, options_.fd, tx_data_length(options_));
}

// Sends waiting messages that fit a single frame, up to the first that needs
// segmenting, whose first frame then waits for flow control. Setpoints that
// waited too long are dropped on the way.
void IsoTpSender::start_next(IsoTpTime now, std::vector<CanFrame>& out) {
    while (state_ == State::idle && waiting_ > 0) {
        std::swap(message_, slots_[0]);
        remove_waiting(0);
        if (message_.message_class == MessageClass::setpoint && now - message_.queued_at > options_.setpoint_max_age) {
            ++counters_->expired;
            continue;
        }
        const std::vector<uint8_t>& bytes = message_.bytes;
        if (fits_single_frame(bytes.size(), options_)) {
            append_single_frame(message_.tx_id, bytes.data(), bytes.size(), options_, out);
            ++counters_->frames_out;
            ++counters_->messages_out;
            continue;
        }
        start_first_frame(now, out);
    }
}

void IsoTpSender::start_first_frame(IsoTpTime now, std::vector<CanFrame>& out) {
    const std::vector<uint8_t>& bytes = message_.bytes;
    const auto length = static_cast<uint16_t>(bytes.size());
    CanFrame& frame = next_frame(out);
    frame.data[0] = pci_byte(Pci::first, static_cast<uint8_t>(length >> 8));
    frame.data[1] = static_cast<uint8_t>(length & 0xFF);
    sent_ = tx_data_length(options_) - FF_HEADER;
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent_), frame.data.begin() + FF_HEADER);
    sequence_ = 1;
    waits_in_row_ = 0;
    state_ = State::waiting_for_flow_control;
    next_time_ = now + options_.n_bs;
}

void IsoTpSender::on_flow_control(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    if (frame.len < FC_LENGTH || pci_of(frame) != Pci::flow_control) {
        ++counters_->segmentation_errors;
        return;
    }
    if (state_ != State::waiting_for_flow_control) {
        ++counters_->ignored_frames;
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
        ++counters_->overflows;
        give_up();
        start_next(now, out);
        return;
    }
    ++counters_->segmentation_errors;  // a flow status the standard does not define
    give_up();
    start_next(now, out);
}

void IsoTpSender::send_consecutive_frames(IsoTpTime now, std::vector<CanFrame>& out) {
    const std::size_t per_frame = tx_data_length(options_) - CF_HEADER;
    while (state_ == State::sending_block && now >= next_time_) {
        const std::vector<uint8_t>& bytes = message_.bytes;
        const std::size_t take = std::min(per_frame, bytes.size() - sent_);
        // The last frame is only as long as it needs to be (on CAN-FD).
        CanFrame& frame = out.emplace_back();
        ++counters_->frames_out;
        frame.id = message_.tx_id;
        frame.extended = true;
        frame.fd = options_.fd;
        frame.len = options_.fd ? fd_frame_length(CF_HEADER + take) : static_cast<uint8_t>(CLASSIC_LENGTH);
        std::fill(frame.data.begin(), frame.data.begin() + frame.len, ISOTP_PADDING);
        frame.data[0] = pci_byte(Pci::consecutive, sequence_);
        const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(sent_);
        std::copy(from, from + static_cast<std::ptrdiff_t>(take), frame.data.begin() + CF_HEADER);
        sent_ += take;
        sequence_ = static_cast<uint8_t>((sequence_ + 1) & SEQUENCE_MASK);
        if (sent_ == bytes.size()) {
            ++counters_->messages_out;
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
        ++counters_->timeouts;
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
    sent_ = 0;
}

void IsoTpSender::give_up() {
    ++counters_->dropped;
    finish_message();
}

void IsoTpSender::abandon() {
    if (state_ != State::idle) give_up();
    counters_->dropped += waiting_;
    waiting_ = 0;
}

// --- IsoTpReceiver -------------------------------------------------------------

bool single_frame_payload(const CanFrame& frame, const uint8_t*& data, std::size_t& size) {
    if (frame.len == 0 || frame.len > CanFrame::MAX_DATA || pci_of(frame) != Pci::single) return false;
    // Up to 8 bytes the length is in the low nibble; longer (CAN-FD) frames
    // carry 0 there and the length in the next byte.
    std::size_t length = low_nibble(frame.data[0]);
    std::size_t header = SF_HEADER;
    if (frame.len > CLASSIC_LENGTH) {
        if (length != 0) return false;
        length = frame.data[1];
        header = SF_ESCAPE_HEADER;
    }
    if (length == 0 || length > frame.len - header) return false;
    data = frame.data.data() + header;
    size = length;
    return true;
}

IsoTpReceiver::IsoTpReceiver(uint32_t fc_id, IsoTpOptions options, IsoTpCounters* shared)
    : fc_id_(fc_id), options_(options), counters_(shared ? shared : &own_counters_) {
    validate(options_);
}

IsoTpReceiver::IsoTpReceiver(IsoTpReceiver&& other) noexcept
    : fc_id_(other.fc_id_),
      options_(other.options_),
      own_counters_(other.own_counters_),
      counters_(other.counters_ == &other.own_counters_ ? &own_counters_ : other.counters_),
      receiving_(other.receiving_),
      message_(std::move(other.message_)),
      expected_(other.expected_),
      frame_length_(other.frame_length_),
      sequence_(other.sequence_),
      block_left_(other.block_left_),
      deadline_(other.deadline_) {
    other.receiving_ = false;
}

bool IsoTpReceiver::accept(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    if (frame.len == 0 || frame.len > CanFrame::MAX_DATA) {
        ++counters_->segmentation_errors;
        return false;
    }
    switch (pci_of(frame)) {
    case Pci::single:
        return on_single_frame(frame);
    case Pci::first:
        on_first_frame(frame, now, out);
        return false;
    case Pci::consecutive:
        return on_consecutive_frame(frame, now, out);
    case Pci::flow_control:
        ++counters_->ignored_frames;
        return false;
    }
    ++counters_->segmentation_errors;  // PCI types 4..15 are reserved
    return false;
}

std::optional<std::vector<uint8_t>> IsoTpReceiver::on_frame(const CanFrame& frame, IsoTpTime now,
                                                            std::vector<CanFrame>& out) {
    if (!accept(frame, now, out)) return std::nullopt;
    return message_;
}

void IsoTpReceiver::drop() {
    if (!receiving_) return;
    ++counters_->dropped;
    receiving_ = false;
    message_.clear();
}

// A new single or first frame ends a half-received message: the peer gave it up.
void IsoTpReceiver::drop_partial() {
    if (!receiving_) return;
    ++counters_->segmentation_errors;
    drop();
}

bool IsoTpReceiver::on_single_frame(const CanFrame& frame) {
    drop_partial();
    const uint8_t* data = nullptr;
    std::size_t size = 0;
    if (!single_frame_payload(frame, data, size)) {
        ++counters_->segmentation_errors;
        return false;
    }
    ++counters_->messages_in;
    message_.assign(data, data + size);
    return true;
}

void IsoTpReceiver::on_first_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    drop_partial();
    // The first frame fixes the frame length of the message (RX_DL): 8, or a
    // CAN-FD length.
    if (frame.len < CLASSIC_LENGTH || !is_valid_frame_length(frame.len, frame.fd)) {
        ++counters_->segmentation_errors;
        return;
    }
    std::size_t length = (static_cast<std::size_t>(low_nibble(frame.data[0])) << 8) | frame.data[1];
    std::size_t header = FF_HEADER;
    if (length == 0) {  // the escape form, for messages beyond 4095 bytes
        length = (static_cast<std::size_t>(frame.data[2]) << 24) | (static_cast<std::size_t>(frame.data[3]) << 16) |
                 (static_cast<std::size_t>(frame.data[4]) << 8) | frame.data[5];
        header = FF_ESCAPE_HEADER;
        if (length > ISOTP_MAX_MESSAGE) {
            ++counters_->overflows;
            send_flow_control(static_cast<uint8_t>(FlowStatus::overflow), out);
            return;
        }
    }
    const std::size_t in_first = frame.len - header;
    if (length <= in_first) {  // would have fitted without segmenting
        ++counters_->segmentation_errors;
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

bool IsoTpReceiver::on_consecutive_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out) {
    if (!receiving_) {
        ++counters_->ignored_frames;
        return false;
    }
    const std::size_t take = std::min(frame_length_ - CF_HEADER, expected_ - message_.size());
    const bool bad_sequence = low_nibble(frame.data[0]) != sequence_;
    const bool bad_length = frame.len > frame_length_ || frame.len - CF_HEADER < take;
    if (bad_sequence || bad_length) {
        ++counters_->segmentation_errors;
        drop();
        return false;
    }
    const auto from = frame.data.begin() + static_cast<std::ptrdiff_t>(CF_HEADER);
    message_.insert(message_.end(), from, from + static_cast<std::ptrdiff_t>(take));
    sequence_ = static_cast<uint8_t>((sequence_ + 1) & SEQUENCE_MASK);
    if (message_.size() == expected_) {
        receiving_ = false;
        ++counters_->messages_in;
        return true;
    }
    deadline_ = now + options_.n_cr;
    if (options_.block_size > 0 && --block_left_ == 0) {
        block_left_ = options_.block_size;
        send_flow_control(static_cast<uint8_t>(FlowStatus::continue_to_send), out);
    }
    return false;
}

void IsoTpReceiver::send_flow_control(uint8_t status, std::vector<CanFrame>& out) {
    CanFrame& frame = start_frame(out, fc_id_, options_.fd, FC_LENGTH);
    frame.data[0] = pci_byte(Pci::flow_control, status);
    frame.data[1] = options_.block_size;
    frame.data[2] = options_.st_min;
    ++counters_->frames_out;
}

void IsoTpReceiver::on_time(IsoTpTime now) {
    if (receiving_ && now >= deadline_) {
        ++counters_->timeouts;
        drop();
    }
}

std::optional<IsoTpTime> IsoTpReceiver::deadline() const {
    if (!receiving_) return std::nullopt;
    return deadline_;
}

}  // namespace ocp_api::can
