// Wait set over one epoll: sockets edge-triggered, events and wake-ups level-triggered.
#include <vel/os/linux/wait_set.h>

#include <cassert>
#include <cerrno>
#include <new>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/futex.h>
#include <vel/os/linux/socket_object.h>
#include <vel/os/linux/waitable.h>

namespace vel::os {
namespace {

Waitable* pin_tagged(int descriptor, uint32_t generation) {
    Waitable* object = pin_waitable(to_handle(descriptor));
    if (!object || object->generation() == generation) return object;
    HandleTable::unpin(object);
    return nullptr;
}

} // namespace

/// What one fetch has brought.
struct EpollWaitSet::Batch {
    uint32_t count = 0;
    bool nudged = false;
    uint64_t keys[capacity];
};

uint32_t EpollWaitSet::open() {
    if (const int error_number = NoticeSink::open()) return system_error(error_number);
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) return system_error(errno);
    nudge_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!nudge_) return system_error(errno);
    int error_number = watch(wake_.get(), EPOLLIN, wake_tag);
    if (!error_number) error_number = watch(nudge_.get(), EPOLLIN | EPOLLET, nudge_tag);
    return error_number ? system_error(error_number) : error::none;
}

EpollWaitSet::~EpollWaitSet() {
    const std::lock_guard bindings(bindings_lock());
    for (uint32_t place = 0; place < members_.count(); ++place)
        if (members_[place].socket) members_[place].socket->unbind();
}

uint32_t EpollWaitSet::bind(uint64_t key, uint64_t socket, uint32_t notices) {
    assert(key != 0);
    const Pinned<SocketObject> object(socket, HandleKind::socket);
    if (!object) return error::not_a_socket;
    const std::lock_guard bindings(bindings_lock());
    bool added = false;
    SocketNotices* former = nullptr;
    {
        const Guard guard(lock_);
        uint32_t place = members_.find(key);
        added = place == WaitMembers::nowhere;
        if (added) place = members_.append(key);
        former = members_[place].socket;
        if (!former) members_[place].socket = &object->notices;
    }
    if (former && former != &object->notices) {
        former->unbind();
        const Guard guard(lock_);
        members_[members_.find(key)].socket = &object->notices;
    }
    const uint32_t code = object->notices.bind(*this, key, notices);
    if (!code) return code;
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    members_[place].socket = nullptr;
    if (added) members_.erase(place);
    return code;
}

uint32_t EpollWaitSet::add_event(uint64_t key, void* event) {
    assert(key != 0);
    Waitable* object = pin_waitable(event);
    if (!object) return error::invalid_handle;
    const uint64_t tag = own_tag | tag_of(*object);
    const Guard guard(lock_);
    const int error_number = watch(object->descriptor(), EPOLLIN, tag);
    if (!error_number) {
        const uint32_t place = members_.append(key);
        members_[place].event_tag = tag;
        members_.events |= WaitMembers::bit(place);
        if (sleepers_ > 0) object->add_watcher();
    }
    HandleTable::unpin(object);
    return error_number ? system_error(error_number) : error::none;
}

void EpollWaitSet::remove(uint64_t key) {
    const std::lock_guard bindings(bindings_lock());
    if (SocketNotices* socket = socket_of(key)) socket->unbind();
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return;
    const uint64_t tag = members_[place].event_tag;
    if (Waitable* event = tag ? pin_event(tag) : nullptr) {
        forget(event->descriptor());
        if (sleepers_ > 0) event->remove_watcher();
        HandleTable::unpin(event);
    }
    members_.erase(place);
}

SocketNotices* EpollWaitSet::socket_of(uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    return place == WaitMembers::nowhere ? nullptr : members_[place].socket;
}

Waitable* EpollWaitSet::pin_event(uint64_t tag) { return pin_tagged(descriptor_of(tag), generation_of(tag)); }

uint32_t EpollWaitSet::wait(uint64_t after, uint32_t generation, uint32_t timeout_ms, uint64_t& key) {
    const Deadline deadline(timeout_ms);
    key = 0;
    uint64_t event = 0;
    Lock lock(lock_);
    const uint32_t code = find_signalled(lock, after, generation, deadline, key, event);
    lock.unlock();
    if (event) finish_event(event);
    return code;
}

