// The identifiers as the protocol layer sees them: the codes of the one list
// in identifiers.hpp, tied to neither actuator class.
#pragma once

#include "ocp_api/identifiers.hpp"

namespace ocp_api {

struct WireCodesTag;
using Codes = ActuatorIdentifiers<WireCodesTag>;

}  // namespace ocp_api
