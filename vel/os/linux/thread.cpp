// Threads: creation behind a gate, suspension and forced end by a real-time signal, thread-local slots.
//
// A thread's control word holds its suspend count and the flags below. A created thread waits at its gate until the
// count is 0; the step through the gate is one exchange of the word, so a later suspend knows that it has to send the
// signal. The handler of that signal sleeps while the count is above 0 and ends the thread once it is killed.
//
// The outcome is decided once: by the entry function's end, by a kill or by giving up the gate. The running thread
// holds a pin on its object. It gives the pin back at its end, but for a killed one, whose pin belongs to the killer.
#include <vel/os/thread.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/futex.h>
#include <vel/os/linux/mutex_owner.h>
#include <vel/os/linux/waitable.h>

namespace vel::os {
namespace {

constexpr uint32_t passed_gate = 1u << 31;
constexpr uint32_t given_up = 1u << 30; // at the gate: end there
constexpr uint32_t killed = 1u << 29;
constexpr uint32_t count_mask = 0xFFFF;
constexpr uint32_t most_suspends = 127;

// The outcome: what ended the thread above the exit code; 0 while it lives.
constexpr uint64_t outcome_returned = uint64_t{1} << 32;
constexpr uint64_t outcome_killed = uint64_t{2} << 32;

constexpr uint32_t still_running = 259;
constexpr uint32_t smallest_stack = 64 * 1024;
constexpr uint32_t answer_limit_ms = 1000; // for a victim that blocks the signal
constexpr int most_orphans = 72;           // more pins than a thread can hold at once

int control_signal = 0;
pthread_key_t exit_key;

class ThreadObject final : public Waitable {
public:
    ThreadObject(ThreadEntry entry, void* argument) : Waitable(true, false), entry_(entry), argument_(argument) {}
    ~ThreadObject() override {
        if (started_ && !joined_) ::pthread_detach(thread_);
    }

    uint32_t start(uint32_t stack_size, uint32_t& id);
    bool is_left_alone() const override { return false; }
    void after_wait() override;

    uint32_t suspend(uint32_t& previous);
    uint32_t resume(uint32_t& previous);
    uint32_t kill(uint32_t exit_code);
    void give_up_gate(uint32_t exit_code);
    uint32_t exit_code() const;

    void obey_signal();
    void at_thread_exit();
    void adopt_orphans();

private:
    static void* body(void* self);

    bool pass_gate();
    bool decide(uint64_t outcome);
    bool lives() const { return outcome_.load(std::memory_order_seq_cst) == 0; }
    bool returned() const { return outcome_.load(std::memory_order_seq_cst) >> 32 == outcome_returned >> 32; }
    bool is_caller() const;
    void answer();
    void wait_for_answer(uint32_t answers_before);
    bool reap_killed();
    [[noreturn]] void end_here();

    const ThreadEntry entry_;
    void* const argument_;
    std::atomic<uint32_t> control_{1};
    std::atomic<bool> parked_{false};    // the handler holds the thread
    std::atomic<uint32_t> answers_{0};   // goes up each time the handler stops the thread, and at its end
    std::atomic<uint32_t> gate_code_{0}; // exit code of a thread that is given up at its gate
    std::atomic<uint32_t> id_{0};
    std::atomic<uint64_t> outcome_{0};
    int exit_rounds_ = 0;
    HandleObject* orphans_[most_orphans]; // pins that the thread held when it was killed
    std::atomic<int> orphan_count_{0};

