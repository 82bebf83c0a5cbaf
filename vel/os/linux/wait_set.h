// The wait set of this system.
#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/notice_sink.h>
#include <vel/os/linux/short_lock.h>
#include <vel/os/linux/wait_members.h>
#include <vel/os/linux/waitable.h>

namespace vel::os {

/// Threads sleep in one epoll. Each socket is registered there once; in the steady state a notice costs the shared wait
/// and what its reader does.
///
/// Whom a signal frees. The kernel hands an edge to one sleeper, of an event as of a socket. What a thread finds beyond
/// the member that it gives to its caller, an event that stays signalled, and what calls on sockets record, frees
/// another sleeper by a nudge: an edge of a descriptor that nobody reads. At most one nudge is under way, and whoever
/// leaves a wait passes on what is left, so none is lost and no herd comes.
///
/// Wake-ups. `wake` counts a generation up and makes a level-triggered descriptor readable, which frees all sleepers.
/// Until the last of them has left and read it (`draining_`), nobody goes to sleep. Sleepers that do not come, since
/// somebody has ended their threads or they get no processor, are left behind with their epoll after a while; it stays
/// readable for them, and the others go on with a fresh one.
class EpollWaitSet final : public WaitSet, private NoticeSink {
public:
    EpollWaitSet() = default;
    ~EpollWaitSet() override;

    uint32_t open();

    uint32_t bind(uint64_t key, uint64_t socket, uint32_t notices) override;
    uint32_t add_event(uint64_t key, void* event) override;
    bool has(uint64_t key) override;
    void remove(uint64_t key) override;
    uint32_t generation() const override { return generation_.load(std::memory_order_acquire); }
    WaitEnd wait(uint32_t generation, uint32_t timeout_ms) override;
    bool next(Turn& turn) override;
    void put_back(Turn& turn) override;
    void wake() override;

private:
    static constexpr uint64_t wake_tag = ~uint64_t{0};
    static constexpr uint64_t nudge_tag = wake_tag - 1;

    using Guard = std::lock_guard<ShortLock>;
    using Lock = std::unique_lock<ShortLock>;
    struct Batch;

    /// Threads in an epoll that the set has left.
    struct Stragglers {
        uint32_t epoch = 0;
        uint32_t count = 0;
        Descriptor epoll{-1};
        Descriptor wake{-1};
    };

    int open_epoll();
    void recorded(SocketNotices& socket, uint64_t key) override;
    void retracted(uint64_t key) override;
    void released(uint64_t key) override;

    SocketNotices* socket_of(uint64_t key);

    /// Calls `use` with the event behind a tag; false when it is closed.
    template <class Use>
    static bool use_event(uint64_t tag, Use use) {
        Waitable* event = pin_waitable(to_handle(descriptor_of(tag)));
        if (!event) return false;
        const bool same = event->generation() == generation_of(tag);
        if (same) use(*event);
        HandleTable::unpin(event);
        return same;
    }

    WaitEnd await_signal(Lock& lock, uint32_t generation, const Deadline& deadline, uint32_t& place);
    uint32_t first_known(uint64_t after) const;
    bool may_be_signalled_up_to(uint32_t place) const;
    uint32_t give_next(Lock& lock, Turn& turn);
    bool give(uint32_t place, Turn& turn);
    void let_go(uint64_t key);

    // Both ask the kernel, with the lock open meanwhile.
    void look(Lock& lock);
    void sleep(Lock& lock, const Deadline& deadline);
    bool fetch_batch(Lock& lock, const timespec* timeout);
    void apply(const Batch& batch);
    uint32_t refresh(uint64_t key);

    bool await_events();
    void last_sleeper_left();
    void await_drain(Lock& lock, const Deadline& deadline);
    void free_barred();
    void leave_stragglers(uint32_t barrier);
    void straggler_came(uint32_t epoch);

    void nudge_one();
    void pass_on(uint32_t given);

    ShortLock lock_; // guards what follows
    WaitMembers members_;
    uint32_t sleepers_ = 0; // threads from before their wait in the epoll until they have applied what it brought
    uint32_t fetchers_ = 0; // these, and those that look without sleeping
    uint32_t epoch_ = 0;    // counts the epolls
    std::list<Stragglers> stragglers_;
    bool draining_ = false;
    bool nudged_ = false;                 // a nudge is under way
    std::atomic<uint32_t> generation_{0}; // changes under the lock
    std::atomic<uint32_t> barrier_{0};    // likewise; threads that must not go to sleep yet wait for its next value
    Descriptor wake_{-1};
    Descriptor nudge_{-1};
};

} // namespace vel::os
