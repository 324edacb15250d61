#include "session.hpp"

#include <ocp_api/wire.hpp>

namespace ocpctl {

bool ExitStopFilter::send(int address, const std::vector<uint8_t>& frame) {
    if (armed_ && frame == ocp_api::wire::make_frame(ocp_api::wire::Command::STOP)) return true;
    return bus_.send(address, frame);
}

Session::Session(const GlobalOptions& global, int address, OnExit on_exit)
    : bus_(parse_bus(global.bus)), filter_(bus_.transport()), on_exit_(on_exit) {
    actuator_ = connect_actuator(filter_, address, global.timeout_s);
}

Session::~Session() { release_actuator(); }

void Session::release_actuator() {
    if (on_exit_ == OnExit::LeaveAsFound) filter_.arm();
    actuator_.reset();
}

}  // namespace ocpctl