    std::mutex mutex_; // guards the use of thread_ against its join
    pthread_t thread_{};
    bool started_ = false;
    bool joined_ = false;
};

constinit thread_local ThreadObject* current __attribute__((tls_model("initial-exec"))) = nullptr;

void on_control_signal(int) {
    const int saved = errno;
    if (current) current->obey_signal();
    errno = saved;
}

void on_thread_exit(void* object) { static_cast<ThreadObject*>(object)->at_thread_exit(); }

// The highest real-time signal that nobody uses yet.
int free_signal() {
    for (int number = SIGRTMAX; number > SIGRTMIN; --number) {
        struct sigaction action;
        if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) return number;
    }
    return SIGRTMAX;
}

// 0 or the errno of the key that could not be had; a key that is not ours must never be written.
int prepare_process() {
    struct sigaction action {};
    action.sa_handler = on_control_signal;
    action.sa_flags = SA_RESTART;
    ::sigfillset(&action.sa_mask);
    control_signal = free_signal();
    ::sigaction(control_signal, &action, nullptr);
    return ::pthread_key_create(&exit_key, on_thread_exit);
}

void unblock_control_signal() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, control_signal);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

bool ThreadObject::decide(uint64_t outcome) {
    uint64_t undecided = 0;
    return outcome_.compare_exchange_strong(undecided, outcome, std::memory_order_seq_cst);
}

bool ThreadObject::is_caller() const { return current == this; }

uint32_t ThreadObject::start(uint32_t stack_size, uint32_t& id) {
    static const int unprepared = prepare_process();
    if (unprepared != 0) return system_error(unprepared);
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    if (stack_size != 0) {
        const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
        const uint64_t wanted = stack_size > smallest_stack ? stack_size : smallest_stack;
        ::pthread_attr_setstacksize(&attributes, (wanted + page - 1) / page * page);
    }
    const int failed = ::pthread_create(&thread_, &attributes, body, this);
    ::pthread_attr_destroy(&attributes);
    if (failed != 0) return system_error(failed);
    started_ = true;
    while (id_.load(std::memory_order_acquire) == 0) futex_wait(id_, 0);
    id = id_.load(std::memory_order_relaxed);
    return error::none;
}

void* ThreadObject::body(void* argument) {
    auto* self = static_cast<ThreadObject*>(argument);
    current = self;
    ::pthread_setspecific(exit_key, self);
    unblock_control_signal();
    self->id_.store(current_thread_id(), std::memory_order_release);
    futex_wake_all(self->id_);
    const bool passed = self->pass_gate();
    const uint32_t code = passed ? self->entry_(self->argument_) : self->gate_code_.load(std::memory_order_relaxed);
    self->decide(outcome_returned | code);
    self->answer();
    return nullptr;
}

bool ThreadObject::pass_gate() {
    uint32_t word = control_.load(std::memory_order_seq_cst);
    while (true) {
        if (word & (killed | given_up)) return false;
        if (word & count_mask) {
            futex_wait(control_, word);
            word = control_.load(std::memory_order_seq_cst);
        } else if (control_.compare_exchange_weak(word, word | passed_gate, std::memory_order_seq_cst)) {
            return true;
        }
    }
}

// Destructors of thread-local values run in rounds; the handle is signalled in the last but one, when those of the
// application are done. What runs after that is the C library's and the sanitizers' own.
void ThreadObject::at_thread_exit() {
    if (++exit_rounds_ < PTHREAD_DESTRUCTOR_ITERATIONS - 1) {
        ::pthread_setspecific(exit_key, this);
        return;
    }
    decide(outcome_returned); // the entry function ended the thread itself
    current = nullptr;        // from here on the signal finds nobody
    const bool own_pin = outcome_.load(std::memory_order_seq_cst) >> 32 != outcome_killed >> 32;
    set();
    if (own_pin) HandleTable::unpin(this);
}

// Joins a thread that has ended, so that it is really gone when a wait for it returns.
void ThreadObject::after_wait() {
    std::lock_guard guard(mutex_);
    if (joined_) return;
    ::pthread_join(thread_, nullptr);
    joined_ = true;
}

uint32_t ThreadObject::exit_code() const {
    const uint64_t outcome = outcome_.load(std::memory_order_acquire);
    return outcome == 0 ? still_running : static_cast<uint32_t>(outcome);
}

