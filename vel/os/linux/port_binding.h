// What the completion port keeps for one handle; a member of the handle's object.
#pragma once

#include <cstdint>
#include <vel/os/linux/short_lock.h>
#include <vel/types.h>

namespace vel::os {

class PortBinding;
class PortObject;

/// Requests of one direction, first started first. The lock guards everything here and is held during the calls
/// that move the bytes, none of which blocks; whoever unlinks a request completes it.
struct PortDirection {
    ShortLock lock;
    bool ready = true;  // worth a try; false (dry) until the next edge
    bool ended = false; // hang-up or error seen: a short read does not make the direction dry
    IoRequest* head = nullptr;
    IoRequest* tail = nullptr;
};

/// The association of a socket or file with a port.
///
/// Its owner overrides `HandleObject::port_binding` to return it and calls `detach` first thing in
/// `HandleObject::detach`, before anything that would end the transfers (a shutdown, say).
class PortBinding {
public:
    PortBinding() = default;
    PortBinding(const PortBinding&) = delete;
    PortBinding& operator=(const PortBinding&) = delete;

    /// The handle is being closed: completes what is pending with 995 and refuses further starts.
    void detach();

private:
    friend class PortObject;

    PortDirection input_;
    PortDirection output_;
};

} // namespace vel::os
