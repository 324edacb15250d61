#include "ocp_api/ocp.hpp"

namespace ocp_api {

OCP::~OCP() = default;

}  // namespace ocp_api
