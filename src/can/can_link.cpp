#include "ocp_api/can_link.hpp"

namespace ocp_api {

CanLink::~CanLink() = default;

}  // namespace ocp_api
