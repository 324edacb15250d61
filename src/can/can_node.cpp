// One side of the CAN mapping: routes arriving frames by identifier to the
// reassembly of their message or, for flow control, to the sender it paces.
#include "can/can_node.hpp"

#include <algorithm>
#include <limits>

#include "can/deadline_heap.hpp"
#include "can/slot_index.hpp"

namespace ocp_api::can {

namespace {

constexpr uint32_t NO_SLOT = detail::SlotIndex::NOT_FOUND;

uint32_t receiver_key(int address, int kind) { return static_cast<uint32_t>(address) * 2 + static_cast<uint32_t>(kind); }

// Deadlines of senders and receivers share one heap: even ids are senders,
// odd ones receivers.
uint32_t sender_timer(uint32_t slot) { return slot * 2; }
uint32_t receiver_timer(uint32_t slot) { return slot * 2 + 1; }

bool opens_message(const CanFrame& frame) { return frame.len > 0 && (frame.data[0] >> 4) == 0x1; }

}  // namespace

struct Node::State {
    struct SenderSlot {
        int address = -1;  // -1: free
        IsoTpSender sender;
    };
    struct ReceiverSlot {
        int address = -1;  // -1: free
        int kind = 0;
        IsoTpTime opened{};
        IsoTpReceiver receiver;
    };

    State(Role role, IsoTpOptions options, AddressFilter serves)
        : role(role),
          options(options),
          serves(std::move(serves)),
          proven(static_cast<std::size_t>(MAX_ADDRESS + 1) * 2, false),
          unbound(0, options, &counters) {
        validate(options);
    }

    Direction incoming() const { return role == Role::host ? Direction::to_host : Direction::to_device; }
    Direction outgoing() const { return role == Role::host ? Direction::to_device : Direction::to_host; }

    bool valid(int address, int kind, std::size_t size) const;
    uint32_t acquire_sender(int address);
    void after_sender(uint32_t slot);
    uint32_t acquire_receiver(int address, int kind, IsoTpTime now);
    uint32_t slot_to_evict() const;
    void release_receiver(uint32_t slot);
    void after_receiver(uint32_t slot);
    void deliver(int address, int kind, const std::vector<uint8_t>& bytes, std::vector<ReceivedMessage>& messages);

    const Role role;
    const IsoTpOptions options;
    const AddressFilter serves;
    IsoTpCounters counters;  // every sender and receiver counts here
    uint64_t frames_in = 0;
    uint64_t foreign_frames = 0;

