// Contract of threads: the gate, suspension, forced end, exit codes and slots.
#include <vel/os/thread.h>

#include <csignal>
#include <functional>
#include <vel/os/file.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/lock_waiter.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/named_mutex.h>
#include <vel/testing/os_fixture.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

class Threads : public OsTest {
protected:
    void SetUp() override {
        if (vel::testing::delays_signals) GTEST_SKIP() << "a killed thread is never joined";
    }

    static uint32_t count_steps(void* argument) {
        auto* test = static_cast<Threads*>(argument);
        ++test->steps_;
        if (test->first_) test->first_();
        while (!test->stop_) ++test->steps_;
        return 7;
    }
    void* create() {
        void* handle = nullptr;
        steps_ = 0;
        stop_ = false;
        EXPECT_EQ(create_thread(count_steps, this, 0, handle, id_), error::none);
        return keep(handle);
    }
    void* start() {
        void* handle = create();
        EXPECT_EQ(resume(handle), 1u);
        while (steps_ == 0) std::this_thread::yield();
        return handle;
    }
    static uint32_t count_before(uint32_t (*call)(void*, uint32_t&), void* handle) {
        uint32_t count = 99;
        EXPECT_EQ(call(handle, count), error::none);
        return count;
    }
    static uint32_t suspend(void* handle) { return count_before(suspend_thread, handle); }
    static uint32_t resume(void* handle) { return count_before(resume_thread, handle); }
    // Waits for the end of a thread and gives its code.
    static uint32_t outcome(void* handle, uint32_t within_ms = patience_ms) {
        uint32_t code = 0;
        EXPECT_EQ(wait_handle(handle, within_ms) + thread_exit_code(handle, code), error::none);
        return code;
    }
    void expect_killed(void* handle, uint32_t code) {
        EXPECT_EQ(terminate_thread(handle, code), error::none);
        EXPECT_EQ(outcome(handle, 0), code);
        EXPECT_EQ(terminate_thread(handle, 1), error::access_denied);
        EXPECT_FALSE(moves(short_ms));
    }
    bool moves(uint32_t within_ms = patience_ms) {
        const uint32_t before = steps_;
        const uint64_t end = tick_ms64() + within_ms;
        while (tick_ms64() < end && steps_ == before) std::this_thread::yield();
        return steps_ != before;
    }

    uint32_t id_ = 0; // of the thread made last
    std::atomic<uint32_t> steps_{0};
    std::atomic<bool> stop_{false};
    std::function<void()> first_; // done between the first step and the second
};

TEST_F(Threads, StandsAtItsGateUntilResumedOrKilled) {
    expect_killed(create(), 77);
    void* thread = create();
    EXPECT_EQ(suspend(thread), 1u);
    EXPECT_EQ(resume(thread), 2u);
    EXPECT_FALSE(moves(short_ms));
    EXPECT_EQ(steps_, 0u) << "one of the two ran";
    EXPECT_EQ(resume(thread), 1u);
    EXPECT_EQ(abandon_gate(thread, 5), error::none); // it may not have come to run yet
    EXPECT_TRUE(moves());
    stop_ = true;
    EXPECT_EQ(outcome(thread), 7u);
}

TEST_F(Threads, SuspendedOrKilledItStandsStillAndNobodyInheritsItsSlots) {
    void* event = make_event(true);
    uint32_t slot = 0;
    ASSERT_EQ(create_slot(nullptr, slot), error::none);
    for (uint32_t round = 0; round < 40; ++round) {
        const bool waits = round % 2, suspended = round % 4 > 1, resumed = round % 8 > 3;
        reset_event(event);
        first_ = [=] {
            EXPECT_EQ(slot_value(slot), nullptr) << "left by a killed thread";
            set_slot_value(slot, event);
            if (waits) wait_handle(event, patience_ms);
        };
        void* thread = start();
        if (suspended) {
            EXPECT_EQ(suspend(thread), 0u);
            EXPECT_EQ(suspend(thread), 1u);
            EXPECT_EQ(resume(thread), 2u);
            set_event(event);
            ASSERT_FALSE(moves(short_ms));
        }
        if (resumed) {
            EXPECT_EQ(resume(thread), suspended ? 1u : 0u);
            set_event(event);
            ASSERT_TRUE(moves());
        }
        expect_killed(thread, 100 + round);
    }
    free_slot(slot);
}

// Killed only where it sleeps in the kernel: elsewhere it might keep a lock that the whole process needs.
TEST_F(Threads, AKilledWaiterLeavesTheLockToOthers) {
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
        first_ = waits;
        void* thread = start();
        ASSERT_TRUE(vel::testing::comes_to_wait_for_lock(id_));
        expect_killed(thread, 1);
    };
    ASSERT_EQ(open_mutex(name.c_str(), mutex), error::none);
    keep(mutex);
    const auto acquire = [mutex, lost = false]() mutable { acquire_mutex(mutex, VEL_INFINITE, lost); };
    kill_while(acquire); // owned by another process
    owner.kill();
    ASSERT_EQ(acquire_mutex(mutex, patience_ms, abandoned), error::none);
    kill_while(acquire); // owned by this thread
    EXPECT_EQ(release_mutex(mutex), error::none);
    EXPECT_EQ(acquire_mutex(mutex, 0, abandoned) + release_mutex(mutex), error::none);

    void* files[2];
    for (void*& file : files) {
        ASSERT_EQ(open_file(directory.path("file").c_str(), FileOpen::open_always, file), error::none);
        keep(file);
    }
    for (void* file : files) { // first within one handle, then between two
        ASSERT_EQ(lock_range(files[0], 0, 1, false), error::none);
        kill_while([file] { lock_range(file, 0, 1, true); });
        EXPECT_EQ(unlock_range(files[0], 0, 1), error::none);
        for (void* each : files) EXPECT_EQ(lock_range(each, 0, 1, false) + unlock_range(each, 0, 1), error::none);
    }
}

TEST_F(Threads, SuspendResumeAndEndRace) {
    for (int round = 0; round < 200; ++round) {
        void* thread = start();
        uint32_t previous = 0;
        const auto stopper = crew(1, [&](int) { stop_ = true; });
        if (!suspend_thread(thread, previous)) resume_thread(thread, previous);
        if (round % 2) terminate_thread(thread, 9);
        ASSERT_EQ(wait_handle(thread, patience_ms), error::none);
    }
}

void change_every_signal(int how) {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(how, &all, nullptr);
}

// The outcome stands when the slot is destroyed, and only there the thread takes the signal.
TEST_F(Threads, ASuspensionThatComesTooLateDoesNotParkIt) {
    uint32_t slot = 0;
    ASSERT_EQ(create_slot([](void*) { change_every_signal(SIG_UNBLOCK); }, slot), error::none);
    std::atomic<bool> ready{false};
    first_ = [&] {
        change_every_signal(SIG_BLOCK);
        set_slot_value(slot, &slot);
        ready = true;
    };
    void* thread = start();
    while (!ready) std::this_thread::yield();
    EXPECT_EQ(suspend(thread), 0u); // pending
    stop_ = true;
    EXPECT_EQ(outcome(thread), 7u);
    free_slot(slot);
}

} // namespace
} // namespace vel::os::testing
