// Where finished requests arrive, without a lock, on their way to a completion port's ready queue.
#pragma once

#include <atomic>
#include <utility>
#include <vel/types.h>

namespace vel::os {

struct RequestChain {
    IoRequest* first; // null for an empty one
    IoRequest* last;
    uint32_t length;
};

/// A chain of requests that any thread adds to and that is only ever taken whole.
///
/// Invariant: the chain runs from the last to the first request; once closed it holds the mark for good.
class PortInbox {
public:
    /// False once closed. A full fence: what this thread reads afterwards, it reads after the request is there.
    bool push(IoRequest& request) {
        IoRequest* last = last_.load(std::memory_order_relaxed);
        do {
            if (last == &closed_mark_) return false;
            request.next = last;
        } while (!last_.compare_exchange_weak(last, &request, std::memory_order_seq_cst, std::memory_order_relaxed));
        return true;
    }

    /// Whether there is nothing to take; ordered behind what this thread wrote before with sequential consistency.
    bool empty() const { return last_.load(std::memory_order_seq_cst) == nullptr; }

    /// The requests since the last call, in the order in which they were pushed. Not for a closed inbox.
    RequestChain take_all() { return in_order(last_.exchange(nullptr, std::memory_order_acquire)); }

    /// Refuses what comes from now on and gives what was not taken.
    RequestChain close() { return in_order(last_.exchange(&closed_mark_, std::memory_order_acquire)); }

private:
    static RequestChain in_order(IoRequest* last) {
        RequestChain chain{nullptr, last, 0};
        for (IoRequest* each = last; each; ++chain.length) {
            IoRequest* before = std::exchange(each->next, chain.first);
            chain.first = std::exchange(each, before);
        }
        return chain;
    }

    static inline constinit IoRequest closed_mark_{};
    std::atomic<IoRequest*> last_{nullptr};
};

} // namespace vel::os
