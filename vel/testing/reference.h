// Handlers of reactor and proactor in tests, and references to them.
#pragma once

#include <memory>
#include <vel/testing/balanced_test.h>

namespace vel::testing {

inline constexpr uint32_t loopback = 0x7F000001;

/// A handler that has to be gone at the end of its test.
template <class Base>
class Tracked : public Base, public Counted {
public:
    int references() { return this->addref(), this->release(); }
};

struct Release {
    template <class Handler>
    void operator()(Handler* handler) const {
        handler->release();
    }
};

/// A reference to a handler, released at the end of the scope.
template <class Handler>
using Ref = std::unique_ptr<Handler, Release>;

} // namespace vel::testing
