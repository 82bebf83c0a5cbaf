// Waiting for readiness and handing it to the bindings it belongs to.
#include <vel/os/linux/port_events.h>

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/port_binding.h>

namespace vel::os {
namespace {

constexpr int batch_size = 256;
constexpr uint32_t socket_events = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLRDHUP | EPOLLET;

// The latch has no binding.
void deliver(const epoll_event& event) {
    if (event.data.ptr) static_cast<PortBinding*>(event.data.ptr)->on_events(event.events);
}

} // namespace

PortEvents::~PortEvents() {
    if (latch_ >= 0) ::close(latch_);
}

int PortEvents::open() {
    latch_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (latch_ < 0) return errno;
    // Edge-triggered: each write is reported once and nobody needs to read it.
    epoll_event event{EPOLLIN | EPOLLET, {.ptr = nullptr}};
    return ::epoll_ctl(port_.descriptor(), EPOLL_CTL_ADD, latch_, &event) < 0 ? errno : 0;
}

int PortEvents::add(int descriptor, PortBinding& binding) {
    epoll_event event{socket_events, {.ptr = &binding}};
    return ::epoll_ctl(port_.descriptor(), EPOLL_CTL_ADD, descriptor, &event) < 0 ? errno : 0;
}

void PortEvents::repeat(int descriptor, PortBinding& binding) {
    epoll_event event{socket_events, {.ptr = &binding}};
    ::epoll_ctl(port_.descriptor(), EPOLL_CTL_MOD, descriptor, &event);
}

void PortEvents::poll(const timespec* timeout, std::atomic<bool>& sleeping) {
    epoll_event batch[batch_size];
    const int count = ::epoll_pwait2(port_.descriptor(), batch, batch_size, timeout, nullptr);
    sleeping.store(false, std::memory_order_relaxed);
    for (int index = 0; index < count; ++index) deliver(batch[index]);
}

void PortEvents::interrupt() { ::eventfd_write(latch_, 1); }

} // namespace vel::os
