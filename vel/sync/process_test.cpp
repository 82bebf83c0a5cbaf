// The named mutex and shared memory: codes and copies; between processes only what their classes add to the system's.
#include <cstring>
#include <gtest/gtest.h>
#include <thread>
#include <vel/frame/error.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/memory.h>
#include <vel/sync/guard.h>
#include <vel/sync/shared_memory.h>
#include <vel/testing/allocator_environment.h>

namespace {

using vel::testing::ChildProcess;
using vel::testing::Talk;

std::string unique_name() {
    static int count = 0;
    return "sync_test/" + std::to_string(::getpid()) + "." + std::to_string(++count);
}

TEST(ProcessMutex, TellsWhoHoldsItByItsCodes) {
    const std::string name = unique_name();
    ChildProcess owner([&](Talk& parent) {
        VEL_Process_Mutex mutex(name.c_str(), true);
        if (mutex.acquire() != 0) return 1;
        parent.tell();
        return parent.hear() ? 0 : 2;
    });
    ASSERT_TRUE(owner.talk().hear());
    VEL_Process_Mutex mutex(name.c_str(), true);
    VELLib::SetErrorCode(42);
    EXPECT_EQ(mutex.tryacquire(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 42u);
    EXPECT_EQ(mutex.acquire(0), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 258u);
    EXPECT_EQ(mutex.release(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 288u);
    owner.kill();
    bool abandoned = false;
    EXPECT_EQ(mutex.acquire(20000, abandoned), 0);
    EXPECT_TRUE(abandoned);
    EXPECT_EQ(mutex.acquire(0, abandoned), 0) << "recursive";
    EXPECT_FALSE(abandoned);
    EXPECT_EQ(mutex.release() + mutex.release(), 0);
}

TEST(SharedMemory, ProcessesSeeTheSameBytesUnderOneLock) {
    const std::string name = unique_name();
    const auto count_up = [&](VEL_Shared_Memory& block) {
        auto* counter = static_cast<volatile uint64_t*>(block.c_ptr(16));
        for (int step = 0; step < 300; ++step) {
            VEL_Guard guard(block);
            const uint64_t value = *counter;
            std::this_thread::yield();
            *counter = value + 1;
        }
    };
    ChildProcess other([&](Talk& parent) {
        VEL_Shared_Memory block;
        if (!parent.hear() || block.open(name.c_str(), 10) == -1) return 1;
        parent.tell();
        count_up(block);
        return block.size() == 2 * vel::os::page_size() ? 0 : 2; // a block that is there keeps its size
    });
    VEL_Shared_Memory block;
    const uint64_t page = vel::os::page_size();
    EXPECT_EQ(block.open(name.c_str(), page + 1), int(2 * page));
    EXPECT_EQ(block.size(), 2 * page);
    other.talk().tell();
    ASSERT_TRUE(other.talk().hear());
    count_up(block);
    EXPECT_EQ(other.wait(), 0);
    EXPECT_EQ(*static_cast<uint64_t*>(block.c_ptr(16)), 600u);
}

TEST(SharedMemory, CopiesShareItAndItVanishesWithTheLast) {
    const uint64_t handles = vel::os::open_handle_count();
    const std::string name = unique_name();
    {
        VEL_Shared_Memory block;
        ASSERT_NE(block.open(name.c_str(), 100), -1);
        std::memset(block.c_ptr(0), 7, 100);
        VEL_Shared_Memory copy = block;
        block.close();
        EXPECT_EQ(*static_cast<char*>(copy.c_ptr(99)), 7) << "the copy still has it";
    }
    VEL_Shared_Memory fresh;
    ASSERT_NE(fresh.open(name.c_str(), 100), -1);
    EXPECT_EQ(*static_cast<char*>(fresh.c_ptr(99)), 0);
    EXPECT_EQ(fresh.open(name.c_str(), uint64_t{1} << 32), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 87u) << "the low half of the size is 0";
    EXPECT_EQ(vel::os::open_handle_count(), handles) << "a failure leaves nothing open";
}

} // namespace
