// Contract of threads: the gate, suspension, forced end, exit codes and slots.
#include <vel/os/thread.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/os/named_mutex.h>
#include <vel/testing/temporary_directory.h>

#if defined(__SANITIZE_THREAD__)
#define VEL_WITH_TSAN
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VEL_WITH_TSAN
#endif
#endif
#ifdef VEL_WITH_TSAN
#define SKIP_WITHOUT_SIGNALS() GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread"
#else
#define SKIP_WITHOUT_SIGNALS() static_cast<void>(0)
#endif

namespace vel::os {
namespace {

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;
constexpr uint32_t still_running = 259;

// The system's own threads. Another back end is a struct with the same names.
struct SystemThreads {
    static constexpr auto create = create_thread;
    static constexpr auto suspend = suspend_thread;
    static constexpr auto resume = resume_thread;
    static constexpr auto terminate = terminate_thread;
    static constexpr auto exit_code = thread_exit_code;
    static constexpr auto give_up_gate = abandon_gate;
};

/// What the threads of these tests work on.
struct Work {
    std::atomic<uint32_t> steps{0};
    std::atomic<bool> stop{false};
    void* object = nullptr; // what a blocked thread waits for
};

uint32_t compute(void* argument) {
    auto* work = static_cast<Work*>(argument);
    while (!work->stop) ++work->steps;
    return 7;
}

template <class Wait>
uint32_t wait_once(void* argument, Wait wait) {
    auto* work = static_cast<Work*>(argument);
    ++work->steps;
    wait(work->object);
    ++work->steps;
    return 8;
}

uint32_t wait_event(void* argument) {
    return wait_once(argument, [](void* event) { wait_handle(event, long_ms); });
}

uint32_t wait_mutex(void* argument) {
    bool abandoned = false;
    return wait_once(argument, [&](void* mutex) { acquire_mutex(mutex, VEL_INFINITE, abandoned); });
}

uint32_t hold_mutex(void* argument) {
    bool abandoned = false;
    acquire_mutex(static_cast<Work*>(argument)->object, VEL_INFINITE, abandoned);
    return compute(argument);
}

uint32_t wait_range(void* argument) {
    return wait_once(argument, [](void* file) { lock_range(file, 0, 1, true); });
}

template <class Back>
class Threads : public ::testing::Test {
protected:
    void TearDown() override {
        for (void* handle : handles_) close_handle(handle);
        EXPECT_EQ(open_handle_count(), before_);
    }

    void* owned(void* handle) {
        handles_.push_back(handle);
        return handle;
    }
    void* event() {
        void* event = nullptr;
        EXPECT_EQ(create_event(true, false, event), error::none);
        return owned(event);
    }
    void* create(ThreadEntry entry) {
        void* handle = nullptr;
        uint32_t id = 0;
        EXPECT_EQ(Back::create(entry, &work_, 0, handle, id), error::none);
        return owned(handle);
    }
    void* start(ThreadEntry entry) {
        work_.steps = 0;
        void* handle = create(entry);
        EXPECT_EQ(resume(handle), 1u);
        while (work_.steps == 0) std::this_thread::yield();
        return handle;
    }
    uint32_t suspend(void* handle) {
        uint32_t previous = 99;
        EXPECT_EQ(Back::suspend(handle, previous), error::none);
        return previous;
    }
    uint32_t resume(void* handle) {
        uint32_t previous = 99;
        EXPECT_EQ(Back::resume(handle, previous), error::none);
        return previous;
    }
    // Waits for the end of a thread and gives its code.
    uint32_t outcome(void* handle) {
        uint32_t code = 0;
        EXPECT_EQ(wait_handle(handle, long_ms), error::none);
        EXPECT_EQ(Back::exit_code(handle, code), error::none);
        return code;
    }
    void expect_killed(void* handle, uint32_t code) {
        EXPECT_EQ(Back::terminate(handle, code), error::none);
        EXPECT_EQ(wait_handle(handle, 0), error::none);
        EXPECT_EQ(outcome(handle), code);
        EXPECT_EQ(Back::terminate(handle, 1), error::access_denied);
        EXPECT_TRUE(stands_still());
    }
    bool moves(uint32_t within_ms = long_ms) {
        const uint32_t before = work_.steps;
        const uint64_t end = tick_ms64() + within_ms;
        while (tick_ms64() < end && work_.steps == before) std::this_thread::yield();
        return work_.steps != before;
    }
    bool stands_still() { return !moves(short_ms); }

