// Opening and closing the proactor.
#include <vel/proactor/proactor.h>

#include <cstdio>
#include <cstdlib>
#include <vel/frame/exception.h>
#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/os/handle.h>
#include <vel/os/thread.h>
#include <vel/proactor/async_operation.h>
#include <vel/proactor/read_gate.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace os = vel::os;

namespace {

// One below the 64 that the error's text speaks of: deliberate.
constexpr uint32_t most_workers = 63;
constexpr size_t thread_buckets = 9973;
constexpr size_t handle_buckets = 32749;
constexpr uint32_t drain_wait_ms = 100;

} // namespace

VEL_Proactor::VEL_Proactor() : table_gate_(std::make_unique<vel::ReadGate>()), threads_(thread_buckets) {}

VEL_Proactor::~VEL_Proactor() {
    if (port_ != nullptr && is_own_thread()) {
        std::fputs("VEL_Proactor destroyed by one of its own threads\n", stderr);
        std::abort();
    }
    close();
}

int VEL_Proactor::open(uint32_t thread_count) {
    VEL_Guard guard(lock_);
    if (thread_count == 0) thread_count = calc_thr_count();
    if (thread_count > most_workers) return vel::fail(error::too_many_workers);
    if (closing_) return vel::fail(error::object_closed);
    if (port_ != nullptr) return vel::fail(error::already_exists);
    uint32_t code = error::none;
    try {
        start(thread_count);
        table_gate_->open();
        return 0;
    } catch (const VEL_Exception& exception) {
        code = exception.GetErrorCode();
    } catch (const std::bad_alloc&) {
        code = error::not_enough_memory;
    }
    // The threads go first: they use what is destroyed after them.
    closing_ = true;
    stop_threads(guard);
    destroy_parts();
    closing_ = false;
    return vel::fail(code);
}

void VEL_Proactor::close() {
    if (port_ == nullptr) return;
    if (is_own_thread()) {
        VELLib::SetErrorCode(error::possible_deadlock);
        return;
    }
    VEL_Guard guard(lock_);
    if (closing_ || port_ == nullptr) return;
    closing_ = true;
    table_gate_->shut(); // what was posted so far is in the port; the rest finds the flag set
    stop_threads(guard);
    end_registrations(guard);
    end_timers(guard);
    guard.unlock();
    drain();
    guard.lock();
    destroy_parts();
}

uint32_t VEL_Proactor::calc_thr_count() { return 2 * os::processor_count(); }

/// Leaves the thread's code alone.
bool VEL_Proactor::is_own_thread() {
    const uint32_t code = VELLib::GetErrorCode();
    const VEL_thread_t self = VEL_Thread_Manager::thr_self();
    const bool own = !self.invalid() && threads_.get_grp(self) >= 0;
    VELLib::SetErrorCode(code);
    return own;
}

/// Makes the parts and starts the threads, under the lock; throws.
void VEL_Proactor::start(uint32_t thread_count) {
    handle_table_ = std::make_unique<HandleTable>(handle_buckets);
    timer_queue_ = std::make_unique<TimerQueue>();
    void* port = nullptr;
    if (uint32_t code = os::create_port(thread_count, port)) VEL_Exception::ThrowException(code);
    port_ = port;
    held_port_ = std::make_unique<os::HeldPort>(port);
    VEL_thread_t timer_thread;
    if (threads_.spawn(thr_iocp_timer, this, timer_thread, 0, 0, 0, nullptr) < 0 ||
        threads_.spawn(thr_iocp_competion, this, thread_count, nullptr, 0, 0, 0, nullptr) < 0)
        VEL_Exception::ThrowException(VELLib::GetErrorCode());
    worker_count_ = thread_count;
}

/// Wakes all threads, which see the closing flag, and waits for their end without the lock.
void VEL_Proactor::stop_threads(VEL_Guard& guard) {
    for (size_t workers = threads_.thr_count(); workers > 1; --workers) // one of them is the timer thread
        os::post_completion(port_, static_cast<OVERLAPPED*>(nullptr), 0, 0);
    timer_alarm_.ring();
    guard.unlock();
    threads_.wait(VEL_INFINITE);
    guard.lock();
}

/// Oldest first; a handler may remove others meanwhile, so each round starts at the table's first entry.
void VEL_Proactor::end_registrations(VEL_Guard& guard) {
    while (auto* first = handle_table_->head()) {
        const uint32_t key = first->key();
        const VEL_Handle_Set set = first->value();
        handle_table_->remove(first);
        guard.unlock();
        set.handler->handle_close(key, set.handle, this);
        set.handler->release();
        guard.lock();
    }
}

void VEL_Proactor::end_timers(VEL_Guard& guard) {
    TimerQueue::Period timer;
    while (timer_queue_->take_first(timer)) {
        guard.unlock();
        timer.handler->handle_close(0, reinterpret_cast<void*>(static_cast<intptr_t>(timer.timer_id)), this);
        timer.handler->release();
        guard.lock();
    }
}

/// Takes what has been completed or posted and not dispatched: operations are deleted, messages answered.
void VEL_Proactor::drain() {
    os::Completion completion;
    while (os::wait_completion(port_, drain_wait_ms, completion) == error::none) {
        if (completion.record == nullptr) continue;
        discard(static_cast<VEL_Async_Operation*>(static_cast<vel::IoRequest*>(completion.record)));
    }
}

void VEL_Proactor::destroy_parts() {
    timer_queue_.reset();
    handle_table_.reset();
    void* port = port_.exchange(nullptr);
    if (port != nullptr) os::close_port(port);
    held_port_.reset();
    worker_count_ = 0;
}

int VEL_Async_Operation::open(VEL_Proactor* proactor, uint32_t completion_key) {
    if (proactor == nullptr) return vel::fail(error::invalid_parameter);
    if (completion_key == 0) return vel::fail(error::no_completion_key);
    VEL_Async_Handler* handler = nullptr;
    void* handle = proactor->get_handle(completion_key, handler); // with a reference for this record
    if (handle == VEL_INVALID_HANDLE) return -1;
    completion_key_ = completion_key;
    handle_ = handle;
    vel::os::aim(*this, handle);
    proactor_ = proactor;
    VEL_Async_Handler* former = handler_;
    handler_ = handler;
    if (former != nullptr) former->release();
    return 0;
}
