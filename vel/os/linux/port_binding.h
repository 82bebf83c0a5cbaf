// What the completion port keeps for one handle; a member of the handle's object.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vel/os/linux/short_lock.h>
#include <vel/types.h>

namespace vel::os {

class FilePool;
class HandleObject;
class PortBinding;
class PortObject;

/// What a request does, kept in `IoRequest::kind`.
enum class IoKind : uint8_t { post, receive, send, accept, connect, connecting, read_file, write_file };

/// Added to the kind of a request that stands for a record of the user and is freed when its completion is taken.
inline constexpr uint8_t proxy_bit = 0x80;

inline IoKind kind_of(const IoRequest& request) { return static_cast<IoKind>(request.kind & ~proxy_bit); }

/// Requests of one direction of a handle, first started first.
///
/// The lock guards everything up to the tail and is held during the calls that move the bytes, none of which blocks.
/// Whoever unlinks a request completes it, and does so before the lock is free again: so the order is kept.
/// The file pool guards what follows the tail.
class PortDirection {
public:
    void lock() { lock_.lock(); }
    bool try_lock() { return lock_.try_lock(); }
    void unlock() {
        calm_.store(ready && !head, std::memory_order_relaxed);
        lock_.unlock();
    }

    /// Whether an edge that was fetched before may be left out: the direction passes for ready and nothing waits in it.
    /// The lock is read first. While it is held, its holder may have found the socket dry before the edge came and not
    /// said so in `calm_` yet; who takes it later makes its calls after the edge.
    bool is_calm() const { return lock_.is_free() && calm_.load(std::memory_order_relaxed); }

private:
    ShortLock lock_;
    std::atomic<bool> calm_{false};

public:
    bool ready = true;  // worth a try; false (dry) until the next edge
    bool drain = false; // hang-up, error or urgent data seen: more may follow a short read without another edge
    IoRequest* head = nullptr;
    IoRequest* tail = nullptr;

    enum class Lane : uint8_t { idle, queued, running };
    Lane lane = Lane::idle;
    bool lane_closed = false; // not to be queued again
    bool lane_again = false;  // got a request while running
    PortBinding* lane_owner = nullptr;
    PortDirection* next_lane = nullptr;
    std::atomic<uint32_t> lane_busy{0}; // 1 while a pool thread uses the direction

    /// The system has nothing more to give or to take for now.
    void run_dry() { ready = drain = false; }

    void append(IoRequest& request);
    IoRequest* take_first();
    IoRequest* take_all();
};

/// The association of a socket or file with a port.
///
/// Its owner overrides `HandleObject::port_binding` to return it and calls `detach` first thing in
/// `HandleObject::detach`, before anything that would end the transfers (a shutdown, say).
///
/// Memory: a binding outlives its handle and is used again for another one, but never freed. So whoever comes late may
/// take the locks still.
///
/// Invariants: `port_` and what describes the handle change only with both directions' locks held (and that of all
/// associations, where a port is concerned), so either lock is enough to read them and, while `port_` is not null, keeps
/// the port alive and the descriptor open. So whoever holds one of the locks needs no pin of the handle.
class alignas(64) PortBinding {
public:
    struct Recycle {
        void operator()(PortBinding* binding) const;
    };
    using Owner = std::unique_ptr<PortBinding, Recycle>;

    /// The binding of a new handle; null when there is no memory.
    static Owner make(bool for_socket);

    PortBinding(const PortBinding&) = delete;
    PortBinding& operator=(const PortBinding&) = delete;

    /// The handle is being closed: completes what is pending with 995 and refuses further starts.
    void detach();

    /// Tries the request when nothing waits before it, else queues it.
    /// @param descriptor  of the handle that is meant; the binding may serve another one by now
    uint32_t start_input(int descriptor, IoRequest& request) { return start(input_, descriptor, request); }
    uint32_t start_output(int descriptor, IoRequest& request) { return start(output_, descriptor, request); }

    /// Goes on with the requests of the directions that the events (of epoll) speak of.
    void on_events(uint32_t events);

    /// The descriptor stands for another connection from now on. False when somebody uses the handle.
    bool renew();

    int descriptor() const { return descriptor_; }
    bool is_socket() const { return is_socket_; }
    bool is_stream() const { return is_stream_; }
    PortObject& port() const { return *port_; }

private:
    friend class PortObject;
    struct Spare;

    explicit PortBinding(bool for_socket) : is_socket_(for_socket) {}
    void set_closed(bool closed);
    bool serves(int descriptor, const IoRequest& request) const;
    uint32_t refusal(const IoRequest& request) const;
    uint32_t start(PortDirection& direction, int descriptor, IoRequest& request);
    uint32_t start_transfer(PortDirection& direction, IoRequest& request);
    void resume(PortDirection& direction, bool drain);
    void finish_all(PortDirection& direction);
    void refuse_starts();

    PortObject* port_ = nullptr;
    uint32_t key_ = 0;
    int descriptor_ = -1;
    uint32_t generation_ = 0;
    const bool is_socket_;
    bool is_stream_ = false;
    bool closed_ = true;
    PortDirection input_;
    PortDirection output_;
    PortBinding* next_ = nullptr; // neighbours in the port's list, under the lock of all associations
    PortBinding* previous_ = nullptr;
};

} // namespace vel::os
