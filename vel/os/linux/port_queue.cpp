// Taking requests, leading and following at a completion port.
#include <vel/os/linux/port_queue.h>

#include <algorithm>
#include <new>
#include <thread>
#include <utility>
#include <vel/os/error_codes.h>
#include <vel/os/linux/futex.h>
#include <vel/os/thread.h>

namespace vel::os {
namespace {

// A busy port looks for new readiness after this many requests, or a handle that is always ready starves the others.
constexpr uint32_t takes_per_poll = 128;

// The request and what its owner keeps behind it, which the handler is going to write.
void prefetch(const IoRequest* request) {
    for (int line = 0; line < 3; ++line) __builtin_prefetch(reinterpret_cast<const char*>(request) + line * 64, 1);
}

uint64_t next_port_id() {
    static std::atomic<uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

uint32_t useful_threads(uint32_t concurrency) {
    return std::clamp(std::thread::hardware_concurrency(), 1u, std::max(concurrency, 1u));
}

} // namespace

// A port for which the calling thread counts as running: more than one when a handler waits at another port. One too
// many is forgotten; its port then counts the thread until the watchdog finds out.
struct PortQueue::RunningFor {
    uint64_t port; // 0 when free
    uint32_t epoch;
};

// The thread's note for the port, or one to write it down in.
PortQueue::RunningFor& PortQueue::note_of_thread(uint64_t port) {
    static constinit thread_local RunningFor notes[4] __attribute__((tls_model("initial-exec"))) = {};
    for (RunningFor& each : notes)
        if (each.port == port) return each;
    for (RunningFor& each : notes)
        if (each.port == 0) return each;
    return notes[0];
}

// The calling thread, without a system call each time.
uint32_t PortQueue::caller_id() {
    static constinit thread_local uint32_t id __attribute__((tls_model("initial-exec"))) = 0;
    if (id == 0) id = current_thread_id();
    return id;
}

PortQueue::PortQueue(PortEvents& events, uint32_t concurrency)
    : events_(events),
      watchdog_(*this),
      id_(next_port_id()),
      useful_(useful_threads(concurrency)) {}

PortQueue::~PortQueue() {
    for (FollowerList* list : {&followers_, &called_, &spare_}) list->clear();
}

uint32_t PortQueue::take(uint32_t timeout_ms, IoRequest*& request) {
    const Deadline deadline(timeout_ms);
    RunningFor& mine = note_of_thread(id_);
    bool polled = false;
    Guard guard(lock_);
    come_back(mine);
    while (!closed_) {
        if (ready_ == 0) collect();
        const bool may_lead = !leader_ && events_enabled_;
        if (ready_ > 0 && (!may_lead || taken_since_poll_ < takes_per_poll)) {
            request = pop();
            const Wake wake = go_out(mine);
            guard.unlock();
            if (wake.any()) carry_out(wake);
            return error::none;
        }
        if (ready_ == 0 && (polled || !may_lead) && deadline.expired()) {
            const Wake wake = wake_if_needed();
            guard.unlock();
            carry_out(wake);
            return error::wait_timeout;
        }
        if (may_lead) {
            lead(guard, deadline);
            polled = true;
        } else {
            follow(guard, deadline);
        }
    }
    return error::port_closed;
}

void PortQueue::enable_events() {
    Wake wake;
    {
        const Guard guard(lock_);
        events_enabled_ = true;
        wake = wake_if_needed();
    }
    carry_out(wake);
}

bool PortQueue::abandon(uint32_t thread_id) {
    Wake wake;
    bool led;
    {
        const Guard guard(lock_);
        led = leader_ == thread_id;
        if (led) {
            leader_ = 0;
            interrupted_ = false;
            leader_sleeping_.store(false, std::memory_order_relaxed);
        }
        for (FollowerList* list : {&followers_, &called_})
            if (Follower* follower = list->find(thread_id)) leave(*follower);
        if (!closed_) wake = wake_if_needed();
    }
    carry_out(wake);
    return led;
}

IoRequest* PortQueue::close() {
    IoRequest* untaken = nullptr;
    {
        const Guard guard(lock_);
        closed_ = true;
        append(inbox_.close());
        untaken = std::exchange(head_, nullptr);
        tail_ = nullptr;
        ready_ = 0;
        while (Follower* follower = followers_.first) {
            call(*follower);
            futex_wake_one(&follower->woken); // the one call made under the lock
        }
    }
    events_.interrupt();
    watchdog_.stop();
    return untaken;
}

void PortQueue::come_back(RunningFor& mine) {
    if (mine.port != id_) return;
    mine.port = 0;
    if (mine.epoch == epoch_) --running_;
}

PortQueue::Wake PortQueue::go_out(RunningFor& mine) {
    mine = {id_, epoch_};
    ++running_;
    ++taken_;
    ++taken_since_poll_;
    pace_.took_one();
    return somebody_sleeps() ? wake_if_needed() : Wake{};
}

void PortQueue::collect() {
    if (!inbox_.empty()) append(inbox_.take_all());
}

void PortQueue::append(const RequestChain& chain) {
    if (!chain.first) return;
    (tail_ ? tail_->next : head_) = chain.first;
    tail_ = chain.last;
    ready_ += chain.length;
}

IoRequest* PortQueue::pop() {
    IoRequest* first = head_;
    head_ = first->next;
    if (head_)
        prefetch(head_); // another processor wrote it; its turn comes when this one has been handled
    else
        tail_ = nullptr;
    --ready_;
    return first;
}

// Where one thread is all there is use for, nobody asks for the pace.
int64_t PortQueue::pace_clock() const { return useful_ > 1 ? monotonic_ns() : 0; }

void PortQueue::lead(Guard& guard, const Deadline& deadline) {
    constexpr timespec at_once{0, 0};
    timespec storage;
    leader_ = caller_id();
    taken_since_poll_ = 0;
    pace_.pause(pace_clock());
    if (ready_ == 0) {
        leader_sleeping_.store(true, std::memory_order_seq_cst);
        collect();
        if (ready_ > 0) leader_sleeping_.store(false, std::memory_order_relaxed);
    }
    const timespec* timeout = ready_ > 0 ? &at_once : deadline.remaining(storage);
    guard.unlock();
    events_.poll(timeout, leader_sleeping_);
    const int64_t now_ns = pace_clock();
    guard.lock();
    pace_.resume(now_ns);
    leader_ = 0;
    interrupted_ = false;
}

void PortQueue::follow(Guard& guard, const Deadline& deadline) {
    if (!have_spare_follower(guard)) return;
    Follower& self = *spare_.first;
    spare_.remove(self);
    self.woken.store(0, std::memory_order_relaxed);
    self.thread = caller_id();
    followers_.push(self);
    has_followers_.store(true, std::memory_order_seq_cst);
    collect();
    if (ready_ > 0) return leave(self);
    pace_.pause(pace_clock());
    guard.unlock();
    timespec storage;
    while (!self.woken.load(std::memory_order_acquire) && !deadline.expired())
        futex_wait(self.woken, 0, deadline.remaining(storage));
    const int64_t now_ns = pace_clock();
    guard.lock();
    pace_.resume(now_ns);
    leave(self);
}

// Without one, the caller is to look again: the lock was free meanwhile.
bool PortQueue::have_spare_follower(Guard& guard) {
    if (spare_.first) return true;
    guard.unlock();
    auto* fresh = new (std::nothrow) Follower;
    if (!fresh) std::this_thread::yield();
    guard.lock();
    if (fresh) spare_.push(*fresh);
    return false;
}

void PortQueue::leave(Follower& follower) {
    if (follower.woken.load(std::memory_order_relaxed)) {
        called_.remove(follower);
        --waking_;
    } else {
        followers_.remove(follower);
        if (!followers_.first) has_followers_.store(false, std::memory_order_relaxed);
    }
    spare_.push(follower);
}

void PortQueue::call(Follower& follower) {
    followers_.remove(follower);
    if (!followers_.first) has_followers_.store(false, std::memory_order_relaxed);
    called_.push(follower);
    ++waking_;
    follower.woken.store(1, std::memory_order_release);
}

void PortQueue::FollowerList::push(Follower& follower) {
    follower.next = first;
    first = &follower;
}

void PortQueue::FollowerList::remove(const Follower& follower) {
    Follower** link = &first;
    while (*link != &follower) link = &(*link)->next;
    *link = follower.next;
}

PortQueue::Follower* PortQueue::FollowerList::find(uint32_t thread) const {
    Follower* each = first;
    while (each && each->thread != thread) each = each->next;
    return each;
}

void PortQueue::FollowerList::clear() {
    while (first) delete std::exchange(first, first->next);
}

} // namespace vel::os
