// What the completion port keeps for one handle; a member of the handle's object.
#pragma once

#include <atomic>
#include <cstdint>
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
struct PortDirection {
    ShortLock lock;
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
/// Invariants: `port_` and what describes the handle change only with the lock of all associations and both
/// directions' locks held, so either lock is enough to read them and keeps the port alive.
class PortBinding {
public:
    PortBinding() = default;
    PortBinding(const PortBinding&) = delete;
    PortBinding& operator=(const PortBinding&) = delete;

    /// The handle is being closed: completes what is pending with 995 and refuses further starts.
    void detach();

    /// Tries the request when nothing waits before it, else queues it.
    uint32_t start_input(IoRequest& request) { return start(input_, request); }
    uint32_t start_output(IoRequest& request) { return start(output_, request); }

    /// Goes on with the requests of the directions that the events (of epoll) speak of.
    void on_events(uint32_t events);

    /// The descriptor stands for another connection from now on. False when somebody uses the handle.
    bool renew(HandleObject& owner);

    int descriptor() const { return descriptor_; }
    bool is_socket() const { return is_socket_; }
    bool is_stream() const { return is_stream_; }
    PortObject& port() const { return *port_; }

private:
    friend class PortObject;

    uint32_t start(PortDirection& direction, IoRequest& request);
    uint32_t start_transfer(PortDirection& direction, IoRequest& request);
    void resume(PortDirection& direction, bool drain);
    void finish_all(PortDirection& direction);
    void refuse_starts();

    PortObject* port_ = nullptr;
    uint32_t key_ = 0;
    int descriptor_ = -1;
    uint64_t event_tag_ = 0;
    bool is_socket_ = false;
    bool is_stream_ = false;
    bool closed_ = false;
    PortDirection input_;
    PortDirection output_;
    PortBinding* next_ = nullptr; // neighbours in the port's list, under the lock of all associations
    PortBinding* previous_ = nullptr;
};

} // namespace vel::os
