// The locks between threads and the guards.
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <utility>
#include <vel/frame/error.h>
#include <vel/sync/guard.h>
#include <vel/testing/allocator_environment.h>

namespace {

constexpr uint32_t untouched = 42;

// What another thread gets from a call on a lock.
template <class Call>
int elsewhere(Call call) {
    int result = 0;
    std::thread([&] { result = call(); }).join();
    return result;
}

// Result and error code of a call, in one number that reads well when it differs.
template <class Call>
std::pair<int, uint32_t> outcome(Call call) {
    VELLib::SetErrorCode(untouched);
    const int result = call();
    return {result, VELLib::GetErrorCode()};
}

using Outcome = std::pair<int, uint32_t>;

int try_write_elsewhere(VEL_Base_Mutex& mutex) {
    return elsewhere([&] { return mutex.tryacquire_write() == 0 ? mutex.release() : -1; });
}
int try_read_elsewhere(VEL_Base_Mutex& mutex) {
    return elsewhere([&] { return mutex.tryacquire_read() == 0 ? mutex.release() : -1; });
}

TEST(ThreadMutex, IsRecursiveShutsOutOtherThreadsAndRefusesTheRest) {
    VEL_Thread_Mutex mutex;
    VEL_Base_Mutex& base = mutex;
    const auto try_elsewhere = [](VEL_Base_Mutex& lock) {
        return elsewhere([&] { return lock.tryacquire() == 0 ? lock.release() : -1; });
    };
    EXPECT_EQ(mutex.acquire() + mutex.tryacquire() + mutex.release(), 0);
    EXPECT_EQ(try_elsewhere(mutex), -1) << "held once more than released";
    VEL_Thread_Mutex copy = mutex;
    EXPECT_EQ(try_elsewhere(copy), 0) << "a copy is a fresh lock";
    copy = mutex;
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(try_elsewhere(mutex), 0);
    const Outcome expected{-1, 0x20000003};
    EXPECT_EQ(outcome([&] { return base.tryacquire_write(); }), expected);
    EXPECT_EQ(outcome([&] { return base.acquire_read(); }), expected);
    EXPECT_EQ(outcome([&] { return base.acquire(1000); }), expected);
    EXPECT_EQ(outcome([&] { return VEL_RW_Thread_Mutex().acquire(1000); }), expected);
}

TEST(RwThreadMutex, ReadersShareAndWritersExclude) {
    VEL_RW_Thread_Mutex mutex;
    EXPECT_EQ(mutex.acquire_read(), 0);
    EXPECT_EQ(try_read_elsewhere(mutex), 0);
    EXPECT_EQ(outcome([&] { return mutex.tryacquire_write(); }), (Outcome{-1, untouched}));
    EXPECT_EQ(outcome([&] { return mutex.tryacquire(); }), (Outcome{-1, untouched}));
    EXPECT_EQ(try_read_elsewhere(mutex), 0) << "the entry is free again";
    EXPECT_EQ(mutex.release(), 0);

    EXPECT_EQ(mutex.acquire(), 0); // as a writer
    EXPECT_EQ(mutex.tryacquire_write(), 0) << "writing is recursive";
    EXPECT_EQ(try_read_elsewhere(mutex), -1);
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(try_write_elsewhere(mutex), -1);
    EXPECT_EQ(mutex.acquire_read(), 0); // the writer registers as a reader, too
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(try_read_elsewhere(mutex), -1) << "this release was the reader's";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(try_write_elsewhere(mutex), 0);
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

template <class Guard>
void check_guard_counts(int how) {
    RecordingMutex mutex;
    {
        Guard guard(mutex);
        EXPECT_EQ(mutex.last, how);
        EXPECT_EQ(guard.lock() + guard.lock() + guard.unlock(), 0);
        mutex.result = -1;
        EXPECT_EQ(guard.lock(), -1);
        EXPECT_EQ(guard.unlock(), -1); // fails, so it is still held twice
        Guard without(&mutex);         // could not take it
        EXPECT_EQ(outcome([&] { return without.unlock(); }), (Outcome{-1, untouched}));
        mutex.result = 0;
    }
    EXPECT_EQ(mutex.released, 4);
    Guard empty(nullptr);
    EXPECT_EQ(outcome([&] { return empty.lock(); }), (Outcome{-1, 0x20000004}));
}

TEST(Guards, CountWhatTheyHold) {
    check_guard_counts<VEL_Guard>(1);
    check_guard_counts<VEL_Read_Guard>(2);
    check_guard_counts<VEL_Write_Guard>(3);
}

} // namespace
