// The transport interface: what the library needs from the link to the bus.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace ocp_api {

// A transport to the CAN bus. Hosts and the project's own transports implement it.
//
// Contract:
//  - send() may be called concurrently from several threads, by several
//    actuators sharing the transport, and from inside a receive callback.
//  - setCallback() registers one callback per address; a second call for the
//    same address replaces the first.
//  - The transport calls the callback on its own receive thread, once per reply
//    buffer from that address, with (address, bytes, kind): kind is 0 for
//    streamed feedback and non-zero for the answer to a one-shot item request.
//  - After removeCallback() returns, the callback is never called again, also
//    when a call was in flight on the receive thread. Calling removeCallback()
//    from inside a callback must not deadlock.
class OCP {
public:
    using ReceiveCallback = std::function<void(int, std::vector<uint8_t>, int)>;

    virtual ~OCP();

    // Hands `frame` to the bus for the device at `address`; true when it was
    // handed over. The actuators ignore the result.
    virtual bool send(int address, const std::vector<uint8_t>& frame) = 0;
    virtual void setCallback(int address, ReceiveCallback callback) = 0;
    virtual void removeCallback(int address) = 0;
    virtual void close() = 0;

protected:
    OCP() = default;
    OCP(const OCP&) = default;
    OCP& operator=(const OCP&) = default;
};

}  // namespace ocp_api
