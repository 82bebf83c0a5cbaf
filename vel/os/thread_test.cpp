// Contract of threads: the gate, suspension, forced end, exit codes and slots.
#include <vel/os/thread.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/lock_waiter.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/named_mutex.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;

// The system's own threads. Another back end is a struct with the same names.
struct SystemThreads {
    static constexpr auto create = create_thread;
    static constexpr auto suspend = suspend_thread;
    static constexpr auto resume = resume_thread;
    static constexpr auto terminate = terminate_thread;
    static constexpr auto exit_code = thread_exit_code;
};

template <class Back>
class Threads : public ::testing::Test {
protected:
    void SetUp() override {
        if (vel::testing::delays_signals) GTEST_SKIP() << "a killed thread is never joined";
    }
    void TearDown() override {
        for (void* handle : handles_) close_handle(handle);
        EXPECT_EQ(open_handle_count(), before_);
    }

    static uint32_t count_steps(void* argument) {
        auto* test = static_cast<Threads*>(argument);
        ++test->steps_;
        if (test->first_) test->first_();
        while (!test->stop_) ++test->steps_;
        return 7;
    }
    void* owned(void* handle) {
        handles_.push_back(handle);
        return handle;
    }
    void* create() {
        void* handle = nullptr;
        EXPECT_EQ(Back::create(count_steps, this, 0, handle, id_), error::none);
        return owned(handle);
    }
    void* start() {
        steps_ = 0;
        stop_ = false;
        void* handle = create();
        EXPECT_EQ(previous(Back::resume, handle), 1u);
        while (steps_ == 0) std::this_thread::yield();
        return handle;
    }
    uint32_t previous(uint32_t (*call)(void*, uint32_t&), void* handle) {
        uint32_t count = 99;
        EXPECT_EQ(call(handle, count), error::none);
        return count;
    }
    // Waits for the end of a thread and gives its code.
    uint32_t outcome(void* handle, uint32_t within_ms = long_ms) {
        uint32_t code = 0;
        EXPECT_EQ(wait_handle(handle, within_ms), error::none);
        EXPECT_EQ(Back::exit_code(handle, code), error::none);
        return code;
    }
    void expect_killed(void* handle, uint32_t code) {
        EXPECT_EQ(Back::terminate(handle, code), error::none);
        EXPECT_EQ(outcome(handle, 0), code);
        EXPECT_EQ(Back::terminate(handle, 1), error::access_denied);
        EXPECT_FALSE(moves(short_ms));
    }
    bool moves(uint32_t within_ms = long_ms) {
        const uint32_t before = steps_;
        const uint64_t end = tick_ms64() + within_ms;
        while (tick_ms64() < end && steps_ == before) std::this_thread::yield();
        return steps_ != before;
    }

    uint32_t id_ = 0; // of the thread made last
    std::atomic<uint32_t> steps_{0};
    std::atomic<bool> stop_{false};
    std::function<void()> first_; // done between the first step and the second
    const uint64_t before_ = open_handle_count();
    std::vector<void*> handles_;
};

TYPED_TEST_SUITE(Threads, ::testing::Types<SystemThreads>);

TYPED_TEST(Threads, StandsAtItsGateUntilResumedOrKilled) {
    this->expect_killed(this->create(), 77);
    void* thread = this->create();
    EXPECT_EQ(this->previous(TypeParam::suspend, thread), 1u);
    EXPECT_EQ(this->previous(TypeParam::resume, thread), 2u);
    EXPECT_FALSE(this->moves(short_ms));
    EXPECT_EQ(this->steps_, 0u) << "one of the two ran";
    EXPECT_EQ(this->previous(TypeParam::resume, thread), 1u);
    EXPECT_EQ(abandon_gate(thread, 5), error::none); // it may not have come to run yet
    EXPECT_TRUE(this->moves());
    this->stop_ = true;
    EXPECT_EQ(this->outcome(thread), 7u);
}

