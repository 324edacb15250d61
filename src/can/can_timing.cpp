// Frame lengths in bits. The frame's bits are laid out as they go on the wire
// (most significant bit of each field first) into a fixed buffer, so the
// stuff bits can be counted on them; nothing here allocates, since the timed
// channel calls it for every frame it carries.
#include "ocp_api/can_timing.hpp"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace ocp_api {

namespace {

// Bits after the CRC sequence, never stuffed: CRC delimiter, ACK slot, ACK
// delimiter, end of frame (7), interframe space (3).
constexpr uint32_t TRAILER_BITS = 1 + 1 + 1 + 7 + 3;
// The CAN-FD stuff count: 3 bits of Gray-coded count and a parity bit.
constexpr uint32_t STUFF_COUNT_BITS = 4;

// Enough for the longest CAN-FD frame up to its data field (a few dozen
// header bits and 512 data bits) plus a CRC-15.
constexpr std::size_t MAX_BITS = 640;

class BitString {
public:
    void push(bool bit) { bits_[size_++] = bit ? 1 : 0; }
    void push_field(uint32_t value, int width) {
        for (int i = width - 1; i >= 0; --i) push((value >> i) & 1u);
    }
    std::size_t size() const { return size_; }
    bool operator[](std::size_t i) const { return bits_[i] != 0; }

private:
    std::array<uint8_t, MAX_BITS> bits_{};
    std::size_t size_ = 0;
};

uint8_t fd_dlc(uint8_t len) {
    switch (len) {
        case 12: return 9;
        case 16: return 10;
        case 20: return 11;
        case 24: return 12;
        case 32: return 13;
        case 48: return 14;
        case 64: return 15;
        default: return len;  // 0..8
    }
}

uint32_t crc15(const BitString& bits) {
    uint32_t crc = 0;
    for (std::size_t i = 0; i < bits.size(); ++i) {
        const bool next = bits[i] != (((crc >> 14) & 1u) != 0);
        crc = (crc << 1) & 0x7FFFu;
        if (next) crc ^= 0x4599u;
    }
    return crc;
}

// Start of frame through the data field; `brs_end` is set to the number of
// bits up to and including the bit-rate switch (CAN-FD), after which the data
// phase begins.
void lay_out_header_and_data(const CanFrame& frame, BitString& bits, std::size_t& brs_end) {
    bits.push(false);  // start of frame
    if (frame.extended) {
        bits.push_field(frame.id >> 18, 11);
        bits.push(true);  // SRR
        bits.push(true);  // IDE
        bits.push_field(frame.id & 0x3FFFFu, 18);
        bits.push(false);  // RTR (classic) or RRS (CAN-FD): data frames only
    } else {
        bits.push_field(frame.id & 0x7FFu, 11);
        bits.push(false);  // RTR or RRS
        bits.push(false);  // IDE
    }
    if (frame.fd) {
        bits.push(true);   // FDF
        bits.push(false);  // res
        bits.push(frame.brs);
        brs_end = bits.size();
        bits.push(false);  // ESI: error active
        bits.push_field(fd_dlc(frame.len), 4);
    } else {
        if (frame.extended) bits.push(false);  // r1
        bits.push(false);                      // r0 / FDF dominant
        bits.push_field(frame.len, 4);
        brs_end = bits.size();
    }
    for (uint8_t i = 0; i < frame.len; ++i) bits.push_field(frame.data[i], 8);
}

// Counts the stuff bits the transmitter inserts into `bits`: after five equal
// bits in a row (stuff bits included) one of the opposite value. Those
// inserted after bit `split` or later are counted in `after`.
void count_stuff_bits(const BitString& bits, std::size_t split, uint32_t& before, uint32_t& after) {
    before = after = 0;
    int run = 0;
    bool last = false;
    for (std::size_t i = 0; i < bits.size(); ++i) {
        if (run > 0 && bits[i] == last) {
            ++run;
        } else {
            last = bits[i];
            run = 1;
        }
        if (run == 5) {
            ++(i + 1 >= split ? after : before);
            last = !last;  // the stuff bit starts a run of its own
            run = 1;
        }
    }
}

// The most stuff bits `length` stuffed bits can carry: the first after 5, then
// one after every 4 more (each stuff bit is the first of the next run).
uint32_t worst_stuff_bits(std::size_t length) { return length == 0 ? 0 : static_cast<uint32_t>((length - 1) / 4); }

uint64_t scaled_ns(uint64_t bits, uint32_t rate) { return (bits * 1000000000ull + rate / 2) / rate; }

}  // namespace