    Work work_;
    const uint64_t before_ = open_handle_count();
    std::vector<void*> handles_;
};

TYPED_TEST_SUITE(Threads, ::testing::Types<SystemThreads>);

TYPED_TEST(Threads, StandsAtItsGateUntilResumedGivenUpOrKilled) {
    void* given_up = this->create(compute);
    EXPECT_EQ(TypeParam::give_up_gate(given_up, 0xFFFFFFFF), error::none);
    EXPECT_EQ(this->outcome(given_up), 0xFFFFFFFF);
    this->expect_killed(this->create(compute), 77);

    void* thread = this->create(compute);
    EXPECT_EQ(this->suspend(thread), 1u);
    EXPECT_EQ(this->resume(thread), 2u);
    EXPECT_TRUE(this->stands_still());
    EXPECT_EQ(this->work_.steps, 0u) << "one of the three ran";
    EXPECT_EQ(this->resume(thread), 1u);
    EXPECT_EQ(TypeParam::give_up_gate(thread, 5), error::none); // it may not have come to run yet
    EXPECT_TRUE(this->moves());
    uint32_t code = 0;
    EXPECT_EQ(TypeParam::exit_code(thread, code), error::none);
    EXPECT_EQ(code, still_running);
    this->work_.stop = true;
    EXPECT_EQ(this->outcome(thread), 7u);
    EXPECT_EQ(TypeParam::suspend(thread, code), error::access_denied);
    EXPECT_EQ(TypeParam::resume(thread, code), error::access_denied);
}

TYPED_TEST(Threads, SuspendedItStandsStillUntilTheCountIsZero) {
    SKIP_WITHOUT_SIGNALS();
    void* thread = this->start(compute);
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(this->suspend(thread), 0u);
        EXPECT_EQ(this->suspend(thread), 1u);
        ASSERT_TRUE(this->stands_still());
        EXPECT_EQ(this->resume(thread), 2u);
        ASSERT_TRUE(this->stands_still());
        EXPECT_EQ(this->resume(thread), 1u);
        EXPECT_EQ(this->resume(thread), 0u);
        ASSERT_TRUE(this->moves());
    }
    this->work_.stop = true;
    EXPECT_EQ(this->outcome(thread), 7u);

    this->work_.object = this->event();
    void* blocked = this->start(wait_event);
    EXPECT_EQ(this->suspend(blocked), 0u);
    set_event(this->work_.object);
    EXPECT_EQ(wait_handle(blocked, short_ms), error::wait_timeout);
    EXPECT_EQ(this->work_.steps, 1u);
    EXPECT_EQ(this->resume(blocked), 1u);
    EXPECT_EQ(this->outcome(blocked), 8u);
}

TYPED_TEST(Threads, KilledComputingBlockedOrSuspended) {
    SKIP_WITHOUT_SIGNALS();
    this->work_.object = this->event();
    for (uint32_t round = 0; round < 50; ++round) {
        void* thread = this->start(round % 2 ? wait_event : compute);
        if (round % 4 > 1) this->suspend(thread);
        this->expect_killed(thread, 100 + round);
    }
}

// What it waited for must be free for the next one and for the close that the end of the test makes.
TYPED_TEST(Threads, AKilledWaiterOrOwnerHoldsUpNobody) {
    SKIP_WITHOUT_SIGNALS();
    const vel::testing::TemporaryDirectory directory;
    bool abandoned = false;
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(open_mutex(nullptr, this->work_.object), error::none);
        void* mutex = this->owned(this->work_.object);
        EXPECT_EQ(acquire_mutex(mutex, 0, abandoned), error::none);
        this->expect_killed(this->start(wait_mutex), 1);
        EXPECT_EQ(release_mutex(mutex), error::none);
        this->expect_killed(this->start(hold_mutex), 1);
        EXPECT_EQ(acquire_mutex(mutex, 0, abandoned), error::none);
        EXPECT_TRUE(abandoned);
        EXPECT_EQ(release_mutex(mutex), error::none);

        const std::string path = directory.path("file");
        ASSERT_EQ(open_file(path.c_str(), FileOpen::open_always, this->work_.object), error::none);
        void* file = this->owned(this->work_.object);
        EXPECT_EQ(lock_range(file, 0, 1, false), error::none);
        this->expect_killed(this->start(wait_range), 1);
        EXPECT_EQ(unlock_range(file, 0, 1), error::none);
        EXPECT_EQ(lock_range(file, 0, 1, false), error::none);
        EXPECT_EQ(unlock_range(file, 0, 1), error::none);
    }
}

TYPED_TEST(Threads, SuspendResumeAndEndRace) {
    SKIP_WITHOUT_SIGNALS();
    for (int round = 0; round < 200; ++round) {
        this->work_.stop = false;
        void* thread = this->start(compute);
        uint32_t previous = 0;
        std::thread stopper([&] { this->work_.stop = true; });
        const bool suspended = TypeParam::suspend(thread, previous) == error::none;
        if (suspended) TypeParam::resume(thread, previous);
        if (round % 2) TypeParam::terminate(thread, 9);
        ASSERT_EQ(wait_handle(thread, long_ms), error::none);
        stopper.join();
    }
}

std::atomic<int> destroyed{0};
uint32_t test_slot = 0;

uint32_t fill_slot(void* argument) {
    const bool fresh = slot_value(test_slot) == nullptr;
    set_slot_value(test_slot, argument);
    return fresh && slot_value(test_slot) == argument;
}

uint32_t fill_slot_and_compute(void* argument) {
    fill_slot(argument);
    return compute(argument);
}

TYPED_TEST(Threads, SlotsArePerThreadAndDestroyedBeforeTheHandleIsSignalled) {
    SKIP_WITHOUT_SIGNALS();
    ASSERT_EQ(create_slot([](void*) { ++destroyed; }, test_slot), error::none);
    EXPECT_EQ(set_slot_value(test_slot, this), error::none);
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(TypeParam::terminate(this->start(fill_slot_and_compute), 1), error::none);
        const int before = destroyed;
        void* thread = this->create(fill_slot);
        EXPECT_EQ(this->resume(thread), 1u);
        EXPECT_EQ(this->outcome(thread), 1u) << "the value of a killed thread was left to a later one";
        EXPECT_EQ(destroyed, before + 1);
    }
    EXPECT_EQ(slot_value(test_slot), this);
    EXPECT_EQ(free_slot(test_slot), error::none);
    EXPECT_EQ(free_slot(test_slot), error::invalid_parameter);
}

} // namespace
} // namespace vel::os