uint32_t ThreadObject::suspend(uint32_t& previous) {
    if (!lives()) return error::access_denied;
    const uint32_t answers_before = answers_.load(std::memory_order_seq_cst);
    uint32_t word = control_.load(std::memory_order_seq_cst);
    do {
        if ((word & count_mask) == most_suspends) return error::no_system_resources;
    } while (!control_.compare_exchange_weak(word, word + 1, std::memory_order_seq_cst));
    previous = word & count_mask;
    if (!(word & passed_gate)) return error::none;
    if (is_caller()) {
        ::pthread_kill(::pthread_self(), control_signal); // taken before the call returns
        return error::none;
    }
    {
        std::lock_guard guard(mutex_);
        if (lives()) ::pthread_kill(thread_, control_signal);
    }
    wait_for_answer(answers_before);
    return error::none;
}

void ThreadObject::answer() {
    answers_.fetch_add(1, std::memory_order_seq_cst);
    futex_wake_all(answers_);
}

// A victim that blocks the signal, or sits in the kernel where no signal reaches it, stops as soon as it can.
void ThreadObject::wait_for_answer(uint32_t answers_before) {
    const Deadline deadline(answer_limit_ms);
    timespec left;
    while (!parked_.load(std::memory_order_seq_cst) && lives() && !deadline.expired()) {
        if (answers_.load(std::memory_order_seq_cst) != answers_before) return;
        futex_wait(answers_, answers_before, deadline.remaining(left));
    }
}

// A signal that comes while the handler is on its way out is taken before the thread runs on. A thread whose entry
// function has returned is not held any more: its owner is told that it has ended and would never resume it.
void ThreadObject::obey_signal() {
    uint32_t word = control_.load(std::memory_order_seq_cst);
    if (!(word & passed_gate)) return; // the gate looks at the word itself
    if (returned()) return;            // too late: no resume would reach the thread any more
    parked_.store(true, std::memory_order_seq_cst);
    answer();
    while (!(word & killed) && (word & count_mask) && lives()) {
        futex_wait(control_, word);
        word = control_.load(std::memory_order_seq_cst);
    }
    parked_.store(false, std::memory_order_seq_cst);
    if (word & killed) end_here();
}

// No destructor runs and nothing is unlocked. The C library hands the stack with its thread-local slots to a later
// thread, which must not find the values of this one.
void ThreadObject::end_here() {
    current = nullptr;
    orphan_count_.store(PinLink::pins_of_caller(orphans_, most_orphans), std::memory_order_release);
    for (pthread_key_t key = 0; key < PTHREAD_KEYS_MAX; ++key) ::pthread_setspecific(key, nullptr);
    set();
    while (true) ::syscall(SYS_exit, 0);
}

// Gives back what a killed thread had claimed and its pins, so that others can have and close what it waited for.
void ThreadObject::adopt_orphans() {
    const int count = orphan_count_.exchange(0, std::memory_order_acquire);
    for (int i = 0; i < count; ++i) {
        orphans_[i]->abandon(id_.load(std::memory_order_relaxed));
        HandleTable::unpin(orphans_[i]);
    }
}

uint32_t ThreadObject::resume(uint32_t& previous) {
    if (!lives()) return error::access_denied;
    uint32_t word = control_.load(std::memory_order_seq_cst);
    do {
        previous = word & count_mask;
        if (previous == 0) return error::none;
    } while (!control_.compare_exchange_weak(word, word - 1, std::memory_order_seq_cst));
    if (previous == 1) futex_wake_all(control_);
    return error::none;
}

void ThreadObject::give_up_gate(uint32_t exit_code) {
    gate_code_.store(exit_code, std::memory_order_relaxed);
    uint32_t word = control_.load(std::memory_order_seq_cst);
    do {
        if ((word & (passed_gate | killed)) || (word & count_mask) == 0) return;
    } while (!control_.compare_exchange_weak(word, word | given_up, std::memory_order_seq_cst));
    futex_wake_all(control_);
}

