#include "session.hpp"

#include <ocp_api/wire.hpp>

namespace ocpctl {

bool ExitStopFilter::send(int address, const std::vector<uint8_t>& frame) {
    const bool is_stop = frame.size() == 1 && frame[0] == static_cast<uint8_t>(ocp_api::wire::Command::STOP);
    if (armed_ && is_stop) return true;
    return bus_.send(address, frame);
}

bool answers_at(ocp_api::OCP& bus, int address, float timeout_s) {
    ExitStopFilter quiet(bus);
    quiet.arm();
    ocp_api::OrreryActuator probe(quiet, address);
    return connect_interruptibly(probe, address, timeout_s);
}

Session::Session(const GlobalOptions& global, int address, OnExit on_exit)
    : bus_(global.bus), filter_(bus_.transport()), on_exit_(on_exit) {
    actuator_ = connect_actuator(filter_, address, global.timeout_s);
}

Session::~Session() { release_actuator(); }

void Session::release_actuator() {
    if (on_exit_ == OnExit::LeaveAsFound) filter_.arm();
    actuator_.reset();
}

}  // namespace ocpctl
