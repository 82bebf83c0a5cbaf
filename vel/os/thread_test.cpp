// Contract of threads: the gate, suspension, forced end, exit codes and slots.
#include <vel/os/thread.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>

#if defined(__SANITIZE_THREAD__)
#define SKIP_WITHOUT_SIGNALS() GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread"
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SKIP_WITHOUT_SIGNALS() GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread"
#endif
#endif
#ifndef SKIP_WITHOUT_SIGNALS
#define SKIP_WITHOUT_SIGNALS() static_cast<void>(0)
#endif

namespace vel::os {
namespace {

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;
constexpr uint32_t still_running = 259;

struct NativeThreads {
    static uint32_t create(ThreadEntry entry, void* argument, uint32_t stack, void*& handle, uint32_t& id) {
        return create_thread(entry, argument, stack, handle, id);
    }
    static uint32_t suspend(void* handle, uint32_t& previous) { return suspend_thread(handle, previous); }
    static uint32_t resume(void* handle, uint32_t& previous) { return resume_thread(handle, previous); }
    static uint32_t terminate(void* handle, uint32_t code) { return terminate_thread(handle, code); }
    static uint32_t exit_code(void* handle, uint32_t& code) { return thread_exit_code(handle, code); }
    static uint32_t give_up_gate(void* handle, uint32_t code) { return abandon_gate(handle, code); }
    static uint32_t caller_id() { return current_thread_id(); }
};

/// What the threads of these tests work on.
struct Work {
    std::atomic<uint32_t> steps{0};
    std::atomic<uint32_t> id{0};
    std::atomic<bool> stop{false};
    void* event = nullptr; // what `block` waits for
};

uint32_t compute(void* argument) {
    auto* work = static_cast<Work*>(argument);
    work->id = current_thread_id();
    while (!work->stop) ++work->steps;
    return 7;
}

uint32_t block(void* argument) {
    auto* work = static_cast<Work*>(argument);
    ++work->steps;
    wait_handle(work->event, long_ms);
    ++work->steps;
    return 8;
}

template <class Threads>
class ThreadContract : public ::testing::Test {
protected:
    void SetUp() override { create_event(true, false, work_.event); }
    void TearDown() override {
        work_.stop = true;
        set_event(work_.event);
        for (void* handle : handles_) {
            uint32_t previous = 2;
            while (previous > 1 && Threads::resume(handle, previous) == error::none) {
            }
            EXPECT_EQ(wait_handle(handle, long_ms), error::none);
            close_handle(handle);
        }
        close_handle(work_.event);
    }

    void* create(ThreadEntry entry) {
        void* handle = nullptr;
        EXPECT_EQ(Threads::create(entry, &work_, 0, handle, id_), error::none);
        handles_.push_back(handle);
        return handle;
    }
    void* start(ThreadEntry entry) {
        void* handle = create(entry);
        EXPECT_EQ(resume(handle), 1u);
        while (work_.steps == 0) std::this_thread::yield();
        return handle;
    }
    uint32_t suspend(void* handle) {
        uint32_t previous = 99;
        EXPECT_EQ(Threads::suspend(handle, previous), error::none);
        return previous;
    }
    uint32_t resume(void* handle) {
        uint32_t previous = 99;
        EXPECT_EQ(Threads::resume(handle, previous), error::none);
        return previous;
    }
    uint32_t exit_code(void* handle) {
        uint32_t code = 0;
        EXPECT_EQ(Threads::exit_code(handle, code), error::none);
        return code;
    }
    bool moves(uint32_t within_ms = long_ms) {
        const uint32_t before = work_.steps;
        const uint64_t end = tick_ms64() + within_ms;
        while (tick_ms64() < end && work_.steps == before) std::this_thread::yield();
        return work_.steps != before;
    }
    bool stands_still() { return !moves(short_ms); }