    std::vector<SenderSlot> senders;
    std::vector<uint32_t> free_senders;
    detail::SlotIndex sender_index;  // address -> slot
    std::vector<ReceiverSlot> receivers;
    std::vector<uint32_t> free_receivers;
    detail::SlotIndex receiver_index;  // address * 2 + kind -> slot
    detail::DeadlineHeap deadlines;
    // Per address and kind: has a whole message ever come from it?
    std::vector<bool> proven;
    // Handles frames that belong to no reception in progress (single frames,
    // stray consecutive frames), so they go through the same checks.
    IsoTpReceiver unbound;
};

Node::Node(Role role, IsoTpOptions options, AddressFilter serves)
    : state_(std::make_unique<State>(role, options, std::move(serves))) {}

Node::~Node() = default;
Node::Node(Node&&) noexcept = default;

uint32_t Node::State::acquire_sender(int address) {
    uint32_t slot;
    if (!free_senders.empty()) {
        slot = free_senders.back();
        free_senders.pop_back();
    } else {
        slot = static_cast<uint32_t>(senders.size());
        senders.push_back({-1, IsoTpSender(options, &counters)});
    }
    senders[slot].address = address;
    sender_index.insert(static_cast<uint32_t>(address), slot);
    return slot;
}

// Keeps the sender's deadline current, and frees its slot once it has
// nothing left to send.
void Node::State::after_sender(uint32_t slot) {
    SenderSlot& entry = senders[slot];
    if (!entry.sender.idle()) {
        deadlines.set(sender_timer(slot), entry.sender.deadline());
        return;
    }
    deadlines.set(sender_timer(slot), std::nullopt);
    sender_index.erase(static_cast<uint32_t>(entry.address));
    entry.address = -1;
    free_senders.push_back(slot);
}

// A slot for a message that a first frame opens, or NO_SLOT when the frame is
// to be ignored because every slot is taken.
uint32_t Node::State::acquire_receiver(int address, int kind, IsoTpTime now) {
    uint32_t slot;
    if (!free_receivers.empty()) {
        slot = free_receivers.back();
        free_receivers.pop_back();
    } else if (receivers.size() < options.max_open_receptions) {
        slot = static_cast<uint32_t>(receivers.size());
        receivers.push_back({-1, 0, {}, IsoTpReceiver(0, options, &counters)});
    } else {
        if (!proven[receiver_key(address, kind)]) {
            ++counters.receptions_refused;
            return NO_SLOT;
        }
        slot = slot_to_evict();
        ++counters.receptions_evicted;
        receivers[slot].receiver.drop();
        release_receiver(slot);
        free_receivers.pop_back();  // the slot just freed
    }
    ReceiverSlot& entry = receivers[slot];
    entry.address = address;
    entry.kind = kind;
    entry.opened = now;
    entry.receiver.rebind(encode_id(flow_control_partner({address, incoming(), kind})));
    receiver_index.insert(receiver_key(address, kind), slot);
    return slot;
}

// The oldest reception from a peer that never completed a message, or else
// the oldest of all. Only runs when every slot is taken and a known peer
// starts a message, so the walk over the slots is rare.
uint32_t Node::State::slot_to_evict() const {
    uint32_t oldest = 0;
    uint32_t oldest_unproven = NO_SLOT;
    for (uint32_t slot = 0; slot < receivers.size(); ++slot) {
        const ReceiverSlot& entry = receivers[slot];
        if (entry.opened < receivers[oldest].opened) oldest = slot;
        if (!proven[receiver_key(entry.address, entry.kind)] &&
            (oldest_unproven == NO_SLOT || entry.opened < receivers[oldest_unproven].opened))
            oldest_unproven = slot;
    }
    return oldest_unproven != NO_SLOT ? oldest_unproven : oldest;
}

void Node::State::release_receiver(uint32_t slot) {
    ReceiverSlot& entry = receivers[slot];
    deadlines.set(receiver_timer(slot), std::nullopt);
    receiver_index.erase(receiver_key(entry.address, entry.kind));
    entry.address = -1;
    free_receivers.push_back(slot);
}

void Node::State::after_receiver(uint32_t slot) {
    IsoTpReceiver& receiver = receivers[slot].receiver;
    if (receiver.receiving()) {
        deadlines.set(receiver_timer(slot), receiver.deadline());
    } else {
        release_receiver(slot);
    }
}

void Node::State::deliver(int address, int kind, const std::vector<uint8_t>& bytes,
                          std::vector<ReceivedMessage>& messages) {
    proven[receiver_key(address, kind)] = true;
    ReceivedMessage& message = messages.emplace_back();
    message.address = address;
    message.kind = kind;
    message.bytes.assign(bytes.begin(), bytes.end());
}

bool Node::State::valid(int address, int kind, std::size_t size) const {
    if (address < 0 || address > MAX_ADDRESS || kind < 0 || kind > 1) return false;
    if (role == Role::host && kind != 0) return false;
    return size > 0 && size <= ISOTP_MAX_MESSAGE;
}

bool Node::send_at_once(int address, int kind, const uint8_t* data, std::size_t size, std::vector<CanFrame>& out) {
    State& s = *state_;
    if (!s.valid(address, kind, size) || !fits_single_frame(size, s.options)) return false;
    if (s.sender_index.find(static_cast<uint32_t>(address)) != NO_SLOT) return false;
    // Nothing on its way to this address: the single frame goes now, without a sender.
    append_single_frame(encode_id({address, s.outgoing(), kind}), data, size, s.options, out);
    ++s.counters.frames_out;
    ++s.counters.messages_out;
    return true;
}

bool Node::queue(int address, int kind, const uint8_t* data, std::size_t size, MessageClass message_class,
                 IsoTpTime now, std::vector<CanFrame>& out) {
    State& s = *state_;
    if (!s.valid(address, kind, size)) return false;
    if (send_at_once(address, kind, data, size, out)) return true;
    const uint32_t tx_id = encode_id({address, s.outgoing(), kind});
    uint32_t slot = s.sender_index.find(static_cast<uint32_t>(address));
    if (slot == NO_SLOT) slot = s.acquire_sender(address);
    const bool queued = s.senders[slot].sender.queue(tx_id, data, size, message_class, now, out);
    s.after_sender(slot);
    return queued;
}

void Node::on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out,
                    std::vector<ReceivedMessage>& messages) {
    State& s = *state_;
    ++s.frames_in;
    const std::optional<MappedId> id = frame.extended ? decode_id(frame.id) : std::nullopt;
    const bool for_us = id && id->direction == s.incoming() &&
                        (s.role == Role::host || !s.serves || s.serves(id->address));
    if (!for_us) {
        ++s.foreign_frames;
        return;
    }
    if (is_flow_control(frame)) {
        // Flow control on a reply identifier paces the command we send to
        // that address, and the other way round.
        const uint32_t slot = s.sender_index.find(static_cast<uint32_t>(id->address));
        if (slot == NO_SLOT) {
            // Nobody waits for it; a frame too short to be one breaks the protocol.
            ++(frame.len < 3 ? s.counters.segmentation_errors : s.counters.ignored_frames);
            return;
        }
        s.senders[slot].sender.on_flow_control(frame, now, out);
        s.after_sender(slot);
        return;
    }
    uint32_t slot = s.receiver_index.find(receiver_key(id->address, id->kind));
    if (slot == NO_SLOT && opens_message(frame)) {
        slot = s.acquire_receiver(id->address, id->kind, now);
        if (slot == NO_SLOT) return;  // ignored: no room for a peer not yet known
    }
    if (slot == NO_SLOT) {
        if (s.unbound.accept(frame, now, out)) s.deliver(id->address, id->kind, s.unbound.message(), messages);
        return;
    }
    IsoTpReceiver& receiver = s.receivers[slot].receiver;
    if (receiver.accept(frame, now, out)) s.deliver(id->address, id->kind, receiver.message(), messages);
    s.after_receiver(slot);
}

