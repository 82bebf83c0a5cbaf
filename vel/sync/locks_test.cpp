// The locks between threads and the guards.
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vel/sync/guard.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/expect_failure.h>

namespace {

using vel::testing::expect_failure;

// Whether another thread can take the lock by that call.
bool free_elsewhere(VEL_Base_Mutex& mutex, int (VEL_Base_Mutex::*take)()) {
    bool taken = false;
    std::thread([&] { taken = (mutex.*take)() == 0 && mutex.release() == 0; }).join();
    return taken;
}

constexpr auto any = &VEL_Base_Mutex::tryacquire;
constexpr auto read = &VEL_Base_Mutex::tryacquire_read;
constexpr auto write = &VEL_Base_Mutex::tryacquire_write;

TEST(ThreadMutex, IsRecursiveShutsOutOtherThreadsAndRefusesTheRest) {
    VEL_Thread_Mutex mutex;
    VEL_Base_Mutex& base = mutex;
    EXPECT_EQ(mutex.acquire() + mutex.tryacquire() + mutex.release(), 0);
    EXPECT_FALSE(free_elsewhere(mutex, any)) << "held once more than released";
    VEL_Thread_Mutex copy = mutex;
    EXPECT_TRUE(free_elsewhere(copy, any)) << "a copy is a fresh lock";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_TRUE(free_elsewhere(mutex, any));
    expect_failure(0x20000003, base.tryacquire_write());
    expect_failure(0x20000003, base.acquire(1000));
}

TEST(RwThreadMutex, ReadersShareAndWritersExclude) {
    VEL_RW_Thread_Mutex mutex;
    EXPECT_EQ(mutex.acquire_read(), 0);
    EXPECT_TRUE(free_elsewhere(mutex, read));
    VELLib::SetErrorCode(42);
    expect_failure(42, mutex.tryacquire_write()); // says nothing
    EXPECT_TRUE(free_elsewhere(mutex, read)) << "the entry is free again";
    EXPECT_EQ(mutex.release(), 0);

    EXPECT_EQ(mutex.acquire(), 0); // as a writer
    EXPECT_EQ(mutex.tryacquire_write(), 0) << "writing is recursive";
    EXPECT_FALSE(free_elsewhere(mutex, read));
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_FALSE(free_elsewhere(mutex, write));
    EXPECT_EQ(mutex.acquire_read(), 0); // the writer registers as a reader, too
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_FALSE(free_elsewhere(mutex, read)) << "this release was the reader's";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_TRUE(free_elsewhere(mutex, write));
}

TEST(RwThreadMutex, WaitingWriterGoesBeforeLaterReaders) {
    VEL_RW_Thread_Mutex mutex;
    std::atomic<int> turn{0};
    int writers_turn = 0, readers_turn = 0;
    mutex.acquire_read();
    std::thread writer([&] {
        VEL_Write_Guard guard(mutex);
        writers_turn = ++turn;
    });
    while (mutex.tryacquire_read() == 0) { // until the writer stands in the entry
        mutex.release();
        std::this_thread::yield();
    }
    std::thread reader([&] {
        VEL_Read_Guard guard(mutex);
        readers_turn = ++turn;
    });
    EXPECT_EQ(turn, 0) << "the first reader still holds the lock";
    mutex.release();
    writer.join();
    reader.join();
    EXPECT_EQ(writers_turn, 1);
    EXPECT_EQ(readers_turn, 2);
}

// Counts what a guard asks of it; fails on demand.
class RecordingMutex : public VEL_RW_Thread_Mutex {
public:
    using VEL_RW_Thread_Mutex::acquire;
    int acquire() override { return last = 1, result; }
    int acquire_read() override { return last = 2, result; }
    int acquire_write() override { return last = 3, result; }
    int release() override { return ++released, result; }
    int last = 0, released = 0, result = 0;
};

// The checker takes the second guard of one lock for a mistake.
template <class Guard>
VEL_NO_THREAD_SAFETY_ANALYSIS void check_guard_counts(int how) {
    RecordingMutex mutex;
    {
        Guard guard(mutex);
        EXPECT_EQ(mutex.last, how);
        EXPECT_EQ(guard.lock() + guard.lock() + guard.unlock(), 0);
        mutex.result = -1;
        EXPECT_EQ(guard.lock(), -1);
        EXPECT_EQ(guard.unlock(), -1); // fails, so it is still held twice
        Guard without(&mutex);         // could not take it
        EXPECT_EQ(without.unlock(), -1);
        mutex.result = 0;
    }
    EXPECT_EQ(mutex.released, 4);
    Guard empty(nullptr);
    expect_failure(0x20000004, empty.lock());
}

TEST(Guards, CountWhatTheyHold) {
    check_guard_counts<VEL_Guard>(1);
    check_guard_counts<VEL_Read_Guard>(2);
    check_guard_counts<VEL_Write_Guard>(3);
}

} // namespace
