// One side of the CAN mapping: routes arriving frames by identifier to the
// reassembly of their message or, for flow control, to the sender it paces.
#include "ocp_api/can_node.hpp"

#include <algorithm>

namespace ocp_api::can {

namespace {

void take_earlier(std::optional<IsoTpTime>& earliest, const std::optional<IsoTpTime>& candidate) {
    if (candidate && (!earliest || *candidate < *earliest)) earliest = candidate;
}

}  // namespace

Node::Node(Role role, IsoTpOptions options, AddressFilter serves)
    : role_(role), options_(options), serves_(std::move(serves)) {
    validate(options_);
}

Direction Node::incoming() const { return role_ == Role::host ? Direction::to_host : Direction::to_device; }
Direction Node::outgoing() const { return role_ == Role::host ? Direction::to_device : Direction::to_host; }

IsoTpSender& Node::sender_for(int address) { return senders_.try_emplace(address, options_).first->second; }

IsoTpReceiver& Node::receiver_for(int address, int kind) {
    const auto found = receivers_.find({address, kind});
    if (found != receivers_.end()) return found->second;
    const uint32_t fc_id = encode_id(flow_control_partner({address, incoming(), kind}));
    return receivers_.try_emplace({address, kind}, fc_id, options_).first->second;
}

void Node::retire_sender_if_idle(int address) {
    const auto found = senders_.find(address);
    if (found == senders_.end() || !found->second.idle()) return;
    retired_ += found->second.counters();
    senders_.erase(found);
}

void Node::retire_receiver_if_idle(const ReceiverKey& key) {
    const auto found = receivers_.find(key);
    if (found == receivers_.end() || found->second.receiving()) return;
    retired_ += found->second.counters();
    receivers_.erase(found);
}

bool Node::queue(int address, int kind, std::vector<uint8_t> message, IsoTpTime now, std::vector<CanFrame>& out) {
    if (address < 0 || address > MAX_ADDRESS || kind < 0 || kind > 1) return false;
    if (role_ == Role::host && kind != 0) return false;
    const uint32_t tx_id = encode_id({address, outgoing(), kind});
    const bool queued = sender_for(address).queue(tx_id, std::move(message), now, out);
    retire_sender_if_idle(address);
    return queued;
}

void Node::on_frame(const CanFrame& frame, IsoTpTime now, std::vector<CanFrame>& out,
                    std::vector<ReceivedMessage>& messages) {
    ++frames_in_;
    const std::optional<MappedId> id = frame.extended ? decode_id(frame.id) : std::nullopt;
    const bool for_us = id && id->direction == incoming() &&
                        (role_ == Role::host || !serves_ || serves_(id->address));
    if (!for_us) {
        ++foreign_frames_;
        return;
    }
    if (is_flow_control(frame)) {
        // Flow control on a reply identifier paces the command we send to
        // that address, and the other way round.
        sender_for(id->address).on_flow_control(frame, now, out);
        retire_sender_if_idle(id->address);
        return;
    }
    std::optional<std::vector<uint8_t>> message = receiver_for(id->address, id->kind).on_frame(frame, now, out);
    retire_receiver_if_idle({id->address, id->kind});
    if (message) messages.push_back({id->address, id->kind, std::move(*message)});
}

void Node::on_time(IsoTpTime now, std::vector<CanFrame>& out) {
    std::vector<int> senders_done;
    for (auto& [address, sender] : senders_) {
        sender.on_time(now, out);
        if (sender.idle()) senders_done.push_back(address);
    }
    for (const int address : senders_done) retire_sender_if_idle(address);
    std::vector<ReceiverKey> receivers_done;
    for (auto& [key, receiver] : receivers_) {
        receiver.on_time(now);
        if (!receiver.receiving()) receivers_done.push_back(key);
    }
    for (const ReceiverKey& key : receivers_done) retire_receiver_if_idle(key);
}

std::optional<IsoTpTime> Node::deadline() const {
    std::optional<IsoTpTime> earliest;
    for (const auto& [address, sender] : senders_) take_earlier(earliest, sender.deadline());
    for (const auto& [key, receiver] : receivers_) take_earlier(earliest, receiver.deadline());
    return earliest;
}

void Node::abandon_sending() {
    for (auto& [address, sender] : senders_) {
        sender.abandon();
        retired_ += sender.counters();
    }
    senders_.clear();
}

NodeCounters Node::counters() const {
    NodeCounters total;
    total.isotp = retired_;
    for (const auto& [address, sender] : senders_) total.isotp += sender.counters();
    for (const auto& [key, receiver] : receivers_) total.isotp += receiver.counters();
    total.frames_in = frames_in_;
    total.foreign_frames = foreign_frames_;
    return total;
}

}  // namespace ocp_api::can