void validate(const CanBitRates& rates) {
    if (rates.nominal < 10000 || rates.nominal > 1000000)
        throw std::invalid_argument("CAN nominal bit rate must be 10000..1000000 bit/s, not " +
                                    std::to_string(rates.nominal));
    if (rates.data != 0 && (rates.data < rates.nominal || rates.data > 15000000))
        throw std::invalid_argument("CAN-FD data bit rate must be nominal..15000000 bit/s, not " +
                                    std::to_string(rates.data));
}

CanFrameBits can_frame_bits(const CanFrame& frame, StuffBits stuffing) {
    if (!is_valid_frame_length(frame.len, frame.fd))
        throw std::invalid_argument("no CAN frame carries " + std::to_string(frame.len) + " data bytes");
    BitString bits;
    std::size_t brs_end = 0;
    lay_out_header_and_data(frame, bits, brs_end);
    const bool switched = frame.fd && frame.brs;
    const std::size_t split = switched ? brs_end : bits.size();

    CanFrameBits result;
    uint32_t crc_field = 0;
    if (frame.fd) {
        // Stuff count, CRC-17 or CRC-21, and the fixed stuff bits: one before
        // the stuff count and one after every 4 bits that follow it.
        const uint32_t crc_bits = frame.len <= 16 ? 17 : 21;
        crc_field = STUFF_COUNT_BITS + crc_bits + 1 + (STUFF_COUNT_BITS + crc_bits - 1) / 4;
    } else {
        bits.push_field(crc15(bits), 15);
    }

    uint32_t stuff_nominal = 0;
    uint32_t stuff_data = 0;
    switch (stuffing) {
        case StuffBits::actual: count_stuff_bits(bits, split, stuff_nominal, stuff_data); break;
        case StuffBits::none: break;
        case StuffBits::worst: {
            const uint32_t total = worst_stuff_bits(bits.size());
            stuff_nominal = switched ? std::min(total, static_cast<uint32_t>(split / 4)) : total;
            stuff_data = total - stuff_nominal;
            break;
        }
    }
    const auto stuffed = static_cast<uint32_t>(bits.size());
    if (switched) {
        result.nominal = static_cast<uint32_t>(split) + stuff_nominal + TRAILER_BITS;
        result.data = (stuffed - static_cast<uint32_t>(split)) + stuff_data + crc_field;
    } else {
        result.nominal = stuffed + stuff_nominal + stuff_data + crc_field + TRAILER_BITS;
    }
    result.stuff = stuff_nominal + stuff_data;
    return result;
}

std::chrono::nanoseconds can_bits_duration(const CanFrameBits& bits, const CanBitRates& rates) {
    const uint32_t data_rate = rates.data != 0 ? rates.data : rates.nominal;
    // Whole bit times add up exactly at the usual rates; round the sum once.
    const uint64_t ns = scaled_ns(bits.nominal, rates.nominal) + scaled_ns(bits.data, data_rate);
    return std::chrono::nanoseconds(static_cast<int64_t>(ns));
}

uint64_t can_arbitration_key(const CanFrame& frame) {
    // The arbitration field bit by bit: base identifier, then RTR/SRR (dominant
    // for a standard data frame, recessive SRR for an extended one), IDE, and
    // the 18 extension bits.
    if (frame.extended) {
        return (static_cast<uint64_t>(frame.id >> 18) << 20) | (1ull << 19) | (1ull << 18) | (frame.id & 0x3FFFFu);
    }
    return static_cast<uint64_t>(frame.id & 0x7FFu) << 20;
}

}  // namespace ocp_api