uint32_t ThreadObject::kill(uint32_t exit_code) {
    if (is_caller()) return error::access_denied;
    {
        std::lock_guard guard(mutex_);
        if (!decide(outcome_killed | exit_code)) return error::access_denied;
        control_.fetch_or(killed, std::memory_order_seq_cst);
        futex_wake_all(control_);
        ::pthread_kill(thread_, control_signal);
    }
    if (!reap_killed()) return error::wait_timeout;
    abandon_mutexes_of(id_.load(std::memory_order_relaxed));
    adopt_orphans();
    HandleTable::unpin(this); // the thread's own
    return error::none;
}

// One that has not answered in time ends when it takes the signal; its pin stays with it.
bool ThreadObject::reap_killed() {
    timespec end;
    ::clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += answer_limit_ms / 1000;
    std::lock_guard guard(mutex_);
    if (!joined_ && ::pthread_timedjoin_np(thread_, nullptr, &end) == 0) joined_ = true;
    return joined_;
}

uint32_t start_thread(ThreadObject& object, uint32_t stack_size, uint32_t& id) {
    HandleTable::pin(object.descriptor(), HandleKind::thread); // the thread's own
    const uint32_t code = object.start(stack_size, id);
    if (code != error::none) HandleTable::unpin(&object);
    return code;
}

} // namespace

uint32_t create_thread(ThreadEntry entry, void* argument, uint32_t stack_size, void*& handle, uint32_t& id) {
    if (!entry) return error::invalid_parameter;
    std::unique_ptr<ThreadObject> owned(new (std::nothrow) ThreadObject(entry, argument));
    if (!owned) return error::not_enough_memory;
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) return system_error(errno);
    ThreadObject& object = *owned;
    void* created = HandleTable::insert(descriptor, HandleKind::thread, std::move(owned));
    if (!created) return error::too_many_open_files;
    const uint32_t code = start_thread(object, stack_size, id);
    if (code != error::none)
        HandleTable::close(created);
    else
        handle = created;
    return code;
}

uint32_t suspend_thread(void* handle, uint32_t& previous_count) {
    Pinned<ThreadObject> object(handle, HandleKind::thread);
    return object ? object->suspend(previous_count) : error::invalid_handle;
}

uint32_t resume_thread(void* handle, uint32_t& previous_count) {
    Pinned<ThreadObject> object(handle, HandleKind::thread);
    return object ? object->resume(previous_count) : error::invalid_handle;
}

uint32_t terminate_thread(void* handle, uint32_t exit_code) {
    Pinned<ThreadObject> object(handle, HandleKind::thread);
    return object ? object->kill(exit_code) : error::invalid_handle;
}

uint32_t thread_exit_code(void* handle, uint32_t& exit_code) {
    Pinned<ThreadObject> object(handle, HandleKind::thread);
    if (!object) return error::invalid_handle;
    exit_code = object->exit_code();
    return error::none;
}

uint32_t abandon_gate(void* handle, uint32_t exit_code) {
    Pinned<ThreadObject> object(handle, HandleKind::thread);
    if (!object) return error::invalid_handle;
    object->give_up_gate(exit_code);
    return error::none;
}

uint32_t current_thread_id() { return static_cast<uint32_t>(::gettid()); }

uint32_t processor_count() {
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) return static_cast<uint32_t>(CPU_COUNT(&allowed));
    const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<uint32_t>(online) : 1;
}

void pause_spinning(uint32_t times) {
    for (; times > 0; --times) __builtin_ia32_pause();
}

uint32_t create_slot(void (*destroy)(void*), uint32_t& slot) {
    pthread_key_t key;
    const int failed = ::pthread_key_create(&key, destroy);
    if (failed != 0) return system_error(failed);
    slot = key;
    return error::none;
}

uint32_t free_slot(uint32_t slot) { return ::pthread_key_delete(slot) == 0 ? error::none : error::invalid_parameter; }

void* slot_value(uint32_t slot) { return ::pthread_getspecific(slot); }

uint32_t set_slot_value(uint32_t slot, void* value) {
    const int failed = ::pthread_setspecific(slot, value);
    return failed == 0 ? error::none : system_error(failed);
}

} // namespace vel::os