void Node::on_time(IsoTpTime now, std::vector<CanFrame>& out) {
    State& s = *state_;
    while (!s.deadlines.empty() && s.deadlines.earliest() <= now) {
        const uint32_t timer = s.deadlines.earliest_id();
        const uint32_t slot = timer / 2;
        if (timer % 2 == 0) {
            s.senders[slot].sender.on_time(now, out);
            s.after_sender(slot);
        } else {
            s.receivers[slot].receiver.on_time(now);
            s.after_receiver(slot);
        }
    }
}

std::optional<IsoTpTime> Node::deadline() const {
    if (state_->deadlines.empty()) return std::nullopt;
    return state_->deadlines.earliest();
}

void Node::abandon_sending() {
    State& s = *state_;
    for (uint32_t slot = 0; slot < s.senders.size(); ++slot) {
        if (s.senders[slot].address < 0) continue;
        s.senders[slot].sender.abandon();
        s.after_sender(slot);
    }
}

NodeCounters Node::counters() const {
    NodeCounters total;
    total.isotp = state_->counters;
    total.frames_in = state_->frames_in;
    total.foreign_frames = state_->foreign_frames;
    return total;
}

std::size_t Node::open_senders() const { return state_->senders.size() - state_->free_senders.size(); }
std::size_t Node::open_receptions() const { return state_->receivers.size() - state_->free_receivers.size(); }

}  // namespace ocp_api::can
