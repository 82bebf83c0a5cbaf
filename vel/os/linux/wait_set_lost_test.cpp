// Tests of a wait set whose sleeper never comes back.
#include <vel/os/wait_set.h>

#include <gtest/gtest.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/lock_waiter.h>
#include <vel/os/thread.h>

#ifndef __has_feature // a word of one compiler only
#define __has_feature(name) 0
#endif

namespace vel::os {
namespace {

constexpr uint32_t patience_ms = 10000;

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
    EXPECT_TRUE(vel::testing::comes_to_sleep_in(id, {SYS_epoll_pwait2}));
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
    set->wake();
    void* other = start_sleeper(*set); // waits first for the lost one to leave, in vain
    EXPECT_EQ(set->add_event(1, lost), error::none);
    EXPECT_EQ(wait_handle(other, patience_ms), error::none); // has been given the handle of the thread that ended
    EXPECT_EQ(close_handle(lost) + close_handle(other), error::none);
}

} // namespace
} // namespace vel::os
