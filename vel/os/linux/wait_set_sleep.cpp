// Waiting for the members of a wait set: looking, sleeping, and freeing other sleepers.
#include <vel/os/linux/wait_set.h>

#include <new>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/futex.h>
#include <vel/os/linux/socket_notices.h>

namespace vel::os {

/// What one fetch has brought.
struct EpollWaitSet::Batch {
    uint32_t count = 0;
    bool nudged = false;
    uint64_t keys[capacity];
};

WaitEnd EpollWaitSet::wait(uint32_t generation, uint32_t timeout_ms) {
    const Deadline deadline(timeout_ms);
    Lock lock(lock_);
    uint32_t place = WaitMembers::nowhere;
    const WaitEnd end = await_signal(lock, generation, deadline, place);
    pass_on(place);
    return end;
}

WaitEnd EpollWaitSet::await_signal(Lock& lock, uint32_t generation, const Deadline& deadline, uint32_t& place) {
    bool looked = false;
    while (generation == generation_.load(std::memory_order_relaxed)) {
        place = first_known(0);
        const bool known = place != WaitMembers::nowhere;
        if (known && (looked || !may_be_signalled_up_to(place))) return WaitEnd::signalled;
        const bool over = deadline.expired();
        if (!known && over && (looked || members_.count() == 0)) return WaitEnd::timed_out;
        if (!known && !over && draining_) {
            await_drain(lock, deadline);
            continue;
        }
        if (known || over)
            look(lock);
        else
            sleep(lock, deadline);
        looked = true;
    }
    place = WaitMembers::nowhere;
    return WaitEnd::woken;
}

bool EpollWaitSet::next(Turn& turn) {
    Lock lock(lock_);
    const uint32_t place = give_next(lock, turn);
    pass_on(place);
    if (place == WaitMembers::nowhere) {
        turn.key = 0;
        return false;
    }
    const uint64_t ended = members_[place].takes_signal ? members_[place].event_tag : 0;
    lock.unlock();
    if (ended) use_event(ended, [](Waitable& event) { event.after_wait(); });
    return true;
}

uint32_t EpollWaitSet::give_next(Lock& lock, Turn& turn) {
    const uint64_t after = turn.key;
    let_go(after);
    for (bool looked = after == 0;;) {
        const uint32_t place = first_known(after);
        if (place != WaitMembers::nowhere) {
            if (give(place, turn)) return place;
        } else if (looked || !members_.above(after)) {
            return place;
        } else {
            look(lock);
            looked = true;
        }
    }
}

// False when another thread was first to take an auto-reset event, or when nothing of the socket is true any more.
bool EpollWaitSet::give(uint32_t place, Turn& turn) {
    const WaitMember& member = members_[place];
    turn = {member.key, {}};
    if (members_.events & WaitMembers::bit(place)) {
        bool taken = !member.takes_signal;
        if (!taken) use_event(member.event_tag, [&](Waitable& event) { taken = event.take(); });
        return taken;
    }
    turn.notices = member.socket->take();
    members_.signalled &= ~WaitMembers::bit(place);
    if (turn.notices.mask == 0) return false;
    members_.held |= WaitMembers::bit(place);
    return true;
}

void EpollWaitSet::put_back(Turn& turn) {
    const Guard guard(lock_);
    let_go(turn.key);
    turn.key = 0;
}

void EpollWaitSet::let_go(uint64_t key) {
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return;
    members_.held &= ~WaitMembers::bit(place);
    if (members_.signalled & WaitMembers::bit(place)) nudge_one();
}

uint32_t EpollWaitSet::first_known(uint64_t after) const {
    uint64_t candidates = (members_.ready_sockets() | members_.events) & members_.above(after);
    for (; candidates; candidates &= candidates - 1) {
        const auto place = static_cast<uint32_t>(__builtin_ctzll(candidates));
        bool signalled = (members_.events & WaitMembers::bit(place)) == 0;
        if (!signalled)
            use_event(members_[place].event_tag, [&](const Waitable& event) { signalled = event.is_signalled(); });
        if (signalled) return place;
    }
    return WaitMembers::nowhere;
}

// An edge that nobody has fetched yet may tell of a socket with a smaller key, or tell more of this one.
bool EpollWaitSet::may_be_signalled_up_to(uint32_t place) const {
    return ((WaitMembers::bit(place) * 2 - 1) & ~(members_.events | members_.held)) != 0;
}

void EpollWaitSet::look(Lock& lock) {
    constexpr timespec at_once{};
    fetch_batch(lock, &at_once);
}

void EpollWaitSet::sleep(Lock& lock, const Deadline& deadline) {
    constexpr timespec at_once{};
    ++sleepers_;
    const bool idle = !await_events();
    timespec left;
    const bool stayed = fetch_batch(lock, idle ? deadline.remaining(left) : &at_once);
    if (stayed && --sleepers_ == 0) last_sleeper_left();
}

// False when the set has left the epoll meanwhile.
bool EpollWaitSet::fetch_batch(Lock& lock, const timespec* timeout) {
    constexpr int room = capacity + 2;
    epoll_event edges[room];
    uint64_t number = 0;
    Batch batch;
    const uint32_t epoch = epoch_;
    const int from = epoll().get();
    ++fetchers_;
    lock.unlock();
    const int count = fetch(from, edges, room, timeout, number);
    for (int index = 0; index < count; ++index) {
        const uint64_t tag = edges[index].data.u64;
        if (tag & own_tag)
            batch.nudged |= tag == nudge_tag; // events and wake-ups are looked at under the lock
        else if (deliver(edges[index], number, batch.keys[batch.count]))
            ++batch.count;
    }
    lock.lock();
    apply(batch);
    const bool stayed = epoch == epoch_;
    if (stayed)
        --fetchers_;
    else
        straggler_came(epoch);
    return stayed;
}

void EpollWaitSet::apply(const Batch& batch) {
    for (uint32_t index = 0; index < batch.count; ++index) refresh(batch.keys[index]);
    if (batch.nudged) nudged_ = false;
}

// Watched for edges, a signal that comes and goes costs one write and no read of its descriptor. True when an event is
// signalled already: its edge may have gone to another thread, so nobody sleeps.
bool EpollWaitSet::await_events() {
    bool signalled = false;
    for_each_place(members_.events, [&](uint32_t place) {
        use_event(members_[place].event_tag, [&](Waitable& event) {
            if (sleepers_ == 1) event.add_watcher();
            signalled |= event.await_edge();
        });
    });
    return signalled;
}

void EpollWaitSet::last_sleeper_left() {
    for_each_place(members_.events, [&](uint32_t place) {
        use_event(members_[place].event_tag, [](Waitable& event) { event.remove_watcher(); });
    });
    if (!draining_) return;
    eventfd_t count;
    ::eventfd_read(wake_.get(), &count);
    draining_ = false;
    free_barred();
}

void EpollWaitSet::free_barred() {
    barrier_.fetch_add(1);
    futex_wake_all(barrier_);
}

// Nobody sleeps on a descriptor that is readable for others: it would spin. They need microseconds to leave; the
// patience is for sleepers that do not come.
void EpollWaitSet::await_drain(Lock& lock, const Deadline& deadline) {
    constexpr int slices = 10;
    constexpr uint32_t slice_ms = 100; // counted one by one, so that a stop of the whole process passes for one
    const uint32_t seen = barrier_.load();
    for (int slice = 0; slice < slices; ++slice) {
        const Deadline slice_end(slice_ms);
        while (!slice_end.expired()) {
            timespec left;
            lock.unlock();
            futex_wait(barrier_, seen, slice_end.remaining(left));
            lock.lock();
            if (barrier_.load() != seen || deadline.expired()) return;
        }
    }
    lock.unlock(); // the lock of all bindings comes before
    leave_stragglers(seen);
    lock.lock();
}

// Whoever has missed the wake-up, late by much, must still meet it: the descriptor that tells of it is not read, and
// whatever is signalled makes an edge in the fresh epoll. Without one everybody waits on.
void EpollWaitSet::leave_stragglers(uint32_t barrier) {
    const std::lock_guard bindings(bindings_lock());
    const Guard guard(lock_);
    if (!draining_ || barrier_.load() != barrier) return;
    try {
        stragglers_.emplace_front();
    } catch (const std::bad_alloc&) {
        return;
    }
    Stragglers& left = stragglers_.front();
    left.epoch = epoch_;
    left.count = fetchers_;
    left.epoll.reset(epoll().release());
    left.wake.reset(wake_.release());
    if (open_epoll() != 0) {
        epoll().reset(left.epoll.release());
        wake_.reset(left.wake.release());
        stragglers_.pop_front();
        return;
    }
    ++epoch_;
    fetchers_ = sleepers_ = 0;
    nudged_ = false;
    last_sleeper_left();
}

void EpollWaitSet::straggler_came(uint32_t epoch) {
    stragglers_.remove_if([&](Stragglers& left) { return left.epoch == epoch && --left.count == 0; });
}

void EpollWaitSet::nudge_one() {
    if (sleepers_ == 0 || nudged_) return;
    nudged_ = true;
    ::eventfd_write(nudge_.get(), 1);
}

// An edge goes to one thread only. While its event stays signalled it is there for the sleepers too; once it is not,
// the next signal makes an edge again.
void EpollWaitSet::pass_on(uint32_t given) {
    if (sleepers_ == 0) return;
    const uint64_t mine = given == WaitMembers::nowhere ? 0 : WaitMembers::bit(given);
    bool more = (members_.ready_sockets() & ~mine) != 0;
    for_each_place(members_.events, [&](uint32_t place) {
        use_event(members_[place].event_tag, [&](Waitable& event) { more |= event.await_edge(); });
    });
    if (more) nudge_one();
}

void EpollWaitSet::wake() {
    const Guard guard(lock_);
    generation_.fetch_add(1, std::memory_order_relaxed);
    if (draining_) return free_barred();
    if (sleepers_ == 0) return;
    draining_ = true;
    ::eventfd_write(wake_.get(), 1);
}

} // namespace vel::os
