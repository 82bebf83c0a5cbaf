// Tests of the control signal of a thread that is on its way out.
#include <vel/os/thread.h>

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

void change_every_signal(int how) {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(how, &all, nullptr);
}

std::atomic<bool> started{false}, leave{false};
uint32_t slot = 0;

// Its outcome stands when the slot is destroyed, and only there it takes the signal.
uint32_t take_signals_late(void*) {
    change_every_signal(SIG_BLOCK);
    set_slot_value(slot, &slot);
    started = true;
    while (!leave) std::this_thread::yield();
    return 5;
}

TEST(ThreadExit, ASignalThatComesTooLateDoesNotParkTheThread) {
    ASSERT_EQ(create_slot([](void*) { change_every_signal(SIG_UNBLOCK); }, slot), error::none);
    void* thread = nullptr;
    uint32_t id = 0, previous = 0;
    ASSERT_EQ(create_thread(take_signals_late, nullptr, 0, thread, id), error::none);
    ASSERT_EQ(resume_thread(thread, previous), error::none);
    while (!started) std::this_thread::yield();
    EXPECT_EQ(suspend_thread(thread, previous), error::none); // pending
    leave = true;
    EXPECT_EQ(wait_handle(thread, 10000), error::none);
    EXPECT_EQ(thread_exit_code(thread, previous), error::none);
    EXPECT_EQ(previous, 5u);
    close_handle(thread);
    free_slot(slot);
}

} // namespace
} // namespace vel::os
