// Byte-range locks: the handle's own list first, then the kernel's lock of the open file.
#include <vel/os/linux/byte_lock.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/file_object.h>
#include <vel/os/linux/futex.h>
#include <vel/os/thread.h>

namespace vel::os {
namespace {

constexpr uint64_t largest_offset = INT64_MAX;

// The kernel counts in signed offsets and reads a length of 0 as "to the end of time".
struct flock kernel_range(short type, uint64_t offset, uint64_t length) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(offset);
    range.l_len = length > largest_offset - offset ? 0 : static_cast<off_t>(length);
    return range;
}

bool valid_range(uint64_t offset, uint64_t length) { return offset <= largest_offset && length <= UINT64_MAX - offset; }

bool no_writing(int code) { return code == EACCES || code == EPERM || code == EROFS || code == ETXTBSY; }

int open_companion(int descriptor) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
    return ::open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

} // namespace

ByteLocks::~ByteLocks() {
    if (companion_ >= 0) ::close(companion_);
}

uint32_t ByteLocks::lock(int descriptor, bool writable, uint64_t offset, uint64_t length, bool wait) {
    if (!valid_range(offset, length)) return error::invalid_parameter;
    if (length == 0) return error::none;
    if (const uint32_t code = find_lock_descriptor(descriptor, writable)) return code;
    if (const uint32_t code = reserve(offset, length, wait)) return code;
    return settle(descriptor, offset, length, lock_in_kernel(descriptor, offset, length, wait));
}

uint32_t ByteLocks::unlock(int descriptor, uint64_t offset, uint64_t length) {
    if (!valid_range(offset, length)) return error::invalid_parameter;
    if (length == 0) return error::none;
    const std::lock_guard hold(mutex_);
    const auto range = find(offset, length);
    if (range == ranges_.end() || !range->granted()) return error::not_locked;
    unlock_in_kernel(descriptor, offset, length);
    ranges_.erase(range);
    announce();
    return error::none;
}

void ByteLocks::close(int descriptor) {
    const std::lock_guard hold(mutex_);
    closed_ = true;
    for (const Range& range : ranges_)
        if (range.granted()) unlock_in_kernel(descriptor, range.offset, range.length);
    announce();
}

// The kernel may have granted it just before the thread ended.
void ByteLocks::abandon(int descriptor, uint32_t thread_id) {
    const std::lock_guard hold(mutex_);
    const auto range = std::find_if(ranges_.begin(), ranges_.end(),
                                    [thread_id](const Range& each) { return each.waiter == thread_id; });
    if (range == ranges_.end()) return;
    unlock_in_kernel(descriptor, range->offset, range->length);
    ranges_.erase(range);
    announce();
}

// Claims the range within this handle before the kernel is asked, which knows no difference between its threads.
uint32_t ByteLocks::reserve(uint64_t offset, uint64_t length, bool wait) {
    std::unique_lock hold(mutex_);
    while (!closed_ && overlaps(offset, length)) {
        if (!wait) return error::lock_violation;
        const uint32_t seen = changes_.load(std::memory_order_relaxed);
        ++waiters_;
        hold.unlock();
        futex_wait(changes_, seen);
        hold.lock();
        --waiters_;
    }
    if (closed_) return error::invalid_handle;
    try {
        ranges_.push_back({offset, length, current_thread_id()});
    } catch (const std::bad_alloc&) {
        return error::not_enough_memory;
    }
    return error::none;
}

uint32_t ByteLocks::settle(int descriptor, uint64_t offset, uint64_t length, uint32_t code) {
    const std::lock_guard hold(mutex_);
    const auto range = find(offset, length);
    if (code == error::none && closed_) {
        unlock_in_kernel(descriptor, offset, length);
        code = error::invalid_handle;
    }
    if (code == error::none) {
        range->waiter = 0;
    } else {
        ranges_.erase(range);
        announce();
    }
    return code;
}

uint32_t ByteLocks::find_lock_descriptor(int descriptor, bool writable) {
    if (writable) return error::none;
    const std::lock_guard hold(mutex_);
    if (chosen_) return error::none;
    companion_ = open_companion(descriptor);
    if (companion_ < 0) {
        if (!no_writing(errno)) return system_error(errno);
        shared_ = true;
    }
    chosen_ = true;
    return error::none;
}

uint32_t ByteLocks::lock_in_kernel(int descriptor, uint64_t offset, uint64_t length, bool wait) const {
    struct flock range = kernel_range(shared_ ? F_RDLCK : F_WRLCK, offset, length);
    const int target = companion_ >= 0 ? companion_ : descriptor;
    while (::fcntl(target, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range) != 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EACCES) return error::lock_violation;
        return system_error(errno);
    }
    return error::none;
}

void ByteLocks::unlock_in_kernel(int descriptor, uint64_t offset, uint64_t length) const {
    struct flock range = kernel_range(F_UNLCK, offset, length);
    ::fcntl(companion_ >= 0 ? companion_ : descriptor, F_OFD_SETLK, &range);
}

// Called with the lock.
void ByteLocks::announce() {
    changes_.fetch_add(1, std::memory_order_relaxed);
    if (waiters_ > 0) futex_wake_all(changes_);
}

bool ByteLocks::overlaps(uint64_t offset, uint64_t length) const {
    return std::any_of(ranges_.begin(), ranges_.end(), [&](const Range& range) {
        return offset < range.offset + range.length && range.offset < offset + length;
    });
}

std::vector<ByteLocks::Range>::iterator ByteLocks::find(uint64_t offset, uint64_t length) {
    return std::find_if(ranges_.begin(), ranges_.end(),
                        [&](const Range& range) { return range.offset == offset && range.length == length; });
}

uint32_t lock_range(void* file, uint64_t offset, uint64_t length, bool wait) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    return object->locks().lock(object->descriptor(), object->writable(), offset, length, wait);
}

uint32_t unlock_range(void* file, uint64_t offset, uint64_t length) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    return object->locks().unlock(object->descriptor(), offset, length);
}

} // namespace vel::os