uint32_t EpollWaitSet::find_signalled(Lock& lock, uint64_t after, uint32_t generation, const Deadline& deadline,
                                      uint64_t& key, uint64_t& event) {
    bool looked = false;
    while (generation == generation_.load(std::memory_order_relaxed)) {
        const uint32_t place = first_known(after);
        if (place != WaitMembers::nowhere && (looked || after != 0 || !may_be_signalled_up_to(place))) {
            const WaitMember& member = members_[place];
            if (member.event_tag && !take_event(member.event_tag)) continue;
            key = member.key;
            event = member.event_tag;
            pass_on(place);
            return error::none;
        }
        const bool last_look = deadline.expired();
        if (last_look && (looked || !members_.above(after))) {
            pass_on(WaitMembers::nowhere);
            return error::wait_timeout;
        }
        if (draining_ && !last_look && place == WaitMembers::nowhere) {
            await_drain(lock, deadline);
            continue;
        }
        if (last_look || place != WaitMembers::nowhere)
            look(lock);
        else
            sleep(lock, deadline);
        looked = true;
    }
    pass_on(WaitMembers::nowhere);
    return error::none;
}

uint32_t EpollWaitSet::first_known(uint64_t after) {
    uint64_t candidates = (members_.ready_sockets() | members_.events) & members_.above(after);
    for (; candidates; candidates &= candidates - 1) {
        const auto place = static_cast<uint32_t>(__builtin_ctzll(candidates));
        if (!members_[place].event_tag) return place;
        Waitable* event = pin_event(members_[place].event_tag);
        if (!event) continue;
        const bool signalled = event->is_signalled();
        HandleTable::unpin(event);
        if (signalled) return place;
    }
    return WaitMembers::nowhere;
}

// An edge that nobody has fetched yet may tell of a socket with a smaller key, or tell more of this one.
bool EpollWaitSet::may_be_signalled_up_to(uint32_t place) const {
    return ((WaitMembers::bit(place) * 2 - 1) & ~(members_.events | members_.held)) != 0;
}

// An auto-reset event is taken by the wait that gives it. False when another thread was first.
bool EpollWaitSet::take_event(uint64_t tag) {
    Waitable* event = pin_event(tag);
    if (!event) return false;
    const bool taken = event->take();
    HandleTable::unpin(event);
    return taken;
}

void EpollWaitSet::finish_event(uint64_t tag) {
    Waitable* event = pin_event(tag);
    if (!event) return;
    event->after_wait();
    HandleTable::unpin(event);
}

void EpollWaitSet::look(Lock& lock) {
    constexpr timespec at_once{};
    Batch batch;
    lock.unlock();
    fetch_batch(&at_once, batch);
    lock.lock();
    apply(batch);
}

void EpollWaitSet::sleep(Lock& lock, const Deadline& deadline) {
    const uint32_t epoch = epoch_;
    ++sleepers_;
    prepare_events();
    Batch batch;
    timespec left;
    lock.unlock();
    fetch_batch(deadline.remaining(left), batch);
    lock.lock();
    apply(batch);
    if (epoch == epoch_ && --sleepers_ == 0) last_sleeper_left();
}

void EpollWaitSet::fetch_batch(const timespec* timeout, Batch& batch) {
    constexpr int room = capacity + 2;
    epoll_event edges[room];
    uint64_t number = 0;
    const int count = fetch(edges, room, timeout, number);
    for (int index = 0; index < count; ++index) {
        const uint64_t tag = edges[index].data.u64;
        if (tag == nudge_tag)
            batch.nudged = true;
        else if (tag == wake_tag)
            continue;
        else if (tag & own_tag)
            settle_event(tag);
        else if (deliver(edges[index], number, batch.keys[batch.count]))
            ++batch.count;
    }
}

void EpollWaitSet::apply(const Batch& batch) {
    for (uint32_t index = 0; index < batch.count; ++index) mark(batch.keys[index]);
    if (batch.nudged) nudged_ = false;
}

// What was recorded may have been taken or withdrawn since.
uint32_t EpollWaitSet::mark(uint64_t key) {
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return place;
    const SocketNotices* socket = members_[place].socket;
    if (socket && socket->has_recorded())
        members_.signalled |= WaitMembers::bit(place);
    else
        members_.signalled &= ~WaitMembers::bit(place);
    return place;
}

void EpollWaitSet::settle_event(uint64_t tag) {
    Waitable* event = pin_event(tag);
    if (!event) return drop_dead(tag);
    event->settle();
    HandleTable::unpin(event);
}

