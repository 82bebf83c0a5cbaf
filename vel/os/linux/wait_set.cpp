// The members of a wait set: adding and removing them, and what is recorded of their sockets.
#include <vel/os/linux/wait_set.h>

#include <cassert>
#include <cerrno>
#include <new>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>
#include <vel/os/linux/waitable.h>

namespace vel::os {

uint32_t EpollWaitSet::open() {
    nudge_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const int error_number = nudge_ ? open_epoll() : errno;
    return error_number ? system_error(error_number) : error::none;
}

// With all members. Gives an errno.
int EpollWaitSet::open_epoll() {
    if (const int error_number = NoticeSink::open()) return error_number;
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) return errno;
    int error_number = watch(wake_.get(), EPOLLIN, wake_tag);
    if (!error_number) error_number = watch(nudge_.get(), EPOLLIN | EPOLLET, nudge_tag);
    for (uint32_t place = 0; place < members_.count() && !error_number; ++place) {
        const WaitMember& member = members_[place];
        if (member.socket) error_number = static_cast<int>(enter(member.socket->owner()));
        if (const uint64_t tag = member.event_tag)
            use_event(tag, [&](Waitable& event) { error_number = watch(event.descriptor(), EPOLLIN | EPOLLET, tag); });
    }
    return error_number;
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
    SocketNotices* former = socket_of(key);
    if (former && former != &object->notices) former->unbind();
    bool added = false;
    {
        const Guard guard(lock_);
        uint32_t place = members_.find(key);
        added = place == WaitMembers::nowhere;
        if (added) place = members_.append(key);
        members_[place].socket = &object->notices;
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
    const int error_number = watch(object->descriptor(), EPOLLIN | EPOLLET, tag);
    if (!error_number) {
        const uint32_t place = members_.append(key);
        members_[place].event_tag = tag;
        members_[place].takes_signal = !object->is_left_alone();
        members_.events |= WaitMembers::bit(place);
        if (sleepers_ > 0) object->add_watcher();
    }
    HandleTable::unpin(object);
    return error_number ? system_error(error_number) : error::none;
}

bool EpollWaitSet::has(uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return false;
    const WaitMember& member = members_[place];
    return member.event_tag ? use_event(member.event_tag, [](Waitable&) {}) : member.socket != nullptr;
}

void EpollWaitSet::remove(uint64_t key) {
    const std::lock_guard bindings(bindings_lock());
    if (SocketNotices* socket = socket_of(key)) socket->unbind();
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return;
    if (const uint64_t tag = members_[place].event_tag)
        use_event(tag, [&](Waitable& event) {
            forget(event.descriptor());
            if (sleepers_ > 0) event.remove_watcher();
        });
    members_.erase(place);
}

SocketNotices* EpollWaitSet::socket_of(uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = members_.find(key);
    return place == WaitMembers::nowhere ? nullptr : members_[place].socket;
}

// What was recorded may have been taken or withdrawn since.
uint32_t EpollWaitSet::refresh(uint64_t key) {
    const uint32_t place = members_.find(key);
    if (place == WaitMembers::nowhere) return place;
    const SocketNotices* socket = members_[place].socket;
    if (socket && socket->has_recorded())
        members_.signalled |= WaitMembers::bit(place);
    else
        members_.signalled &= ~WaitMembers::bit(place);
    return place;
}

void EpollWaitSet::recorded(SocketNotices&, uint64_t key) {
    const Guard guard(lock_);
    const uint32_t place = refresh(key);
    if (place != WaitMembers::nowhere && (members_.ready_sockets() & WaitMembers::bit(place))) nudge_one();
}

void EpollWaitSet::retracted(uint64_t key) {
    const Guard guard(lock_);
    refresh(key);
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
