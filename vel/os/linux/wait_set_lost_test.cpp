// Tests of a wait set whose sleeper never comes back.
#include <vel/os/wait_set.h>

#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/thread.h>

#ifndef __has_feature // a word of one compiler only
#define __has_feature(name) 0
#endif

namespace vel::os {
namespace {

constexpr uint32_t patience_ms = 10000;

// True once the thread sleeps in the wait, where it holds no lock.
bool comes_to_sleep(uint32_t thread_id) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    for (const uint64_t end = tick_ms64() + patience_ms; tick_ms64() < end; std::this_thread::yield()) {
        long call = -1;
        std::ifstream(path) >> call; // a word instead while the thread runs
        if (call == SYS_epoll_pwait2) return true;
    }
    return false;
}

uint32_t sleep_in(void* argument) {
    auto* set = static_cast<WaitSet*>(argument);
    uint64_t key = 0;
    return set->wait(0, set->generation(), VEL_INFINITE, key);
}

void* start_sleeper(WaitSet& set) {
    void* thread = nullptr;
    uint32_t id = 0, previous = 0;
    EXPECT_EQ(create_thread(sleep_in, &set, 0, thread, id), error::none);
    EXPECT_EQ(resume_thread(thread, previous), error::none);
    EXPECT_TRUE(comes_to_sleep(id));
    return thread;
}

TEST(LostSleeper, IsGivenUpAndTheOthersGoOn) {
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
    GTEST_SKIP() << "the thread sanitizer delays signals and never joins a killed thread";
#endif
    std::unique_ptr<WaitSet> set;
    ASSERT_EQ(create_wait_set(set), error::none);
    void* lost = start_sleeper(*set);
    ASSERT_EQ(terminate_thread(lost, 1), error::none);
    uint64_t key = 0;
    ASSERT_EQ(set->add_event(1, lost), error::none);
    EXPECT_EQ(set->wait(0, set->generation(), patience_ms, key), error::none); // it has ended
    EXPECT_EQ(key, 1u);
    set->remove(1);
    set->wake();
    EXPECT_EQ(set->wait(0, set->generation(), 20, key), error::wait_timeout);
    void* other = start_sleeper(*set); // though nobody has left the wait
    set->wake();
    EXPECT_EQ(wait_handle(other, patience_ms), error::none);
    EXPECT_EQ(close_handle(lost) + close_handle(other), error::none);
}

} // namespace
} // namespace vel::os
