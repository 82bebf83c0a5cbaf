// Bindings of sockets to windows, and the thread that serves them.
#include <vel/os/linux/window_notifier.h>

#include <cerrno>
#include <new>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/message_window.h>
#include <vel/os/linux/service_thread.h>
#include <vel/os/linux/socket_object.h>
#include <vel/os/socket.h>

namespace vel::os {
namespace {

// As a reactor serves them: writing before reading, the end last.
constexpr uint32_t posting_order[] = {notice::accept, notice::connect, notice::write, notice::read, notice::close};

uint64_t key_of(const SocketNotices* socket) { return reinterpret_cast<uint64_t>(socket); }
SocketNotices* socket_of(uint64_t key) { return reinterpret_cast<SocketNotices*>(key); }

int64_t word_of(const Notices& one) {
    const uint32_t error = one.connect_error | one.close_error;
    return int64_t{(error & 0xFFFF) << 16 | one.mask};
}

} // namespace

WindowNotifier& WindowNotifier::instance() {
    static WindowNotifier& notifier = *new WindowNotifier;
    return notifier;
}

uint32_t WindowNotifier::bind(SocketObject& socket, WindowObject& window, uint32_t message, uint32_t notices) {
    const std::lock_guard bindings(bindings_lock());
    if (window.is_gone()) return error::invalid_window; // one that goes from here on ends the binding
    uint32_t code = enter(socket, window, message);
    if (code != error::none) return code;
    const uint64_t key = key_of(&socket.notices);
    code = socket.notices.bind(*this, key, notices);
    if (code == error::none)
        recorded(socket.notices, key); // also what has found the queue of the window before full
    else
        released(key);
    return code;
}

uint32_t WindowNotifier::enter(SocketObject& socket, WindowObject& window, uint32_t message) {
    const std::lock_guard guard(lock_);
    try {
        bindings_[&socket.notices] = {&window, message, reinterpret_cast<uint64_t>(to_handle(socket.descriptor()))};
    } catch (const std::bad_alloc&) {
        return error::not_enough_memory;
    }
    const uint32_t code = running_ ? error::none : start();
    if (code != error::none) bindings_.erase(&socket.notices);
    return code;
}

uint32_t WindowNotifier::start() {
    if (!wake_) {
        Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wake) return system_error(errno);
        int error_number = open();
        if (!error_number) error_number = watch(wake.get(), EPOLLIN, own_tag);
        if (error_number) return system_error(error_number);
        wake_.reset(wake.release());
    }
    std::thread thread;
    const auto run = [this] {
        while (serve()) {
        }
    };
    if (!start_service_thread(thread, "vel-windows", run)) return error::no_system_resources;
    thread.detach(); // it ends by itself, and touches nothing from the moment it is no longer running
    running_ = true;
    return error::none;
}

bool WindowNotifier::serve() {
    constexpr int batch = 64;
    epoll_event edges[batch];
    uint64_t number = 0;
    const int count = fetch(epoll().get(), edges, batch, nullptr, number);
    for (int i = 0; i < count; ++i) {
        uint64_t key = 0;
        eventfd_t wakes;
        if (edges[i].data.u64 & own_tag) {
            ::eventfd_read(wake_.get(), &wakes);
        } else if (deliver(edges[i], number, key)) {
            const std::lock_guard guard(lock_);
            post_recorded(socket_of(key));
        }
    }
    const std::lock_guard guard(lock_);
    running_ = !bindings_.empty();
    return running_;
}

void WindowNotifier::recorded(SocketNotices& socket, uint64_t) {
    const std::lock_guard guard(lock_);
    post_recorded(&socket);
}

void WindowNotifier::released(uint64_t key) {
    const std::lock_guard guard(lock_);
    bindings_.erase(socket_of(key));
    if (bindings_.empty()) ::eventfd_write(wake_.get(), 1);
}

void WindowNotifier::post_recorded(SocketNotices* socket) {
    const auto found = bindings_.find(socket);
    if (found != bindings_.end()) post(*socket, found->second); // not released meanwhile
}

void WindowNotifier::post(SocketNotices& socket, const Binding& binding) {
    for (const uint32_t notice : posting_order) {
        const auto fill = [&](WindowMessage& message) {
            const Notices taken = socket.take(notice); // nothing when it was withdrawn meanwhile
            message = {binding.message, binding.socket, word_of(taken)};
            return taken.mask != 0;
        };
        if (socket.has_recorded(notice) && !binding.window->post_notice(fill)) return;
    }
}

void WindowNotifier::post_waiting(const WindowObject& window) {
    const std::lock_guard guard(lock_);
    for (auto& [socket, binding] : bindings_)
        if (binding.window == &window) post(*socket, binding);
}

void WindowNotifier::unbind(SocketObject& socket) {
    const std::lock_guard bindings(bindings_lock());
    {
        const std::lock_guard guard(lock_);
        if (!bindings_.contains(&socket.notices)) return; // bound to a reactor, perhaps
    }
    socket.notices.unbind();
}

void WindowNotifier::end_window(const WindowObject& window) {
    const std::lock_guard bindings(bindings_lock());
    while (SocketNotices* socket = bound_to(window)) socket->unbind();
}

SocketNotices* WindowNotifier::bound_to(const WindowObject& window) {
    const std::lock_guard guard(lock_);
    for (const auto& [socket, binding] : bindings_)
        if (binding.window == &window) return socket;
    return nullptr;
}

uint32_t bind_window(uint64_t socket, HWND window, uint32_t message, uint32_t notices) {
    const Pinned<SocketObject> object(socket, HandleKind::socket);
    if (!object) return error::not_a_socket;
    notices &= notice::all;
    if (notices == 0) {
        WindowNotifier::instance().unbind(*object);
        return error::none;
    }
    const Pinned<WindowObject> target(to_handle(window), HandleKind::window);
    if (!target) return error::invalid_window;
    const uint32_t code = set_nonblocking(socket, true);
    return code == error::none ? WindowNotifier::instance().bind(*object, *target, message, notices) : code;
}

} // namespace vel::os
