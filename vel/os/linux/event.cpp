// Events, and waiting for one or several handles.
#include <vel/os/event.h>

#include <cerrno>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/waitable.h>

namespace vel::os {
namespace {

constexpr uint32_t most_handles = 64;

/// The pinned objects of one wait.
class HandleWait {
public:
    ~HandleWait() {
        while (count_ > 0) {
            --count_;
            if (watched_) object(count_).remove_watcher();
            pins_[count_].drop();
        }
    }
    HandleWait() = default;
    HandleWait(const HandleWait&) = delete;
    HandleWait& operator=(const HandleWait&) = delete;

    bool add(void* handle) {
        Waitable* object = pin_waitable(handle);
        if (!object) return false;
        pins_[count_++].hold(object);
        return true;
    }

    uint32_t wait(uint32_t timeout_ms, uint32_t& index) {
        if (take_lowest(index)) return error::none;
        if (timeout_ms == 0) return error::wait_timeout;
        const Deadline deadline(timeout_ms);
        watch();
        while (true) {
            const uint32_t slept = sleep(deadline);
            if (take_lowest(index)) return error::none;
            if (slept != error::none) return slept;
            for (uint32_t i = 0; i < count_; ++i)
                if (descriptors_[i].revents != 0) object(i).settle();
        }
    }

private:
    Waitable& object(uint32_t i) { return *static_cast<Waitable*>(pins_[i].object()); }

    bool take_lowest(uint32_t& index) {
        for (uint32_t i = 0; i < count_; ++i) {
            if (!object(i).take()) continue;
            object(i).after_wait();
            index = i;
            return true;
        }
        return false;
    }

    void watch() {
        watched_ = true;
        for (uint32_t i = 0; i < count_; ++i) {
            object(i).add_watcher();
            descriptors_[i] = {object(i).descriptor(), POLLIN, 0};
        }
    }

    uint32_t sleep(const Deadline& deadline) {
        timespec left;
        const int ready = ::ppoll(descriptors_, count_, deadline.remaining(left), nullptr);
        if (ready > 0) return error::none;
        if (ready == 0) return error::wait_timeout;
        for (uint32_t i = 0; i < count_; ++i) descriptors_[i].revents = 0;
        return errno == EINTR ? error::none : system_error(errno);
    }

    PinLink pins_[most_handles];
    pollfd descriptors_[most_handles];
    uint32_t count_ = 0;
    bool watched_ = false;
};

} // namespace

uint32_t create_event(bool manual_reset, bool signalled, void*& event) {
    std::unique_ptr<Waitable> object(new (std::nothrow) Waitable(manual_reset, signalled));
    if (!object) return error::not_enough_memory;
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) return system_error(errno);
    event = HandleTable::insert(descriptor, HandleKind::event, std::move(object));
    return event ? error::none : error::too_many_open_files;
}

uint32_t set_event(void* event) {
    Pinned<Waitable> object(event, HandleKind::event);
    if (!object) return error::invalid_handle;
    object->set();
    return error::none;
}

uint32_t mark_event(void* event, uint32_t& sleepers) {
    Pinned<Waitable> object(event, HandleKind::event);
    if (!object) return error::invalid_handle;
    sleepers = object->mark();
    return error::none;
}

uint32_t wake_event(void* event, uint32_t sleepers) {
    Pinned<Waitable> object(event, HandleKind::event);
    if (!object) return error::invalid_handle;
    object->wake(sleepers);
    return error::none;
}

uint32_t reset_event(void* event) {
    Pinned<Waitable> object(event, HandleKind::event);
    if (!object) return error::invalid_handle;
    object->reset();
    return error::none;
}

uint32_t wait_handle(void* handle, uint32_t timeout_ms) {
    Waitable* object = pin_waitable(handle);
    if (!object) return error::invalid_handle;
    PinLink pin;
    pin.hold(object);
    const bool signalled = object->wait(timeout_ms);
    if (signalled) object->after_wait();
    pin.drop();
    return signalled ? error::none : error::wait_timeout;
}

uint32_t wait_any(void* const* handles, uint32_t count, uint32_t timeout_ms, uint32_t& index) {
    if (!handles || count == 0 || count > most_handles) return error::invalid_parameter;
    HandleWait set;
    for (uint32_t i = 0; i < count; ++i)
        if (!set.add(handles[i])) return error::invalid_handle;
    return set.wait(timeout_ms, index);
}

} // namespace vel::os
