// The locks between processes and shared memory: codes and copies, and what their classes add to the system's.
#include <cstring>
#include <gtest/gtest.h>
#include <thread>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/memory.h>
#include <vel/platform/files.h>
#include <vel/sync/file_mutex.h>
#include <vel/sync/guard.h>
#include <vel/sync/shared_memory.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/expect_failure.h>
#include <vel/testing/temporary_directory.h>

namespace {

using vel::testing::expect_failure;
using vel::testing::ObjectName;
using vel::testing::Talk;

TEST(FileMutex, LocksLengthBytesFromOffset) {
    const vel::testing::TemporaryDirectory directory;
    const std::string path = directory.path("locked");
    void* first = VELLib::create(path.c_str(), false, 0);
    void* second = VELLib::open(path.c_str(), false, 0);
    VEL_File_Mutex mutex(first, 10, 100); // bytes 100 to 109
    VEL_File_Mutex other(second, 1, 109);
    EXPECT_EQ(mutex.acquire(), 0);
    expect_failure(33, other.tryacquire());
    other.setlockopt(second, 90, 10); // bytes 10 to 99
    EXPECT_EQ(other.tryacquire() + other.release() + mutex.release(), 0);
    expect_failure(158, mutex.release());
    VELLib::close(first);
    VELLib::close(second);
}

TEST(ProcessMutex, TellsWhoHoldsItByItsCodes) {
    const ObjectName name;
    VEL_Process_Mutex mutex(name.c_str(), true);
    EXPECT_EQ(mutex.acquire(), 0);
    std::thread([&] {
        VELLib::SetErrorCode(42);
        expect_failure(42, mutex.tryacquire()); // says nothing
        expect_failure(258, mutex.acquire(0));
        expect_failure(288, mutex.release());
    }).join();
    EXPECT_EQ(mutex.release(), 0);
    std::thread([&] { mutex.acquire(); }).join(); // and dies with it
    bool abandoned = false;
    EXPECT_EQ(mutex.acquire(20000, abandoned), 0);
    EXPECT_TRUE(abandoned);
    EXPECT_EQ(mutex.release(), 0);
}

TEST(SharedMemory, ProcessesSeeTheSameBytesUnderOneLock) {
    const ObjectName name;
    const auto count_up = [&](VEL_Shared_Memory& block) {
        auto* counter = static_cast<volatile uint64_t*>(block.c_ptr(16));
        for (int step = 0; step < 300; ++step) {
            VEL_Guard guard(block);
            const uint64_t value = *counter;
            std::this_thread::yield();
            *counter = value + 1;
        }
    };
    vel::testing::ChildProcess other([&](Talk& parent) {
        VEL_Shared_Memory block;
        if (!parent.hear() || block.open(name.c_str(), 10) == -1) return 1;
        parent.tell();
        count_up(block);
        return 0;
    });
    VEL_Shared_Memory block;
    EXPECT_EQ(block.open(name.c_str(), vel::os::page_size() + 1), int(2 * vel::os::page_size()));
    other.talk().tell();
    ASSERT_TRUE(other.talk().hear());
    count_up(block);
    EXPECT_EQ(other.wait(), 0);
    EXPECT_EQ(*static_cast<uint64_t*>(block.c_ptr(16)), 600u);
}

TEST(SharedMemory, CopiesShareItUntilTheLastIsClosed) {
    const uint64_t handles = vel::os::open_handle_count();
    const ObjectName name;
    VEL_Shared_Memory block;
    ASSERT_NE(block.open(name.c_str(), 100), -1);
    std::memset(block.c_ptr(0), 7, 100);
    VEL_Shared_Memory copy = block;
    block.close();
    EXPECT_EQ(*static_cast<char*>(copy.c_ptr(99)), 7) << "the copy still has it";
    copy.close();
    expect_failure(87, copy.open(name.c_str(), uint64_t{1} << 32)); // the low half of the size is 0
    EXPECT_EQ(vel::os::open_handle_count(), handles);
}

} // namespace
