// The thread manager: its map of threads, and what is done to one of them or to a group.
#include <vel/threads/thread_manager.h>

#include <cassert>
#include <new>
#include <vector>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/frame/fail.h>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/thread.h>
#include <vel/sync/singleton.h>

namespace {

constexpr size_t instance_buckets = 9973;
constexpr uint32_t never_ran = 0xFFFFFFFF; // exit code of a thread that was joined before it was resumed

/// Calls `operate` for each of the threads. 0, or -1 with 8 when there is no memory for the list.
template <class List, class Operation>
int for_each(List list, Operation operate) {
    try {
        for (const VEL_thread_t& thread : list()) operate(thread);
        return 0;
    } catch (const std::bad_alloc&) {
        return vel::fail(vel::error::not_enough_memory);
    }
}

/// What is left of a time-out since the object was made.
class Budget {
public:
    explicit Budget(uint32_t timeout_ms) : timeout_ms_(timeout_ms), start_(vel::os::tick_ms()) {}

    uint32_t left_ms() const {
        if (timeout_ms_ == VEL_INFINITE) return VEL_INFINITE;
        const uint32_t elapsed = vel::os::tick_ms() - start_;
        return elapsed < timeout_ms_ ? timeout_ms_ - elapsed : 0;
    }

private:
    uint32_t timeout_ms_;
    uint32_t start_;
};

} // namespace

VEL_TLS<VEL_Thread_Descriptor*> VEL_Thread_Manager::tls_descriptor_;
std::atomic<VEL_Thread_Manager*> VEL_Thread_Manager::instance_{nullptr};
VEL_Thread_Mutex VEL_Thread_Manager::instance_lock_;

VEL_Thread_Manager* VEL_Thread_Manager::instance() {
    return VEL_Singleton<VEL_Thread_Manager, VEL_Base_Mutex>::instance(instance_, instance_lock_, instance_buckets);
}

VEL_Thread_Manager::VEL_Thread_Manager(size_t buckets) : threads_(new Threads(buckets)) {}

VEL_Thread_Manager::~VEL_Thread_Manager() {
    close();
    assert(threads_->is_empty() && "a manager is not destroyed by one of its own threads");
}

uint32_t VEL_Thread_Manager::thr_entry(void* argument) {
    auto* descriptor = static_cast<VEL_Thread_Descriptor*>(argument);
    tls_descriptor_.tls_set(descriptor);
    const uint32_t result = descriptor->run();
    tls_descriptor_.cleanup();
    return result;
}

VEL_thread_t VEL_Thread_Manager::thr_self() {
    const VEL_Thread_Descriptor* own = tls_descriptor_.tls_get();
    return own ? own->thr_desc() : VEL_thread_t();
}

bool VEL_Thread_Manager::testcancel(const VEL_thread_t&) {
    const VEL_Thread_Descriptor* own = tls_descriptor_.tls_get();
    return own && (own->thr_state() == THR_CANCELLED || own->thr_state() == THR_EXITED);
}

int VEL_Thread_Manager::insert(VEL_Thread_Descriptor* descriptor) {
    return threads_->bind(descriptor->thr_desc(), descriptor);
}

VEL_Thread_Descriptor* VEL_Thread_Manager::find(const VEL_thread_t& thread) {
    VEL_Thread_Descriptor** found = threads_->find(thread);
    if (found) return *found;
    VELLib::SetErrorCode(vel::error::not_found);
    return nullptr;
}

VEL_Thread_Descriptor* VEL_Thread_Manager::remove(const VEL_thread_t& thread) {
    VEL_Thread_Descriptor* descriptor = nullptr;
    if (threads_->unbind(thread, descriptor) == 0) return descriptor;
    VELLib::SetErrorCode(vel::error::not_found);
    return nullptr;
}

VEL_Thread_Descriptor* VEL_Thread_Manager::first_of(const int* grp) {
    for (auto& entry : *threads_)
        if (!grp || entry.value()->thr_grp() == *grp) return entry.value();
    return nullptr;
}

int VEL_Thread_Manager::pop(VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    for (auto& entry : *threads_) {
        if (entry.value()->is_caller()) continue;
        thread = entry.key();
        return 0;
    }
    return -1;
}

std::vector<VEL_thread_t> VEL_Thread_Manager::members(const int* grp) {
    std::vector<VEL_thread_t> names;
    for (auto& entry : *threads_)
        if (!grp || entry.value()->thr_grp() == *grp) names.push_back(entry.key());
    return names;
}

