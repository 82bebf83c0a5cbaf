// Small means for raw descriptors inside one call; what outlives a call is a handle.
#pragma once

#include <cerrno>
#include <unistd.h>

namespace vel::os {

/// Repeats a system call that a signal cut short.
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

/// Closes a descriptor at the end of a scope; errno stays.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { reset(-1); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    explicit operator bool() const { return number_ >= 0; }
    int get() const { return number_; }

    void reset(int number) {
        const int reason = errno;
        if (number_ >= 0) ::close(number_);
        number_ = number;
        errno = reason;
    }

    int release() {
        const int number = number_;
        number_ = -1;
        return number;
    }

private:
    int number_;
};

} // namespace vel::os
