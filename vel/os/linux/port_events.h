// The edge-triggered epoll of a completion port.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace vel::os {

class HandleObject;
class PortBinding;

/// Readiness of all sockets of a port, and a latch that ends the wait.
///
/// Each socket is registered once, for both directions and the peer's close. It leaves when its descriptor is closed. An
/// event that comes later reaches whoever has its binding by then, for whom it is an attempt in vain.
class PortEvents {
public:
    /// @param port  owner of the epoll descriptor
    explicit PortEvents(const HandleObject& port) : port_(port) {}
    ~PortEvents();
    PortEvents(const PortEvents&) = delete;
    PortEvents& operator=(const PortEvents&) = delete;

    /// Puts the latch into the epoll. Gives an errno, 0 on success.
    int open();

    /// Gives an errno. What is true already counts as an edge.
    int add(int descriptor, PortBinding& binding);

    /// Has the socket reported again when it is still ready.
    void repeat(int descriptor, PortBinding& binding);

    /// Waits for a batch and goes on with the requests it makes possible. Clears `sleeping` in between.
    /// @param timeout  null waits for ever
    void poll(const timespec* timeout, std::atomic<bool>& sleeping);

    /// Ends a wait, now or the next one.
    void interrupt();

private:
    const HandleObject& port_;
    int latch_ = -1;
};

} // namespace vel::os
