// Fetching edges and handing them to the sockets they belong to.
#include <vel/os/linux/notice_sink.h>

#include <cerrno>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>

namespace vel::os {
namespace {

constexpr uint32_t socket_events = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLRDHUP | EPOLLET;

} // namespace

std::mutex& NoticeSink::bindings_lock() {
    static constinit std::mutex lock;
    return lock;
}

int NoticeSink::open() {
    epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    return epoll_ ? 0 : errno;
}

int NoticeSink::watch(int descriptor, uint32_t events, uint64_t tag) {
    epoll_event event{events, {.u64 = tag}};
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) < 0 ? errno : 0;
}

void NoticeSink::forget(int descriptor) { ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr); }

uint32_t NoticeSink::enter(const HandleObject& socket) {
    const int error_number = watch(socket.descriptor(), socket_events, tag_of(socket));
    return error_number ? socket_error(error_number) : error::none;
}

void NoticeSink::leave(const HandleObject& socket, uint64_t key) {
    forget(socket.descriptor());
    released(key);
}

int NoticeSink::fetch(int epoll, epoll_event* edges, int room, const timespec* timeout, uint64_t& fetch) {
    fetch = fetches_.fetch_add(1) + 1;
    return ::epoll_pwait2(epoll, edges, room, timeout, nullptr);
}

bool NoticeSink::deliver(const epoll_event& edge, uint64_t fetch, uint64_t& key) {
    const uint64_t tag = edge.data.u64;
    HandleObject* object = HandleTable::pin(descriptor_of(tag), HandleKind::socket);
    if (!object) return false;
    const bool recorded = object->generation() == generation_of(tag) &&
                          static_cast<SocketObject*>(object)->notices.on_edge(*this, edge.events, fetch, key);
    HandleTable::unpin(object);
    return recorded;
}

uint64_t NoticeSink::tag_of(const HandleObject& object) {
    return uint64_t{object.generation()} << 32 | static_cast<uint32_t>(object.descriptor());
}

} // namespace vel::os
