// The notices of one socket: which are wanted, which may still come, which have been recorded for whom.
#pragma once

#include <atomic>
#include <cstdint>
#include <vel/os/linux/short_lock.h>
#include <vel/os/wait_set.h>

namespace vel::os {

class HandleObject;
class NoticeSink;

/// State machine behind the notices of a socket; a member of its object.
///
/// It learns what is true from three sides: edges that its sink has fetched, the calls that are made on the socket, and
/// a look of its own where neither can tell. Invariants, whenever its lock is free:
///  - a notice that is wanted and armed is not true, or an edge that will tell of it is still to be applied;
///  - a recorded read, write or accept was true at the last edge, look or call;
///  - `armed_` and `recorded_` hold no notice that is not wanted.
/// An edge is true when the kernel hands it out, but another thread may use the socket before it is applied: each
/// fetch has a number, and a socket that was used since the fetch began is looked at instead.
///
/// Locks: the lock of all bindings, then the socket's, then the sink's. A socket that is not bound pays one relaxed
/// load a call; only connects keep their state in any case.
class SocketNotices {
public:
    SocketNotices(const HandleObject& owner, bool is_stream)
        : owner_(owner),
          phase_(is_stream ? Phase::idle : Phase::datagram) {}
    SocketNotices(const SocketNotices&) = delete;
    SocketNotices& operator=(const SocketNotices&) = delete;

    bool bound() const { return sink_.load(std::memory_order_relaxed) != nullptr; }

    /// For sinks. What is recorded can be asked and taken under a lock that `NoticeSink::released` takes too: then the
    /// socket is still there. The rest wants the lock of all bindings.
    bool has_recorded(uint32_t notices = notice::all) const {
        return (recorded_.load(std::memory_order_relaxed) & notices) != 0;
    }
    Notices take(uint32_t notices = notice::all);
    uint32_t bind(NoticeSink& sink, uint64_t key, uint32_t wanted);
    void unbind();
    const HandleObject& owner() const { return owner_; }

    /// Applies an edge of a fetch. True when something is recorded under `key` afterwards.
    bool on_edge(const NoticeSink& sink, uint32_t events, uint64_t fetch, uint64_t& key);

    /// The socket is being closed: nobody binds it any more.
    void close();

    /// A receive or an accept marks the time before the call, so that no edge is lost, and arms its notice after it.
    struct Mark {
        bool bound;
        uint32_t edges;
    };
    Mark mark() const { return {bound(), edges_.load(std::memory_order_relaxed)}; }

    /// @param emptied  the call was not given all it asked for
    void received(Mark mark, uint32_t code, bool emptied) {
        if (mark.bound) settle(mark, notice::read, code, emptied);
    }
    void accepted(Mark mark, uint32_t code) {
        if (mark.bound) settle(mark, notice::accept, code, false);
    }

    void sent(uint32_t code) {
        if (code && bound()) send_failed(code);
    }
    void listening() {
        if (bound()) start_listening();
    }

    /// The descriptor stands for a fresh connection: a binding goes over to it. True when there is one. A sink that
    /// cannot take it is left, with a code.
    bool renew(uint32_t& code);

    /// Around a connect call. True when it starts a new connect.
    bool connect_begins();
    void connect_ends(uint32_t code, bool fresh);

    /// Its user has taken the pending error of the socket.
    void error_taken(uint32_t code);

private:
    enum class Phase : uint8_t { idle, connecting, connected, listening, datagram };
    class Change;

    void settle(Mark mark, uint32_t notice, uint32_t code, bool emptied);
    void send_failed(uint32_t code);
    void start_listening();

    uint32_t look() const;
    bool has_peer() const;
    bool has_unread() const;
    uint32_t take_error() const;

    void identify();
    void apply(uint32_t events);
    void apply_connected(uint32_t events);
    void apply_ended(uint32_t events);
    void try_finish_connect();
    void connect_failed(uint32_t code);
    void finish_connect(uint32_t code);
    void record(uint32_t notices);
    void withdraw(uint32_t notices);
    void note_use();

    const HandleObject& owner_;
    ShortLock lock_; // guards what follows; changes of the sink also want the lock of all bindings
    Phase phase_;
    bool closed_ = false;
    bool hung_up_ = false;      // the peer will send no more; bytes may be unread
    bool urgent_ = false;       // urgent data cuts receives short
    bool connect_over_ = false; // `connect_error_` is the result of the last connect
    bool fresh_ = false;        // by the change under way: something was recorded
    bool withdrawn_ = false;    // and something is recorded no more
    uint32_t wanted_ = 0;
    uint32_t armed_ = 0;
    uint32_t reported_ = 0; // of connect and close: recorded once already
    uint64_t used_at_ = 0;  // the sink's last fetch when the socket was last used
    uint64_t key_ = 0;
    std::atomic<NoticeSink*> sink_{nullptr};
    std::atomic<uint32_t> edges_{0};    // counts the edges applied
    std::atomic<uint32_t> recorded_{0}; // also taken from without the lock
    std::atomic<uint32_t> connect_error_{0};
    std::atomic<uint32_t> close_error_{0}; // of a connection that broke
};

} // namespace vel::os
