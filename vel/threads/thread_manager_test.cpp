// Tests of the thread manager with plain threads.
#include <vel/threads/thread_manager.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vel/frame/error.h>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/thread.h>
#include <vel/testing/allocator_environment.h>

// A killed thread runs no destructor, so its thread-local pointer to its descriptor is lost with it.
extern "C" VEL_API const char* __lsan_default_suppressions() {
    return "leak:VEL_TLS<VEL_Thread_Descriptor*>::tls_get\n";
}

namespace {

using namespace vel;

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;

struct Work {
    std::atomic<int> started{0}, cancelled{0};
};

/// Runs until it is cancelled.
int poll_cancel(void* argument) {
    ++static_cast<Work*>(argument)->started;
    while (!VEL_Thread_Manager::testcancel(VEL_thread_t())) std::this_thread::yield();
    return 5;
}

int count_cancel(void* argument) { return ++static_cast<Work*>(argument)->cancelled; }

class ThreadManager : public ::testing::Test {
protected:
    VEL_thread_t spawn(int (*func)(void*), int grp = 1, uint32_t flags = 0, int (*cancel)(void*) = nullptr) {
        VEL_thread_t thread;
        EXPECT_EQ(manager_.spawn(func, &work_, thread, grp, 0, flags, cancel), 0);
        return thread;
    }
    template <class Call>
    static void expect_error(Call call, uint32_t code) {
        VELLib::SetErrorCode(1);
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), code);
    }

    Work work_; // outlives the manager, whose destructor joins
    VEL_Thread_Manager manager_{17};
};

TEST_F(ThreadManager, AThreadKnowsItselfAndItsStateToTheEnd) {
    static VEL_thread_t seen;
    const VEL_thread_t thread = spawn([](void*) { return seen = VEL_Thread_Manager::thr_self(), 2; }, 1, 1);
    EXPECT_EQ(manager_.thr_state(thread), THR_SUSPENDED);
    EXPECT_EQ(manager_.resume(thread), 1);
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    EXPECT_EQ(seen, thread);
    EXPECT_EQ(manager_.thr_state(thread), THR_EXITED);
    EXPECT_EQ(manager_.wait(thread, 0), 0) << "stays known until somebody waits";
}

TEST_F(ThreadManager, WaitsShareOneBudgetAndKeepWhatHasNotEnded) {
    VEL_thread_t threads[4];
    ASSERT_EQ(manager_.spawn(poll_cancel, &work_, 4, threads, 3, 0, 0, nullptr), 0);
    const uint64_t before = os::tick_ms64();
    expect_error([&] { return manager_.wait(3, 4 * short_ms); }, error::wait_timeout);
    expect_error([&] { return manager_.wait(4 * short_ms); }, error::wait_timeout);
    const uint64_t elapsed = os::tick_ms64() - before;
    EXPECT_GE(elapsed, 8 * short_ms);
    EXPECT_LT(elapsed, 32 * short_ms); // a budget for each thread would take that long
    EXPECT_EQ(manager_.set_grp(threads[0], 4), 0);
    EXPECT_EQ(manager_.cancel(4), 0);
    EXPECT_EQ(manager_.wait(4, long_ms), 0);
    EXPECT_EQ(manager_.thr_count(), 3u);
}

TEST_F(ThreadManager, JoinAndCloseEndThreadsThatWereNeverResumed) {
    int exit_code = 0;
    EXPECT_EQ(manager_.join(spawn(poll_cancel, 1, 1), &exit_code), 0);
    EXPECT_EQ(exit_code, -1);
    spawn(poll_cancel, 1, 0, count_cancel);
    manager_.close();
    EXPECT_EQ(manager_.thr_count(), 0u);
    EXPECT_EQ(work_.cancelled, 2); // close cancels, and so does its join
    VEL_thread_t thread;
    expect_error([&] { return manager_.spawn(poll_cancel, &work_, thread, 1, 0, 0, nullptr); }, error::object_closed);
}

