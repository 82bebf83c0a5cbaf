// Memory of records that one thread makes and another one deletes (internal).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vel {

/// Keeps the memory of deleted records of one size for the next ones. A heap is slow where every block is freed by
/// another thread than the one that asked for it.
///
/// Threads:   every call from any thread; none waits for another.
/// Ownership: what is in the pool stays until the process ends.
/// Limits:    about 65,536 records when they are given back faster than taken, twice as many at worst. The address
///            sanitizer sees every record: the pool keeps none there.
class RecordPool {
public:
    /// @param size  bytes of a record
    explicit constexpr RecordPool(size_t size) : size_(size) {}
    RecordPool(const RecordPool&) = delete;
    RecordPool& operator=(const RecordPool&) = delete;

    /// Null when there is none at hand, or another thread is taking one at this moment.
    void* take() {
        if (taking_.exchange(true, std::memory_order_acquire)) return nullptr;
        if (!ready_ && returned_.load(std::memory_order_relaxed)) {
            ready_ = returned_.exchange(nullptr, std::memory_order_acquire);
            returned_count_.store(0, std::memory_order_relaxed);
        }
        Free* first = ready_;
        if (first) {
            ready_ = first->next;
            prefetch(ready_);
        }
        taking_.store(false, std::memory_order_release);
        return first;
    }

    /// False when the pool is full; the memory stays the caller's then.
    bool give_back(void* memory) {
        if (!keeps) return false;
        if (returned_count_.load(std::memory_order_relaxed) >= most) return false;
        auto* free = static_cast<Free*>(memory);
        free->next = returned_.load(std::memory_order_relaxed);
        while (!returned_.compare_exchange_weak(free->next, free, std::memory_order_release, std::memory_order_relaxed))
            ;
        returned_count_.store(returned_count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return true;
    }

private:
    struct Free {
        Free* next;
    };
    static constexpr uint32_t most = 65536;
#ifdef __SANITIZE_ADDRESS__
    static constexpr bool keeps = false;
#else
    static constexpr bool keeps = true;
#endif

    // The next record's memory is in the cache of the processor that deleted it.
    void prefetch(const Free* next) const {
        for (size_t at = 0; at < size_; at += 64) __builtin_prefetch(reinterpret_cast<const char*>(next) + at, 1);
    }

    const size_t size_;

    // Two cache lines: what those who give back write, and what those who take write.
    alignas(64) std::atomic<Free*> returned_{nullptr};
    std::atomic<uint32_t> returned_count_{0};
    alignas(64) std::atomic<bool> taking_{false}; // guards `ready_`
    Free* ready_ = nullptr;
};

} // namespace vel
