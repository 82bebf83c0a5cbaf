// Tests of the thread manager with plain threads.
#include <vel/threads/thread_manager.h>

#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/thread.h>
#include <vel/testing/balanced_test.h>
#include <vel/testing/crew.h>

// A killed thread runs no destructor, so its thread-local pointer to its descriptor is lost with it.
extern "C" VEL_API const char* __lsan_default_suppressions() {
    return "leak:VEL_TLS<VEL_Thread_Descriptor*>::tls_get\n";
}

namespace vel::testing {
namespace {

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;

using Count = std::atomic<int>;

int poll_cancel(void*) {
    while (!VEL_Thread_Manager::testcancel(VEL_thread_t())) std::this_thread::yield();
    return 0;
}

int add_one(void* count) { return ++*static_cast<Count*>(count); }

class ThreadManager : public BalancedTest {
protected:
    VEL_thread_t spawn(int (*func)(void*), int grp = 1, uint32_t flags = 0) {
        VEL_thread_t thread;
        EXPECT_EQ(manager_.spawn(func, &count_, thread, grp, 0, flags, add_one), 0);
        return thread;
    }

    Count count_{0}; // of cancels; outlives the manager, whose destructor joins
    VEL_Thread_Manager manager_{17};
};

TEST_F(ThreadManager, AThreadKnowsItselfAndItsStateToTheEnd) {
    static VEL_thread_t seen;
    const auto note = [](void*) { return seen = VEL_Thread_Manager::thr_self(), 259; }; // as one that still runs
    const VEL_thread_t thread = spawn(note, 1, 1);
    EXPECT_EQ(manager_.thr_state(thread), THR_SUSPENDED);
    EXPECT_EQ(manager_.resume(thread), 1);
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    EXPECT_EQ(seen, thread);
    EXPECT_EQ(manager_.thr_state(thread), THR_EXITED);
    EXPECT_EQ(manager_.kill(thread, 1), 0) << "forgets what has ended";
    EXPECT_EQ(manager_.thr_count(), 0u);
}

TEST_F(ThreadManager, WaitsShareOneBudgetAndKeepWhatHasNotEnded) {
    static constexpr uint32_t work_ms = 300, budget_ms = 350;
    const auto work = [](void*) { // of a known length
        return os::wait_handle(VEL_Thread_Manager::thr_self().thr_handle(), work_ms) == error::none ? 1 : 0;
    };
    spawn(work, 3);
    const VEL_thread_t thread = spawn(poll_cancel, 3);
    const uint64_t before = os::tick_ms64();
    expect_failure(error::wait_timeout, manager_.wait(3, budget_ms));
    const uint64_t elapsed = os::tick_ms64() - before;
    EXPECT_GE(elapsed, budget_ms);
    EXPECT_LT(elapsed, work_ms + budget_ms) << "that would be a budget for each";
    expect_failure(error::wait_timeout, manager_.wait(0));
    EXPECT_EQ(manager_.set_grp(thread, 4), 0);
    EXPECT_EQ(manager_.wait(3, long_ms), 0);
    EXPECT_EQ(manager_.thr_count(), 1u);
    EXPECT_EQ(manager_.cancel(4), 0);
    EXPECT_EQ(manager_.wait(long_ms), 0);
}

TEST_F(ThreadManager, JoinAndCloseEndThreadsThatWereNeverResumed) {
    int exit_code = 0;
    EXPECT_EQ(manager_.join(spawn(poll_cancel, 1, 1), &exit_code), 0);
    EXPECT_EQ(exit_code, -1);
    EXPECT_EQ(count_, 1);
    spawn(poll_cancel);
    manager_.close();
    EXPECT_EQ(manager_.thr_count(), 0u);
    EXPECT_EQ(count_, 3); // close cancels, and so does its join
    VEL_thread_t thread;
    expect_failure(error::object_closed, manager_.spawn(poll_cancel, nullptr, thread, 1, 0, 0, nullptr));
}

TEST_F(ThreadManager, NobodyWaitsForItself) {
    const auto try_all = [](void* argument) {
        auto* manager = static_cast<VEL_Thread_Manager*>(argument);
        const VEL_thread_t self = VEL_Thread_Manager::thr_self();
        expect_failure(error::possible_deadlock, manager->join(self, nullptr));
        expect_failure(error::possible_deadlock, manager->wait(self, VEL_INFINITE));
        expect_failure(error::possible_deadlock, manager->wait(1, VEL_INFINITE));
        expect_failure(error::possible_deadlock, manager->wait(VEL_INFINITE));
        expect_failure(error::access_denied, manager->kill(self, 1));
        manager->close(); // joins the others only
        return VEL_Thread_Manager::testcancel(self) ? 1 : 0;
    };
    VEL_thread_t thread;
    int exit_code = -1;
    ASSERT_EQ(manager_.spawn(try_all, &manager_, thread, 1, 0, 0, nullptr), 0);
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    EXPECT_EQ(manager_.join(thread, &exit_code), 0);
    EXPECT_EQ(exit_code, 0);
}

// The event is not the manager's: a thread that blocks stands still, goes on and ends wherever it waits.
TEST_F(ThreadManager, SuspendsAndKillsWhatBlocks) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread";
#endif
    static void* event;
    ASSERT_EQ(os::create_event(false, false, event), error::none);
    const VEL_thread_t thread = spawn([](void* rounds) {
        while (add_one(rounds), os::wait_handle(event, long_ms) == error::none) {
        }
        return 1;
    });
    while (count_ == 0) std::this_thread::yield();
    EXPECT_EQ(manager_.suspend(thread), 0);
    EXPECT_EQ(manager_.suspend(1), 0);
    os::set_event(event);
    EXPECT_EQ(manager_.resume(thread), 2);
    EXPECT_EQ(manager_.thr_state(thread), THR_SUSPENDED); // still one to go
    expect_failure(error::wait_timeout, manager_.wait(thread, short_ms));
    EXPECT_EQ(count_, 1);
    EXPECT_EQ(manager_.resume(1), 0);
    EXPECT_EQ(manager_.thr_state(thread), THR_RUNNING);
    while (count_ == 1) std::this_thread::yield();
    EXPECT_EQ(manager_.kill(thread, 7), 0);
    expect_failure(error::not_found, manager_.thr_state(thread));
    spawn(poll_cancel, 2);
    spawn(poll_cancel, 2, 1);
    EXPECT_EQ(manager_.kill(2, 9), 0);
    os::close_handle(event);
}

TEST_F(ThreadManager, JoinsAndWaitsForTheSameThreadsRace) {
    for (int round = 0; round < 30; ++round) {
        VEL_thread_t threads[4];
        ASSERT_EQ(manager_.spawn(poll_cancel, nullptr, 4, threads, 1, 0, 0, nullptr), 0);
        const auto waiter = crew(1, [&](int) { EXPECT_EQ(manager_.wait(1, long_ms), 0); });
        manager_.join(threads[round % 4], nullptr);
        EXPECT_EQ(manager_.cancel_all(), 0);
    }
}

} // namespace
} // namespace vel::testing
