// The named mutex and shared memory, between processes.
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/process_counts.h>
#include <vel/os/memory.h>
#include <vel/sync/guard.h>
#include <vel/sync/shared_memory.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/child_process.h>
#include <vel/testing/failing_allocations.h>

namespace {

using vel::testing::Child;
using vel::testing::ChildProcess;
using vel::testing::ProcessCounts;

std::string unique_name() {
    std::random_device entropy;
    return "sync_test/" + std::to_string(entropy()) + std::to_string(entropy());
}

const vel::testing::ChildRole holder("holder", [](Child& child) {
    VEL_Process_Mutex mutex(child.argument.c_str(), true);
    if (mutex.acquire() != 0) return 1;
    child.say("holding");
    child.hear();
    return mutex.release();
});

TEST(ProcessMutex, ExcludesOtherProcesses) {
    const std::string name = unique_name();
    ChildProcess child("holder", name);
    ASSERT_TRUE(child.heard("holding"));
    VEL_Process_Mutex mutex(name.c_str(), true);
    VELLib::SetErrorCode(42);
    EXPECT_EQ(mutex.tryacquire(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 42u);
    for (uint32_t timeout_ms : {0u, 20u}) {
        VELLib::SetErrorCode(42);
        EXPECT_EQ(mutex.acquire(timeout_ms), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), 258u);
    }
    EXPECT_EQ(mutex.release(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 288u);
    child.tell("release");
    bool abandoned = true;
    EXPECT_EQ(mutex.acquire(30000, abandoned), 0);
    EXPECT_FALSE(abandoned);
    EXPECT_EQ(child.join(), 0);
    EXPECT_EQ(mutex.acquire(0), 0) << "recursive";
    EXPECT_EQ(mutex.release() + mutex.release(), 0);
    EXPECT_EQ(mutex.release(), -1);
}

TEST(ProcessMutex, KilledOwnerHandsItOn) {
    const std::string name = unique_name();
    VEL_Process_Mutex mutex(name.c_str(), true);
    for (int round = 0; round < 3; ++round) {
        ChildProcess child("holder", name);
        ASSERT_TRUE(child.heard("holding"));
        int result = -1;
        bool abandoned = false;
        std::thread waiter([&] {
            result = mutex.acquire(30000, abandoned);
            mutex.release();
        });
        child.kill();
        waiter.join();
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(abandoned);
        EXPECT_EQ(mutex.acquire(0, abandoned), 0);
        EXPECT_FALSE(abandoned) << "told once";
        mutex.release();
    }
}

TEST(ProcessMutex, OpenAndClosedHandles) {
    const uint64_t before = vel::os::open_handle_count();
    {
        VEL_Process_Mutex closed(nullptr, false);
        EXPECT_EQ(closed.acquire(), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), 6u);
        EXPECT_EQ(closed.release(), -1);
        VELLib::SetErrorCode(0);
        EXPECT_EQ(closed.acquire_read(), -1);
        EXPECT_EQ(VELLib::GetErrorCode(), 0x20000003u);
        EXPECT_EQ(closed.open_mutex(nullptr), 0) << "unnamed";
        EXPECT_EQ(closed.acquire(), 0);
        VEL_Process_Mutex copy = closed;
        closed.close_mutex();
        closed.close_mutex();
        EXPECT_EQ(copy.release(), 0) << "the copy keeps the mutex alive";
        copy = closed;
        EXPECT_EQ(copy.acquire(), -1);
    }
    EXPECT_EQ(vel::os::open_handle_count(), before);
}

const vel::testing::ChildRole incrementer("incrementer", [](Child& child) {
    VEL_Shared_Memory block;
    if (block.open(child.argument.c_str(), 100) == -1) return 1;
    child.say("open");
    child.hear();
    auto* counter = static_cast<volatile uint64_t*>(block.c_ptr(16));
    for (int step = 0; step < 300; ++step) {
        VEL_Guard guard(block);
        const uint64_t value = *counter;
        std::this_thread::yield();
        *counter = value + 1;
    }
    return 0;
});

TEST(SharedMemory, ProcessesSeeTheSameBytesUnderOneLock) {
    const std::string name = unique_name();
    VEL_Shared_Memory block;
    const uint64_t page = vel::os::page_size();
    EXPECT_EQ(block.open(name.c_str(), page + 1), int(2 * page));
    EXPECT_EQ(block.size(), 2 * page);
    EXPECT_EQ(block.name(), name);
    EXPECT_EQ(block.c_ptr(16), static_cast<char*>(static_cast<void*>(block)) + 16);
    ChildProcess first("incrementer", name), second("incrementer", name);
    ASSERT_TRUE(first.heard("open") && second.heard("open"));
    first.tell("go");
    second.tell("go");
    EXPECT_EQ(first.join(), 0);
    EXPECT_EQ(second.join(), 0);
    EXPECT_EQ(*static_cast<uint64_t*>(block.c_ptr(16)), 600u);

    VEL_Shared_Memory again;
    EXPECT_EQ(again.open(name.c_str(), 10), int(2 * page)) << "a block that is there keeps its size";
    EXPECT_EQ(*static_cast<uint64_t*>(again.c_ptr(16)), 600u);
}

TEST(SharedMemory, VanishesWithItsLastOpener) {
    const uint64_t handles = vel::os::open_handle_count();
    const std::string name = unique_name();
    {
        VEL_Shared_Memory block;
        EXPECT_EQ(block.c_ptr(0), nullptr);
        ASSERT_NE(block.open(name.c_str(), 100), -1);
        std::memset(block.c_ptr(0), 7, 100);
        VEL_Shared_Memory copy = block;
        block.close();
        EXPECT_EQ(block.c_ptr(0), nullptr);
        EXPECT_EQ(block.size(), 0u);
        EXPECT_EQ(*static_cast<char*>(copy.c_ptr(99)), 7) << "the copy still has it";
        EXPECT_EQ(copy.acquire(), 0);
        EXPECT_EQ(copy.release(), 0);
        VEL_Shared_Memory third;
        third = copy;
        copy = *&copy; // assigning to itself changes nothing
        EXPECT_EQ(static_cast<void*>(third), static_cast<void*>(copy));
    }
    VEL_Shared_Memory fresh;
    ASSERT_NE(fresh.open(name.c_str(), 100), -1);
    EXPECT_EQ(*static_cast<char*>(fresh.c_ptr(99)), 0);
    fresh.close();
    EXPECT_EQ(vel::os::open_handle_count(), handles);
}

TEST(SharedMemory, FailedOpenLeavesNothingOpen) {
    const uint64_t handles = vel::os::open_handle_count();
    VEL_Shared_Memory block;
    EXPECT_EQ(block.open(unique_name().c_str(), uint64_t{1} << 32), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u) << "the low half of the size is 0";
    EXPECT_EQ(block.c_ptr(0), nullptr);
    EXPECT_EQ(vel::os::open_handle_count(), handles);
}

TEST(SharedMemory, ShortMemoryIsACodeWhereverItStrikes) {
    const std::string name = unique_name();
    const size_t descriptors = ProcessCounts::now().descriptors;
    VEL_Shared_Memory block;
    int result = 0;
    const auto open = [&] { result = block.open(name.c_str(), 100); };
    const auto failed = [&] {
        if (result != -1) return false;
        EXPECT_EQ(VELLib::GetErrorCode(), 8u);
        EXPECT_EQ(ProcessCounts::now().descriptors, descriptors);
        return true;
    };
    EXPECT_GT(vel::testing::fail_each_allocation(open, failed), 4);
    EXPECT_EQ(block.acquire(1000), 0);
    EXPECT_EQ(block.release(), 0);
}

} // namespace