// A closed event whose descriptor somebody else keeps open would end every wait at once.
void EpollWaitSet::drop_dead(uint64_t tag) {
    const Guard guard(lock_);
    bool reused = false;
    for_each_place(members_.events, [&](uint32_t place) {
        const uint64_t other = members_[place].event_tag;
        reused |= other != tag && descriptor_of(other) == descriptor_of(tag);
    });
    if (!reused) forget(descriptor_of(tag));
}

// A signal that is gone leaves its descriptor readable; one read here saves a round of the wait.
void EpollWaitSet::prepare_events() {
    for_each_place(members_.events, [&](uint32_t place) {
        Waitable* event = pin_event(members_[place].event_tag);
        if (!event) return;
        if (event->stale()) event->settle();
        if (sleepers_ == 1) event->add_watcher();
        HandleTable::unpin(event);
    });
}

void EpollWaitSet::last_sleeper_left() {
    for_each_place(members_.events, [&](uint32_t place) {
        Waitable* event = pin_event(members_[place].event_tag);
        if (!event) return;
        event->remove_watcher();
        HandleTable::unpin(event);
    });
    if (!draining_) return;
    eventfd_t count;
    ::eventfd_read(wake_.get(), &count);
    draining_ = false;
    drains_.fetch_add(1);
    futex_wake_all(drains_);
}

// Nobody sleeps on a descriptor that is readable for others: it would spin. They need microseconds to leave; the
// patience is for sleepers that never come back, since somebody has ended or suspended their threads.
void EpollWaitSet::await_drain(Lock& lock, const Deadline& deadline) {
    constexpr int slices = 20;
    constexpr uint32_t slice_ms = 100; // counted one by one, so that a stop of the whole process passes for one
    const uint32_t seen = drains_.load();
    for (int slice = 0; slice < slices; ++slice) {
        const Deadline slice_end(slice_ms);
        while (!slice_end.expired()) {
            timespec left;
            lock.unlock();
            futex_wait(drains_, seen, slice_end.remaining(left));
            lock.lock();
            if (drains_.load() != seen || deadline.expired()) return;
        }
    }
    ++epoch_;
    sleepers_ = 0;
    last_sleeper_left();
}

void EpollWaitSet::nudge_one() {
    if (sleepers_ == 0 || nudged_) return;
    nudged_ = true;
    ::eventfd_write(nudge_.get(), 1);
}

void EpollWaitSet::pass_on(uint32_t given) {
    const uint64_t mine = given == WaitMembers::nowhere ? 0 : WaitMembers::bit(given);
    if (members_.ready_sockets() & ~mine) nudge_one();
}

bool EpollWaitSet::take(uint64_t key, Notices& notices) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere || (members_.held & WaitMembers::bit(place)) || !members_[place].socket)
        return false;
    notices = members_[place].socket->take();
    members_.signalled &= ~WaitMembers::bit(place);
    if (notices.mask == 0) return false;
    members_.held |= WaitMembers::bit(place);
    return true;
}

void EpollWaitSet::put_back(uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return;
    members_.held &= ~WaitMembers::bit(place);
    if (members_.signalled & WaitMembers::bit(place)) nudge_one();
}

void EpollWaitSet::wake() {
    const Guard guard(lock_);
    generation_.fetch_add(1, std::memory_order_relaxed);
    if (sleepers_ == 0 || draining_) return;
    draining_ = true;
    ::eventfd_write(wake_.get(), 1);
}

void EpollWaitSet::recorded(SocketNotices&, uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = mark(key);
    if (place != WaitMembers::nowhere && (members_.ready_sockets() & WaitMembers::bit(place))) nudge_one();
}

void EpollWaitSet::retracted(uint64_t key) {
    const Guard guard(lock_);
    mark(key);
}

void EpollWaitSet::released(uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return;
    members_[place].socket = nullptr;
    members_.signalled &= ~WaitMembers::bit(place);
}

uint32_t create_wait_set(std::unique_ptr<WaitSet>& set) {
    std::unique_ptr<EpollWaitSet> fresh(new (std::nothrow) EpollWaitSet);
    if (!fresh) return error::not_enough_memory;
    if (const uint32_t code = fresh->open()) return code;
    set = std::move(fresh);
    return error::none;
}

} // namespace vel::os
