// Reference counters: one for a single thread, two for many.
#pragma once

#include <atomic>
#include <vel/sync/mutex.h>

/// Counts references; starts at 0.
///
/// Threads:   one at a time.
/// Limits:    nothing guards against a negative count: callers balance their calls. A copy copies the count as it
///            stands, so copying what is in use is of no use.
class VEL_API VEL_Reference_Counter {
public:
    VEL_Reference_Counter() = default;
    VEL_Reference_Counter(const VEL_Reference_Counter&) = default;
    VEL_Reference_Counter& operator=(const VEL_Reference_Counter&) = default;
    virtual ~VEL_Reference_Counter();

    /// Adds or takes one and returns the new count.
    virtual int32_t increment() { return ++count_; }
    virtual int32_t decrement() { return --count_; }

protected:
    /// The same, seen by all threads in one order. What a thread did before its decrement is visible to the one whose
    /// decrement comes later, so the last holder may delete.
    int32_t increment_shared() { return std::atomic_ref(count_).fetch_add(1, std::memory_order_relaxed) + 1; }
    int32_t decrement_shared() { return std::atomic_ref(count_).fetch_sub(1, std::memory_order_acq_rel) - 1; }

private:
    int32_t count_ = 0;
};

/// A counter for references held by several threads.
///
/// Threads:   any; one atomic step does what a lock of its own would.
class VEL_API VEL_Reference_Counter_Sync : public VEL_Reference_Counter {
public:
    VEL_Reference_Counter_Sync() = default;
    VEL_Reference_Counter_Sync(const VEL_Reference_Counter_Sync&) = default;
    VEL_Reference_Counter_Sync& operator=(const VEL_Reference_Counter_Sync&) = default;
    ~VEL_Reference_Counter_Sync() override;

    int32_t increment() override { return increment_shared(); }
    int32_t decrement() override { return decrement_shared(); }
};

/// The counter of the library's own handlers: for references held by several threads.
///
/// Threads:   any.
class VEL_API VEL_Reference_Counter_Global_Sync : public VEL_Reference_Counter {
public:
    VEL_Reference_Counter_Global_Sync() = default;
    VEL_Reference_Counter_Global_Sync(const VEL_Reference_Counter_Global_Sync&) = default;
    VEL_Reference_Counter_Global_Sync& operator=(const VEL_Reference_Counter_Global_Sync&) = default;
    ~VEL_Reference_Counter_Global_Sync() override;

    int32_t increment() override { return increment_shared(); }
    int32_t decrement() override { return decrement_shared(); }

protected:
    /// One lock for all counters of this kind, for derived ones that do more than count in one step.
    static VEL_Thread_Mutex lock_;
};
