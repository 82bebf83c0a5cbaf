// References to handlers, for tests.
#pragma once

#include <memory>

namespace vel::testing {

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
