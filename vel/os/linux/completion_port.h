// The object behind a port handle.
#pragma once

#include <atomic>
#include <mutex>
#include <vel/os/completion_port.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/port_binding.h>
#include <vel/os/linux/port_events.h>
#include <vel/os/linux/port_files.h>
#include <vel/os/linux/port_queue.h>
#include <vel/os/linux/port_reserve.h>

namespace vel::os {

/// A request made by the port for a record that has no room for one: a bare post or overlapped transfer.
struct ProxyRequest : IoRequest {
    OVERLAPPED* record; // the user's; null for a bare post
};

/// A completion port. Its descriptor is the epoll.
///
/// Lock order: all associations, input of a handle, output of a handle, then file pool or ready queue.
class PortObject final : public HandleObject {
public:
    explicit PortObject(uint32_t concurrency) : events_(*this), queue_(events_, concurrency), files_(*this) {}

    /// The port is being closed: frees the waiters and lets all handles go.
    void detach() override;

    /// Others lead and wait in the place of a thread that was ended by force.
    void abandon(uint32_t thread_id) override;

    uint32_t associate(HandleObject& object, HandleKind kind, uint32_t key);

    /// The request has ended with this code and the bytes in its record: its completion becomes ready.
    void finish(IoRequest& request, uint32_t code);

    uint32_t post(IoRequest& request, uint64_t bytes, uint32_t key);
    uint32_t wait(uint32_t timeout_ms, Completion& completion);

    /// Takes a binding out of the port's list.
    void forget(PortBinding& binding);

    PortEvents& events() { return events_; }
    FilePool& files() { return files_; }
    ReserveDescriptor& reserve() { return reserve_; }

    /// Guards which handle belongs to which port, for all ports: a handle and its port may be closed at once.
    static std::mutex& associations_lock();

private:
    uint32_t bind(PortBinding& binding, HandleObject& object);
    void release(PortBinding& binding);
    static void discard(IoRequest* chain);

    PortEvents events_;
    PortQueue queue_;
    FilePool files_;
    ReserveDescriptor reserve_;
    PortBinding* bindings_ = nullptr; // under the lock of all associations
    bool closed_ = false;             // likewise
};

} // namespace vel::os