TYPED_TEST(Threads, SuspendedOrKilledItStandsStillAndNobodyInheritsItsSlots) {
    void* event = nullptr;
    uint32_t slot = 0;
    ASSERT_EQ(create_event(true, false, event), error::none);
    ASSERT_EQ(create_slot(nullptr, slot), error::none);
    this->owned(event);
    for (uint32_t round = 0; round < 40; ++round) {
        reset_event(event);
        this->first_ = [=] {
            EXPECT_EQ(slot_value(slot), nullptr) << "left by a killed thread";
            set_slot_value(slot, event);
            if (round % 2) wait_handle(event, long_ms);
        };
        void* thread = this->start();
        if (round % 4 > 1) {
            EXPECT_EQ(this->previous(TypeParam::suspend, thread), 0u);
            EXPECT_EQ(this->previous(TypeParam::suspend, thread), 1u);
            EXPECT_EQ(this->previous(TypeParam::resume, thread), 2u);
            set_event(event);
            ASSERT_FALSE(this->moves(short_ms));
        }
        if (round % 8 > 3) {
            EXPECT_EQ(this->previous(TypeParam::resume, thread), round % 4 > 1 ? 1u : 0u);
            set_event(event);
            ASSERT_TRUE(this->moves());
        }
        this->expect_killed(thread, 100 + round);
    }
    free_slot(slot);
}

// Killed only where it sleeps in the kernel: elsewhere it might keep a lock that the whole process needs.
TYPED_TEST(Threads, AKilledWaiterLeavesTheLockToOthers) {
    const vel::testing::TemporaryDirectory directory;
    const vel::testing::ObjectName name;
    void* mutex = nullptr;
    bool abandoned = false;
    vel::testing::ChildProcess owner([&](vel::testing::Talk& parent) {
        if (open_mutex(name.c_str(), mutex) || acquire_mutex(mutex, 0, abandoned)) return false;
        parent.tell();
        return parent.hear();
    });
    ASSERT_TRUE(owner.talk().hear());
    const auto kill_while = [this](std::function<void()> waits) {
        this->first_ = waits;
        void* thread = this->start();
        ASSERT_TRUE(vel::testing::comes_to_wait_for_lock(this->id_));
        this->expect_killed(thread, 1);
    };
    ASSERT_EQ(open_mutex(name.c_str(), mutex), error::none);
    this->owned(mutex);
    const auto acquire = [mutex, lost = false]() mutable { acquire_mutex(mutex, VEL_INFINITE, lost); };
    kill_while(acquire); // owned by another process
    owner.kill();
    ASSERT_EQ(acquire_mutex(mutex, long_ms, abandoned), error::none);
    kill_while(acquire); // owned by this thread
    EXPECT_EQ(release_mutex(mutex), error::none);
    EXPECT_EQ(acquire_mutex(mutex, 0, abandoned) + release_mutex(mutex), error::none);

    void* files[2];
    for (void*& file : files) {
        ASSERT_EQ(open_file(directory.path("file").c_str(), FileOpen::open_always, file), error::none);
        this->owned(file);
    }
    for (void* file : files) { // first within one handle, then between two
        ASSERT_EQ(lock_range(files[0], 0, 1, false), error::none);
        kill_while([file] { lock_range(file, 0, 1, true); });
        EXPECT_EQ(unlock_range(files[0], 0, 1), error::none);
        for (void* each : files) EXPECT_EQ(lock_range(each, 0, 1, false) + unlock_range(each, 0, 1), error::none);
    }
}

TYPED_TEST(Threads, SuspendResumeAndEndRace) {
    for (int round = 0; round < 200; ++round) {
        void* thread = this->start();
        uint32_t previous = 0;
        std::thread stopper([&] { this->stop_ = true; });
        if (!TypeParam::suspend(thread, previous)) TypeParam::resume(thread, previous);
        if (round % 2) TypeParam::terminate(thread, 9);
        ASSERT_EQ(wait_handle(thread, long_ms), error::none);
        stopper.join();
    }
}

void change_every_signal(int how) {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(how, &all, nullptr);
}

// The outcome stands when the slot is destroyed, and only there the thread takes the signal.
TYPED_TEST(Threads, ASuspensionThatComesTooLateDoesNotParkIt) {
    uint32_t slot = 0;
    ASSERT_EQ(create_slot([](void*) { change_every_signal(SIG_UNBLOCK); }, slot), error::none);
    std::atomic<bool> ready{false};
    this->first_ = [&] {
        change_every_signal(SIG_BLOCK);
        set_slot_value(slot, &slot);
        ready = true;
    };
    void* thread = this->start();
    while (!ready) std::this_thread::yield();
    EXPECT_EQ(this->previous(TypeParam::suspend, thread), 0u); // pending
    this->stop_ = true;
    EXPECT_EQ(this->outcome(thread), 7u);
    free_slot(slot);
}

} // namespace
} // namespace vel::os
