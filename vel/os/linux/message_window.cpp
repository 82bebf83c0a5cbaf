// Message windows: the queue and its descriptor, and the list that ends a thread's windows with it.
#include <vel/os/linux/message_window.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <utility>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/window_notifier.h>

namespace vel::os {
namespace {

/// The windows of one thread; what is left of them ends with it.
class ThreadWindows {
public:
    ThreadWindows() = default;
    ~ThreadWindows();
    ThreadWindows(const ThreadWindows&) = delete;
    ThreadWindows& operator=(const ThreadWindows&) = delete;

    uint32_t create(WindowProcedure procedure, void* context, HWND& window);
    void destroy(HWND window);

private:
    std::vector<HWND> windows_;
};

thread_local ThreadWindows windows_of_caller;

ThreadWindows::~ThreadWindows() {
    for (HWND window : windows_) {
        // One that was closed as a plain handle may have left its number to another thread's window.
        const Pinned<WindowObject> object(to_handle(window), HandleKind::window);
        if (object && object->is_callers()) HandleTable::close(to_handle(window));
    }
}

uint32_t ThreadWindows::create(WindowProcedure procedure, void* context, HWND& window) {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) return system_error(errno);
    std::unique_ptr<WindowObject> object;
    try {
        windows_.reserve(windows_.size() + 1);
        object = std::make_unique<WindowObject>(procedure, context);
    } catch (const std::bad_alloc&) {
        ::close(descriptor);
        return error::not_enough_memory;
    }
    void* handle = HandleTable::insert(descriptor, HandleKind::window, std::move(object));
    if (!handle) return error::too_many_open_files;
    window = static_cast<HWND>(handle);
    windows_.push_back(window);
    return error::none;
}

void ThreadWindows::destroy(HWND window) {
    windows_.erase(std::remove(windows_.begin(), windows_.end(), window), windows_.end());
    HandleTable::close(to_handle(window));
}

/// The window behind a handle, pinned for one call of its own thread.
class OwnWindow {
public:
    explicit OwnWindow(HWND window) : object_(to_handle(window), HandleKind::window) {}

    /// 1400 for no window, 5 for that of another thread.
    uint32_t check() const {
        if (!object_) return error::invalid_window;
        return object_->is_callers() ? error::none : error::access_denied;
    }
    WindowObject* operator->() const { return &*object_; }

private:
    Pinned<WindowObject> object_;
};

uint32_t wait_for_message(int descriptor, const Deadline& deadline) {
    pollfd wanted{descriptor, POLLIN, 0};
    timespec left;
    const int ready = ::ppoll(&wanted, 1, deadline.remaining(left), nullptr);
    if (ready == 0) return error::wait_timeout;
    return ready > 0 || errno == EINTR ? error::none : system_error(errno);
}

} // namespace

WindowObject::WindowObject(WindowProcedure window_procedure, void* window_context)
    : procedure(window_procedure),
      context(window_context),
      owner_(&windows_of_caller) {}

bool WindowObject::is_callers() const { return owner_ == &windows_of_caller; }

bool WindowObject::is_gone() {
    const std::lock_guard guard(lock_);
    return gone_;
}

void WindowObject::detach() {
    {
        const std::lock_guard guard(lock_);
        gone_ = true;
        if (messages_.empty()) ::eventfd_write(descriptor(), 1);
        messages_.clear();
    }
    WindowNotifier::instance().end_window(*this);
}

uint32_t WindowObject::post(const WindowMessage& message) {
    const std::lock_guard guard(lock_);
    return append(message);
}

uint32_t WindowObject::append(const WindowMessage& message) {
    if (gone_) return error::invalid_window;
    if (messages_.size() == window_queue_capacity) return error::not_enough_quota;
    try {
        messages_.push_back(message);
    } catch (const std::bad_alloc&) {
        return error::not_enough_memory;
    }
    if (messages_.size() == 1) ::eventfd_write(descriptor(), 1);
    return error::none;
}

uint32_t WindowObject::peek(WindowMessage& message) {
    const std::lock_guard guard(lock_);
    if (gone_) return error::invalid_window;
    if (messages_.empty()) return error::wait_timeout;
    message = messages_.front();
    return error::none;
}

uint32_t WindowObject::take(WindowMessage& message) {
    std::unique_lock guard(lock_);
    const uint32_t code = remove_oldest(message);
    const bool notices_wait = code == error::none && std::exchange(notices_wait_, false);
    guard.unlock(); // the notifier's lock comes before
    if (notices_wait) WindowNotifier::instance().post_waiting(*this);
    return code;
}

uint32_t WindowObject::remove_oldest(WindowMessage& message) {
    if (gone_) return error::invalid_window;
    if (messages_.empty()) return error::wait_timeout;
    message = messages_.front();
    messages_.pop_front();
    clear_descriptor_if_empty();
    return error::none;
}

void WindowObject::drop_newest() {
    messages_.pop_back();
    clear_descriptor_if_empty();
}

void WindowObject::clear_descriptor_if_empty() {
    eventfd_t count;
    if (messages_.empty()) ::eventfd_read(descriptor(), &count);
}

uint32_t create_window(WindowProcedure procedure, void* context, HWND& window) {
    return windows_of_caller.create(procedure, context, window);
}

uint32_t destroy_window(HWND window) {
    const OwnWindow own(window);
    const uint32_t code = own.check();
    if (code == error::none) windows_of_caller.destroy(window);
    return code;
}

uint32_t post_message(HWND window, uint32_t message, uint64_t wparam, int64_t lparam) {
    const Pinned<WindowObject> object(to_handle(window), HandleKind::window);
    return object ? object->post({message, wparam, lparam}) : error::invalid_window;
}

uint32_t get_message(HWND window, WindowMessage& message, uint32_t timeout_ms) {
    const OwnWindow own(window);
    uint32_t code = own.check();
    if (code != error::none) return code;
    const Deadline deadline(timeout_ms);
    while ((code = own->take(message)) == error::wait_timeout && timeout_ms != 0) {
        code = wait_for_message(own->descriptor(), deadline);
        if (code != error::none) break;
    }
    return code;
}

uint32_t peek_message(HWND window, WindowMessage& message) {
    const OwnWindow own(window);
    const uint32_t code = own.check();
    return code == error::none ? own->peek(message) : code;
}

uint32_t dispatch_message(HWND window, const WindowMessage& message, int64_t& result) {
    const OwnWindow own(window);
    const uint32_t code = own.check();
    if (code != error::none) return code;
    result = own->procedure ? own->procedure(window, message.message, message.wparam, message.lparam, own->context) : 0;
    return error::none;
}

uint32_t window_descriptor(HWND window, int& descriptor) {
    const Pinned<WindowObject> object(to_handle(window), HandleKind::window);
    if (!object) return error::invalid_window;
    descriptor = object->descriptor();
    return error::none;
}

} // namespace vel::os