void VEL_Thread_Manager::add(VEL_Thread_Descriptor& descriptor) {
    if (insert(&descriptor) != 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

int VEL_Thread_Manager::spawn(int (*func)(void*), void* arg, size_t n, VEL_thread_t* ids, int grp,
                              unsigned int stack_size, uint32_t flags, int (*cancel_func)(void*)) {
    VEL_Guard guard(lock_);
    if (closed_ != 0) return vel::fail(vel::error::object_closed);
    if (!func) return vel::fail(vel::error::null_member);
    const auto create = [&](std::unique_ptr<VEL_Thread_Descriptor>& descriptor) {
        descriptor.reset(new VEL_Thread_Descriptor);
        descriptor->group_ = grp;
        descriptor->entry_ = func;
        descriptor->cancel_ = cancel_func;
        descriptor->argument_ = arg;
        descriptor->create(stack_size);
        add(*descriptor);
    };
    return spawn_all(n, ids, flags, std::ref(create));
}

int VEL_Thread_Manager::spawn(int (*func)(void*), void* arg, VEL_thread_t& id, int grp, unsigned int stack_size,
                              uint32_t flags, int (*cancel_func)(void*)) {
    return spawn(func, arg, 1, &id, grp, stack_size, flags, cancel_func);
}

int VEL_Thread_Manager::spawn_all(size_t n, VEL_thread_t* ids, uint32_t flags,
                                  const std::function<void(std::unique_ptr<VEL_Thread_Descriptor>&)>& create) {
    Descriptors created;
    if (n > created.max_size()) return vel::fail(vel::error::not_enough_memory);
    try {
        created.resize(n);
        for (auto& descriptor : created) create(descriptor);
    } catch (const VEL_Exception& exception) {
        undo(created);
        return vel::fail(exception.GetErrorCode());
    } catch (const std::bad_alloc&) {
        undo(created);
        return vel::fail(vel::error::not_enough_memory);
    } catch (...) { // out of a task's handle_init
        undo(created);
        throw;
    }
    hand_out(created, ids, flags);
    return 0;
}

void VEL_Thread_Manager::undo(Descriptors& created) {
    for (auto& descriptor : created) {
        if (!descriptor) break;
        if (!descriptor->thr_desc().invalid()) {
            threads_->unbind(descriptor->thr_desc());
            descriptor->kill(-1); // at its gate still, so it just ends
        }
        descriptor->leave_task();
    }
    created.clear(); // which may set the thread's error code
}

void VEL_Thread_Manager::hand_out(Descriptors& created, VEL_thread_t* ids, uint32_t flags) {
    for (size_t i = 0; i < created.size(); ++i) {
        VEL_Thread_Descriptor* descriptor = created[i].release(); // the map's from here on
        if (ids) ids[i] = descriptor->thr_desc();
        descriptor->enter(THR_SUSPENDED);
        if (flags == 0) descriptor->resume();
    }
}

int VEL_Thread_Manager::cancel(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    return descriptor ? descriptor->cancel() : -1;
}

int VEL_Thread_Manager::cancel(int grp) {
    VEL_Guard guard(lock_);
    return for_each([&] { return members(&grp); }, [this](const VEL_thread_t& thread) { cancel(thread); });
}

int VEL_Thread_Manager::cancel_all() {
    VEL_Guard guard(lock_);
    return for_each([&] { return members(nullptr); }, [this](const VEL_thread_t& thread) { cancel(thread); });
}

int VEL_Thread_Manager::kill(const VEL_thread_t& thread, int exit_code) {
    std::unique_ptr<VEL_Thread_Descriptor> ended; // goes with the lock free: its reactor calls handlers
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    if (!descriptor) return -1;
    if (descriptor->kill(exit_code) != 0 && descriptor->survived()) return -1;
    ended.reset(remove(thread));
    return 0;
}

int VEL_Thread_Manager::kill(int grp, int exit_code) {
    return for_each(
        [&] {
            VEL_Guard guard(lock_);
            return members(&grp);
        },
        [&](const VEL_thread_t& thread) { kill(thread, exit_code); });
}

int VEL_Thread_Manager::suspend(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    if (!descriptor) return -1;
    return descriptor->is_caller() ? suspend_caller(guard, *descriptor) : descriptor->suspend();
}

// The state changes first: after the suspension it is that of whoever resumed.
int VEL_Thread_Manager::suspend_caller(VEL_Guard& guard, VEL_Thread_Descriptor& descriptor) {
    void* handle = descriptor.thr_desc().thr_handle();
    descriptor.enter(THR_SUSPENDED);
    guard.unlock();
    uint32_t previous = 0;
    const uint32_t code = vel::os::suspend_thread(handle, previous);
    return code == vel::error::none ? static_cast<int>(previous) : vel::fail(code);
}

// The caller comes last, or it would not get round to the others.
int VEL_Thread_Manager::suspend(int grp) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* own = nullptr;
    const int result = for_each([&] { return members(&grp); },
                                [&](const VEL_thread_t& thread) {
                                    VEL_Thread_Descriptor* descriptor = find(thread);
                                    if (descriptor->is_caller())
                                        own = descriptor;
                                    else
                                        descriptor->suspend();
                                });
    if (own) suspend_caller(guard, *own);
    return result;
}

int VEL_Thread_Manager::resume(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    return descriptor ? descriptor->resume() : -1;
}

int VEL_Thread_Manager::resume(int grp) {
    VEL_Guard guard(lock_);
    return for_each([&] { return members(&grp); }, [this](const VEL_thread_t& thread) { resume(thread); });
}

// Cancelling comes first, so that joining always asks the thread to stop.
int VEL_Thread_Manager::join(const VEL_thread_t& thread, int* exit_code) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* found = find(thread);
    if (!found) return -1;
    if (found->is_caller()) return vel::fail(vel::error::possible_deadlock);
    cancel(thread);
    const std::unique_ptr<VEL_Thread_Descriptor> descriptor(remove(thread));
    guard.unlock();
    if (!descriptor) return -1; // its own cancel function has joined it
    void* handle = descriptor->thr_desc().thr_handle();
    vel::os::abandon_gate(handle, never_ran);
    vel::os::wait_handle(handle, VEL_INFINITE);
    descriptor->thr_close();
    if (exit_code) *exit_code = descriptor->thr_exit_code();
    return 0;
}