    Work work_;
    uint32_t id_ = 0;
    std::vector<void*> handles_;
};

using BackEnds = ::testing::Types<NativeThreads>;
TYPED_TEST_SUITE(ThreadContract, BackEnds);

TYPED_TEST(ThreadContract, StandsAtItsGateUntilResumedAndSignalsItsEnd) {
    void* thread = this->create(compute);
    EXPECT_TRUE(this->stands_still());
    EXPECT_EQ(wait_handle(thread, 0), error::wait_timeout);
    EXPECT_EQ(this->suspend(thread), 1u);
    EXPECT_EQ(this->resume(thread), 2u);
    EXPECT_EQ(this->work_.id, 0u);
    EXPECT_EQ(this->resume(thread), 1u);
    EXPECT_TRUE(this->moves());
    EXPECT_EQ(this->work_.id, this->id_);
    EXPECT_NE(this->id_, TypeParam::caller_id());
    EXPECT_EQ(this->exit_code(thread), still_running);
    void* handles[] = {this->work_.event, thread};
    uint32_t index = 99;
    EXPECT_EQ(wait_any(handles, 2, short_ms, index), error::wait_timeout);
    this->work_.stop = true;
    EXPECT_EQ(wait_any(handles, 2, long_ms, index), error::none);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(this->exit_code(thread), 7u);
    uint32_t previous = 0;
    EXPECT_EQ(TypeParam::suspend(thread, previous), error::access_denied);
    EXPECT_EQ(TypeParam::resume(thread, previous), error::access_denied);
    EXPECT_EQ(TypeParam::terminate(thread, 1), error::access_denied);
    EXPECT_EQ(this->exit_code(thread), 7u);
}

TYPED_TEST(ThreadContract, GivenUpAtItsGateItEndsWithoutRunning) {
    void* thread = this->create(compute);
    EXPECT_EQ(TypeParam::give_up_gate(thread, 0xFFFFFFFF), error::none);
    EXPECT_EQ(wait_handle(thread, long_ms), error::none);
    EXPECT_EQ(this->exit_code(thread), 0xFFFFFFFF);
    EXPECT_EQ(this->work_.steps, 0u);
    void* resumed = this->create(compute);
    this->resume(resumed);
    EXPECT_EQ(TypeParam::give_up_gate(resumed, 5), error::none); // it may not have come to run yet
    EXPECT_TRUE(this->moves());
}

TYPED_TEST(ThreadContract, KilledAtItsGateItEndsWithoutRunning) {
    void* thread = this->create(compute);
    EXPECT_EQ(TypeParam::terminate(thread, 77), error::none);
    EXPECT_EQ(wait_handle(thread, 0), error::none);
    EXPECT_EQ(this->exit_code(thread), 77u);
    EXPECT_EQ(this->work_.steps, 0u);
}

TYPED_TEST(ThreadContract, SuspendedComputingItStandsStillUntilTheCountIsZero) {
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
}

TYPED_TEST(ThreadContract, SuspendedBlockedItGoesOnOnlyAfterResume) {
    SKIP_WITHOUT_SIGNALS();
    void* thread = this->start(block);
    EXPECT_EQ(this->suspend(thread), 0u);
    set_event(this->work_.event);
    EXPECT_EQ(wait_handle(thread, short_ms), error::wait_timeout);
    EXPECT_EQ(this->work_.steps, 1u);
    EXPECT_EQ(this->resume(thread), 1u);
    EXPECT_EQ(wait_handle(thread, long_ms), error::none);
    EXPECT_EQ(this->exit_code(thread), 8u);
}

TYPED_TEST(ThreadContract, KilledComputingBlockedOrSuspended) {
    SKIP_WITHOUT_SIGNALS();
    for (int round = 0; round < 50; ++round) {
        this->work_.steps = 0;
        void* thread = this->start(round % 2 ? block : compute);
        if (round % 4 > 1) this->suspend(thread);
        EXPECT_EQ(TypeParam::terminate(thread, 100 + static_cast<uint32_t>(round)), error::none);
        EXPECT_EQ(wait_handle(thread, 0), error::none);
        EXPECT_EQ(this->exit_code(thread), 100 + static_cast<uint32_t>(round));
        EXPECT_EQ(TypeParam::terminate(thread, 1), error::access_denied);
        EXPECT_TRUE(this->stands_still());
    }
}

TYPED_TEST(ThreadContract, WhatAKilledThreadWaitedForCanBeClosed) {
    SKIP_WITHOUT_SIGNALS();
    const uint64_t before = open_handle_count();
    void* other = nullptr;
    create_event(true, false, other);
    std::swap(other, this->work_.event);
    void* thread = this->start(block);
    EXPECT_EQ(TypeParam::terminate(thread, 1), error::none);
    std::swap(other, this->work_.event);
    close_handle(other);
    EXPECT_EQ(open_handle_count(), before + 1); // the thread's own
}

TYPED_TEST(ThreadContract, NeverEndsItsCaller) {
    static void* self;
    self =
        this->create([](void*) -> uint32_t { return TypeParam::terminate(self, 1) == error::access_denied ? 3 : 4; });
    EXPECT_EQ(this->resume(self), 1u);
    EXPECT_EQ(wait_handle(self, long_ms), error::none);
    EXPECT_EQ(this->exit_code(self), 3u);
}

TYPED_TEST(ThreadContract, SuspendsItselfUntilAnotherResumesIt) {
    static void* self;
    self = this->create([](void* argument) -> uint32_t {
        uint32_t previous = 99;
        static_cast<Work*>(argument)->steps = 1;
        TypeParam::suspend(self, previous);
        return previous;
    });
    EXPECT_EQ(this->resume(self), 1u);
    while (this->resume(self) == 0) std::this_thread::yield();
    EXPECT_EQ(wait_handle(self, long_ms), error::none);
    EXPECT_EQ(this->exit_code(self), 0u);
}

TYPED_TEST(ThreadContract, ClosingTheHandleDoesNotEndTheThread) {
    const uint64_t before = open_handle_count();
    uint32_t id = 0;
    void* thread = nullptr;
    ASSERT_EQ(TypeParam::create(block, &this->work_, 1, thread, id), error::none);
    uint32_t previous = 0;
    TypeParam::resume(thread, previous);
    while (this->work_.steps == 0) std::this_thread::yield();
    EXPECT_EQ(close_handle(thread), error::none);
    EXPECT_EQ(TypeParam::terminate(thread, 1), error::invalid_handle);
    set_event(this->work_.event);
    const uint64_t end = tick_ms64() + long_ms;
    while (open_handle_count() != before && tick_ms64() < end) std::this_thread::yield();
    EXPECT_EQ(open_handle_count(), before);
    EXPECT_EQ(this->work_.steps, 2u);
}

TYPED_TEST(ThreadContract, SuspendResumeAndEndRace) {
    SKIP_WITHOUT_SIGNALS();
    for (int round = 0; round < 200; ++round) {
        Work work;
        void* thread = nullptr;
        uint32_t id = 0;
        uint32_t previous = 0;
        ASSERT_EQ(TypeParam::create(compute, &work, 0, thread, id), error::none);
        TypeParam::resume(thread, previous);
        std::thread stopper([&] { work.stop = true; });
        const bool suspended = TypeParam::suspend(thread, previous) == error::none;
        if (suspended) TypeParam::resume(thread, previous);
        if (round % 2) TypeParam::terminate(thread, 9);
        ASSERT_EQ(wait_handle(thread, long_ms), error::none);
        stopper.join();
        close_handle(thread);
    }
}

std::atomic<int> destroyed{0};
void count_destroyed(void*) { ++destroyed; }
uint32_t test_slot = 0;

uint32_t fill_slot(void* argument) {
    const bool fresh = slot_value(test_slot) == nullptr;
    set_slot_value(test_slot, argument);
    return fresh && slot_value(test_slot) == argument;
}

uint32_t fill_slot_and_block(void* argument) {
    set_slot_value(test_slot, argument);
    return block(argument);
}

TYPED_TEST(ThreadContract, SlotsArePerThreadAndDestroyedBeforeTheHandleIsSignalled) {
    ASSERT_EQ(create_slot(count_destroyed, test_slot), error::none);
    destroyed = 0;
    EXPECT_EQ(set_slot_value(test_slot, this), error::none);
    for (int i = 1; i <= 20; ++i) {
        void* thread = this->create(fill_slot);
        EXPECT_EQ(this->resume(thread), 1u);
        EXPECT_EQ(wait_handle(thread, long_ms), error::none);
        EXPECT_EQ(this->exit_code(thread), 1u);
        EXPECT_EQ(destroyed, i);
    }
    EXPECT_EQ(slot_value(test_slot), this);
    EXPECT_EQ(free_slot(test_slot), error::none);
    EXPECT_EQ(free_slot(test_slot), error::invalid_parameter);
}

TYPED_TEST(ThreadContract, AKilledThreadLeavesNoSlotValueToALaterOne) {
    SKIP_WITHOUT_SIGNALS();
    ASSERT_EQ(create_slot(nullptr, test_slot), error::none);
    for (int i = 0; i < 10; ++i) {
        this->work_.steps = 0;
        EXPECT_EQ(TypeParam::terminate(this->start(fill_slot_and_block), 1), error::none);
        void* later = this->create(fill_slot);
        EXPECT_EQ(this->resume(later), 1u);
        EXPECT_EQ(wait_handle(later, long_ms), error::none);
        EXPECT_EQ(this->exit_code(later), 1u);
    }
    free_slot(test_slot);
}

} // namespace
} // namespace vel::os
