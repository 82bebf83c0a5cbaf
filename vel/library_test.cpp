// Tests of start and stop, against the library as its users link it.
#include <vel/vel.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vel/os/linux/testing/process_counts.h>
#include <vel/testing/crew.h>

namespace {

using vel::testing::crew;
using vel::testing::ProcessCounts;

int poll_cancel(void*) {
    while (!VEL_Thread_Manager::testcancel(VEL_thread_t())) std::this_thread::yield();
    return 0;
}

/// One user's life: starts, lets a thread run, and leaves its end to the stop.
void use_library() {
    ASSERT_EQ(VELLib::initialize(), 0);
    VEL_thread_t thread;
    ASSERT_EQ(VEL_Thread_Manager::instance()->spawn(poll_cancel, nullptr, thread, 1, 0, 0, nullptr), 0);
    VELLib::free(VELLib::malloc(100, true));
    VELLib::uninitialize();
}

TEST(Library, StartsAreCounted) {
    VELLib::uninitialize(); // one too many
    for (int start = 0; start < 2; ++start) EXPECT_EQ(VELLib::initialize(), 0);
    for (const bool started : {true, false}) {
        VELLib::uninitialize();
        EXPECT_EQ(VELLib::isInitiate(), started);
    }
}

TEST(Library, KeepsAnAllocatorThatWasInstalledBefore) {
    VELLib::set_allocator(VEL_Virtual_Allocator::instance());
    ASSERT_EQ(VELLib::initialize(), 0);
    void* block = VELLib::malloc(1, false);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 4096, 0u) << "its blocks are pages";
    VELLib::free(block);
    VELLib::uninitialize();
    VELLib::set_allocator(nullptr);
}

TEST(Library, AThousandLivesLeaveNothingBehind) {
    ProcessCounts before{};
    for (int round = 0; round < 20; ++round) { // until the runtime's own caches are full
        use_library();
        before = ProcessCounts::now();
    }
    for (int round = 0; round < 1000; ++round) use_library();
    EXPECT_EQ(ProcessCounts::now(), before);
}

TEST(Library, UsersThatComeAndGoTogetherNeverMeetAHalfStoppedLibrary) {
    crew(2, [](int) {
        for (int round = 0; round < 200; ++round) use_library();
    });
}

std::atomic<int> refused{0};

void start_again() {
    if (VELLib::initialize() == -1 && VELLib::GetErrorCode() == 0x20000007) ++refused;
}

struct StartsAgain : VEL_SingleInstance {
    ~StartsAgain() override { start_again(); }
};

TEST(Library, WhatTheStopWaitsForIsRefusedAFreshStart) {
    refused = 0;
    ASSERT_EQ(VELLib::initialize(), 0);
    ASSERT_EQ(VEL_SingleInstance::add_instance(nullptr), 0) << "which ends nothing";
    ASSERT_EQ(VEL_SingleInstance::add_instance(new StartsAgain), 0);
    VEL_thread_t thread;
    const auto restart_at_the_end = [](void*) {
        while (VELLib::isInitiate()) std::this_thread::yield();
        start_again();
        return 0;
    };
    EXPECT_EQ(VEL_Thread_Manager::instance()->spawn(restart_at_the_end, nullptr, thread, 1, 0, 0, nullptr), 0);
    VELLib::uninitialize();
    EXPECT_EQ(refused, 2);
}

} // namespace
