// What the completion port keeps for one socket.
#pragma once

namespace vel::os {

class SocketObject;

/// State of one socket inside the port it is associated with; lives in the socket's object.
struct PortBinding {
    /// Called once when the socket is closed, before blocked calls are woken.
    void detach(SocketObject&) {}
};

} // namespace vel::os