int VEL_Thread_Manager::wait(const VEL_thread_t& thread, uint32_t timeout_ms) {
    VEL_Guard guard(lock_);
    return find(thread) ? wait_and_forget(guard, thread, timeout_ms) : -1;
}

int VEL_Thread_Manager::wait(int grp, uint32_t timeout_ms) { return wait_members(&grp, timeout_ms); }

int VEL_Thread_Manager::wait(uint32_t timeout_ms) { return wait_members(nullptr, timeout_ms); }

// The walk starts afresh after each wait: the map may have changed meanwhile.
int VEL_Thread_Manager::wait_members(const int* grp, uint32_t timeout_ms) {
    const Budget budget(timeout_ms);
    VEL_Guard guard(lock_);
    while (const VEL_Thread_Descriptor* descriptor = first_of(grp))
        if (wait_and_forget(guard, descriptor->thr_desc(), budget.left_ms()) != 0) return -1;
    return 0;
}

// The handle is shared for the wait, because whoever kills or joins the thread meanwhile closes it.
int VEL_Thread_Manager::wait_and_forget(VEL_Guard& guard, const VEL_thread_t& thread, uint32_t timeout_ms) {
    if (thread.thr_id() == vel::os::current_thread_id()) return vel::fail(vel::error::possible_deadlock);
    const VEL_thread_t name = thread;
    vel::os::share_handle(name.thr_handle());
    guard.unlock();
    const uint32_t code = vel::os::wait_handle(name.thr_handle(), timeout_ms);
    if (code == vel::error::none) forget(name);
    vel::os::close_handle(name.thr_handle());
    guard.lock();
    return vel::result_of(code);
}

// Deleted with the lock free: a task may go with it.
void VEL_Thread_Manager::forget(const VEL_thread_t& thread) {
    std::unique_ptr<VEL_Thread_Descriptor> ended;
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = nullptr;
    if (threads_->unbind(thread, descriptor) != 0) return;
    descriptor->thr_close();
    ended.reset(descriptor);
}

int VEL_Thread_Manager::thr_state(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    const VEL_Thread_Descriptor* descriptor = find(thread);
    return descriptor ? descriptor->thr_state() : -1;
}

int VEL_Thread_Manager::get_grp(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    const VEL_Thread_Descriptor* descriptor = find(thread);
    return descriptor ? descriptor->thr_grp() : -1;
}

int VEL_Thread_Manager::set_grp(const VEL_thread_t& thread, int grp) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    if (!descriptor) return -1;
    descriptor->group_ = grp;
    return 0;
}

size_t VEL_Thread_Manager::thr_count() const {
    VEL_Guard guard(lock_);
    return threads_->size();
}

void VEL_Thread_Manager::close() {
    {
        VEL_Guard guard(lock_);
        closed_ = 1;
    }
    VEL_thread_t thread;
    while (pop(thread) == 0) {
        cancel(thread);
        join(thread, nullptr);
    }
}
