// The state word of waitable objects and its descriptor.
#include <vel/os/linux/waitable.h>

#include <sys/eventfd.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/futex.h>

namespace vel::os {

void Waitable::write_descriptor() { ::eventfd_write(descriptor(), 1); }

uint32_t Waitable::mark() {
    uint32_t word = word_.load(std::memory_order_seq_cst);
    uint32_t next;
    do {
        if (word & signalled_bit) return 0;
        next = (word | signalled_bit | (word >= watcher_unit ? written_bit : 0)) & ~slept_on_bit;
    } while (!word_.compare_exchange_weak(word, next, std::memory_order_seq_cst));
    return (word & slept_on_bit) | (next & ~word & written_bit);
}

void Waitable::wake(uint32_t whom) {
    if (whom & slept_on_bit) futex_wake_all(word_);
    if (whom & written_bit) write_descriptor();
}

void Waitable::reset() {
    if (word_.load(std::memory_order_seq_cst) & signalled_bit)
        word_.fetch_and(~signalled_bit, std::memory_order_seq_cst);
}

bool Waitable::take() {
    uint32_t word = word_.load(std::memory_order_seq_cst);
    do {
        if (!(word & signalled_bit)) return false;
        if (manual_reset_) return true;
    } while (!word_.compare_exchange_weak(word, word & ~signalled_bit, std::memory_order_seq_cst));
    return true;
}

bool Waitable::wait(uint32_t timeout_ms) {
    if (take()) return true;
    if (timeout_ms == 0) return false;
    const Deadline deadline(timeout_ms);
    timespec left;
    do {
        uint32_t word = word_.load(std::memory_order_seq_cst);
        if (!(word & signalled_bit) &&
            word_.compare_exchange_strong(word, word | slept_on_bit, std::memory_order_seq_cst))
            futex_wait(word_, word | slept_on_bit, deadline.remaining(left));
        if (take()) return true;
    } while (!deadline.expired());
    return false;
}

void Waitable::add_watcher() {
    uint32_t word = word_.load(std::memory_order_seq_cst);
    uint32_t next;
    do {
        next = (word + watcher_unit) | (word & signalled_bit ? written_bit : 0);
    } while (!word_.compare_exchange_weak(word, next, std::memory_order_seq_cst));
    if ((next & written_bit) && !(word & written_bit)) write_descriptor();
}

bool Waitable::await_edge() {
    uint32_t word = word_.load(std::memory_order_seq_cst);
    do {
        if (word & signalled_bit) return true;
    } while ((word & written_bit) &&
             !word_.compare_exchange_weak(word, word & ~written_bit, std::memory_order_seq_cst));
    return false;
}

// A set that comes after the bit was cleared sets it again and writes. The read may swallow that write, so the bit is
// looked at once more after it. Whoever reads last of several settling threads sees the bit and writes for all.
bool Waitable::settle() {
    if (await_edge()) return true;
    eventfd_t count;
    ::eventfd_read(descriptor(), &count);
    const uint32_t word = word_.load(std::memory_order_seq_cst);
    if (word & written_bit) write_descriptor();
    return (word & signalled_bit) != 0;
}

Waitable* pin_waitable(void* handle) {
    HandleObject* object = HandleTable::pin(handle, HandleKind::event);
    if (!object) object = HandleTable::pin(handle, HandleKind::thread);
    return static_cast<Waitable*>(object);
}

} // namespace vel::os
