// A descriptor kept in hand for the moment in which none is to be had.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace vel::os {

/// Lets one system call at a time have a free descriptor number when the process is at its limit.
class ReserveDescriptor {
public:
    ReserveDescriptor() = default;
    ~ReserveDescriptor() {
        if (held_ >= 0) ::close(held_);
    }
    ReserveDescriptor(const ReserveDescriptor&) = delete;
    ReserveDescriptor& operator=(const ReserveDescriptor&) = delete;

    /// Takes one as a copy of any open descriptor, unless one is held already.
    void fill(int any_open) {
        const std::lock_guard guard(lock_);
        refill(any_open);
    }

    /// Runs the call with the number set free; the call gives its own descriptors back. Gives its result and errno,
    /// or -1 when none was held.
    template <class Call>
    int lend(int any_open, Call call) {
        const std::lock_guard guard(lock_);
        if (held_ < 0) return -1;
        ::close(held_);
        held_ = -1;
        const int result = call();
        const int error_number = errno;
        refill(any_open);
        errno = error_number;
        return result;
    }

private:
    void refill(int any_open) {
        if (held_ < 0) held_ = ::fcntl(any_open, F_DUPFD_CLOEXEC, 3);
    }

    std::mutex lock_;
    int held_ = -1;
};

} // namespace vel::os
