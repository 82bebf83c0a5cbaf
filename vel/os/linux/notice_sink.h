// Whom sockets tell of their notices.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <sys/epoll.h>
#include <vel/os/linux/descriptor.h>

namespace vel::os {

class HandleObject;
class SocketNotices;

/// A receiver of notices and the edge-triggered epoll of the sockets that are bound to it.
///
/// A sink fetches edges and hands them to `deliver`, which applies them to their sockets; what that records it finds
/// by itself. It is told of what calls on the socket, bindings and closings change. Any number of sockets can be bound.
///
/// The calls marked (socket locked) come with the socket's lock held, from any thread: they may take the sink's own
/// lock and `SocketNotices::take`, and call nothing else of sockets.
class NoticeSink {
public:
    /// A notice was recorded, by something else than an edge. (socket locked)
    virtual void recorded(SocketNotices& socket, uint64_t key) = 0;

    /// What was recorded is true no more, and nothing else is recorded. (socket locked)
    virtual void retracted(uint64_t key) = 0;

    /// The socket was closed, bound elsewhere or unbound. It is gone when this returns. (socket locked)
    virtual void released(uint64_t key) = 0;

    /// Held while sockets are bound and unbound, and by a sink that is going to unbind or to end: under it, a socket
    /// that has not been released is still there.
    static std::mutex& bindings_lock();

    /// For SocketNotices: registers its descriptor once, for all edges; takes it out again. A code, 0 on success.
    uint32_t enter(const HandleObject& socket);
    void leave(const HandleObject& socket, uint64_t key);

    /// Number of the last fetch that has begun.
    uint64_t last_fetch() const { return fetches_.load(std::memory_order_relaxed); }

protected:
    static constexpr uint64_t own_tag = uint64_t{1} << 63; // in the tags of what is no socket

    NoticeSink() = default;
    ~NoticeSink() = default;
    NoticeSink(const NoticeSink&) = delete;
    NoticeSink& operator=(const NoticeSink&) = delete;

    /// Opens an epoll in the place of the one before, if any. Gives an errno, 0 on success.
    int open();

    /// What `fetch` waits in. Changed under the lock of all bindings.
    Descriptor& epoll() { return epoll_; }
    int watch(int descriptor, uint32_t events, uint64_t tag);
    void forget(int descriptor);

    /// Waits for edges; their number, -1 when interrupted.
    /// @param epoll    number of the epoll's descriptor
    /// @param timeout  null waits for ever
    /// @param fetch    the number of this fetch, for `deliver`
    int fetch(int epoll, epoll_event* edges, int room, const timespec* timeout, uint64_t& fetch);

    /// Applies an edge to its socket, unless that was closed meanwhile. True when something is recorded under `key`.
    bool deliver(const epoll_event& edge, uint64_t fetch, uint64_t& key);

    static uint64_t tag_of(const HandleObject& object);
    static int descriptor_of(uint64_t tag) { return static_cast<int>(tag & 0xFFFFFFFF); }
    static uint32_t generation_of(uint64_t tag) { return static_cast<uint32_t>(tag >> 32) & 0xFFFFFF; }

private:
    Descriptor epoll_{-1};
    std::atomic<uint64_t> fetches_{0};
};

} // namespace vel::os