TEST_F(ThreadManager, NobodyWaitsForItself) {
    static VEL_Thread_Manager* manager;
    manager = &manager_;
    const VEL_thread_t thread = spawn([](void*) {
        const VEL_thread_t self = VEL_Thread_Manager::thr_self();
        const auto refused = [](int result) {
            return result == -1 && VELLib::GetErrorCode() == error::possible_deadlock ? 0 : 1;
        };
        int wrong = refused(manager->join(self, nullptr)) + refused(manager->wait(self, VEL_INFINITE)) +
                    refused(manager->wait(1, VEL_INFINITE)) + refused(manager->wait(VEL_INFINITE));
        wrong += manager->kill(self, 1) == -1 && VELLib::GetErrorCode() == error::access_denied ? 0 : 1;
        manager->close(); // joins the others only
        return wrong + (VEL_Thread_Manager::testcancel(self) ? 100 : 0);
    });
    int exit_code = -1;
    EXPECT_EQ(os::wait_handle(thread.thr_handle(), long_ms), error::none);
    EXPECT_EQ(manager_.join(thread, &exit_code), 0);
    EXPECT_EQ(exit_code, 0);
}

TEST_F(ThreadManager, SuspendsKillsAndForgets) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread";
#endif
    const uint64_t before = os::open_handle_count();
    const VEL_thread_t thread = spawn(poll_cancel);
    while (work_.started == 0) std::this_thread::yield();
    EXPECT_EQ(manager_.suspend(thread), 0);
    EXPECT_EQ(manager_.suspend(1), 0);
    EXPECT_EQ(manager_.resume(thread), 2);
    EXPECT_EQ(manager_.thr_state(thread), THR_SUSPENDED); // still one to go
    EXPECT_EQ(manager_.resume(1), 0);
    EXPECT_EQ(manager_.kill(thread, 9), 0);
    expect_error([&] { return manager_.thr_state(thread); }, error::not_found);
    spawn(poll_cancel, 2);
    spawn(poll_cancel, 2, 1);
    EXPECT_EQ(manager_.kill(2, 9), 0);
    EXPECT_EQ(os::open_handle_count(), before);
}

// The event is not the manager's: a thread that blocks stands still, goes on and ends wherever it waits.
TEST_F(ThreadManager, SuspendsAndKillsWhatBlocks) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread";
#endif
    static void* event;
    ASSERT_EQ(os::create_event(false, false, event), error::none);
    const auto block = [](void* argument) {
        auto* work = static_cast<Work*>(argument);
        while (++work->started, os::wait_handle(event, long_ms) == error::none) {
        }
        return 1;
    };
    const uint64_t handles = os::open_handle_count();
    const VEL_thread_t thread = spawn(block);
    while (work_.started == 0) std::this_thread::yield();
    EXPECT_EQ(manager_.suspend(thread), 0);
    EXPECT_EQ(manager_.suspend(thread), 1);
    os::set_event(event);
    expect_error([&] { return manager_.wait(thread, short_ms); }, error::wait_timeout);
    EXPECT_EQ(work_.started, 1);
    EXPECT_EQ(manager_.thr_state(thread), THR_SUSPENDED);
    EXPECT_EQ(manager_.resume(thread), 2);
    EXPECT_EQ(manager_.resume(thread), 1);
    EXPECT_EQ(manager_.thr_state(thread), THR_RUNNING);
    while (work_.started == 1) std::this_thread::yield();
    EXPECT_EQ(manager_.kill(thread, 7), 0);
    EXPECT_EQ(manager_.thr_count(), 0u);
    EXPECT_EQ(os::open_handle_count(), handles);
    os::close_handle(event);
}

TEST_F(ThreadManager, JoinsAndWaitsForTheSameThreadsRace) {
    const uint64_t before = os::open_handle_count();
    for (int round = 0; round < 30; ++round) {
        VEL_thread_t threads[4];
        ASSERT_EQ(manager_.spawn(poll_cancel, &work_, 4, threads, 1, 0, 0, nullptr), 0);
        std::thread waiter([&] { EXPECT_EQ(manager_.wait(1, long_ms), 0); });
        manager_.join(threads[round % 4], nullptr);
        EXPECT_EQ(manager_.cancel_all(), 0);
        waiter.join();
    }
    EXPECT_EQ(os::open_handle_count(), before);
}

} // namespace
