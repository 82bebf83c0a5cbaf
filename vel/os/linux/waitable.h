// What events and threads have in common: a state to wait for, mirrored in a descriptor only where somebody may see it.
#pragma once

#include <atomic>
#include <vel/os/linux/handle_table.h>

namespace vel::os {

/// A signalled or reset state with an event descriptor behind it.
///
/// All state is one word: signalled, slept on (threads sleep on the word itself), written (the descriptor is or will be
/// readable) and the number of watchers, that is threads and pollers that sleep on the descriptor. Whoever waits for
/// nothing else sleeps on the word. Invariants, whenever no call is under way:
///  - signalled with a watcher implies written; written implies that the descriptor is readable;
///  - a readable descriptor may be stale: whoever meets one that is not signalled settles it before it sleeps again.
/// So without watchers setting and resetting cost no system call, with them a set costs one only when the descriptor
/// was settled since the last, and a reset none. Nothing here locks or allocates: `set` is safe in a signal handler.
class Waitable : public HandleObject {
public:
    Waitable(bool manual_reset, bool signalled) : word_(signalled ? signalled_bit : 0), manual_reset_(manual_reset) {}

    void set() { wake(mark()); }
    void reset();

    /// `set` in two steps: sets the state and says whom to wake, 0 for nobody; and wakes those.
    uint32_t mark();
    void wake(uint32_t whom);

    bool is_signalled() const { return (word_.load(std::memory_order_seq_cst) & signalled_bit) != 0; }

    /// Takes the signal: true when it is set, and then an auto-reset one is reset.
    bool take();

    /// Waits for this object alone: true once it took the signal, false on time-out.
    bool wait(uint32_t timeout_ms);

    /// A watcher may sleep on the descriptor (level-triggered) until it is removed. After a wake-up it asks `settle`.
    void add_watcher();
    void remove_watcher() { word_.fetch_sub(watcher_unit, std::memory_order_seq_cst); }

    /// Whether the signal is set; when it is not, a stale descriptor is made unreadable again.
    bool settle();

    /// For a watcher of edges, whom a readable descriptor does not disturb: whether the signal is set; when it is not,
    /// the next set writes the descriptor.
    bool await_edge();

    /// Whether a wait leaves the signal set and has nothing to do after it.
    virtual bool is_left_alone() const { return manual_reset_; }

    /// Called once by a waiter that took the signal.
    virtual void after_wait() {}

private:
    static constexpr uint32_t signalled_bit = 1;
    static constexpr uint32_t written_bit = 2;
    static constexpr uint32_t slept_on_bit = 4;
    static constexpr uint32_t watcher_unit = 8;

    void write_descriptor();

    std::atomic<uint32_t> word_;
    const bool manual_reset_;
};

/// Pins an event or thread; null when the handle is neither.
Waitable* pin_waitable(void* handle);

} // namespace vel::os
