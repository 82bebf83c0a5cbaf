// The locks between threads and the guards.
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>
#include <utility>
#include <vector>
#include <vel/frame/error.h>
#include <vel/sync/guard.h>
#include <vel/testing/allocator_environment.h>

namespace {

constexpr uint32_t untouched = 42;
constexpr uint32_t unsupported = 0x20000003;

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

TEST(BaseMutex, EveryOperationSucceedsAndBlocksNothing) {
    VEL_Base_Mutex mutex;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(mutex.tryacquire() + mutex.tryacquire_read() + mutex.tryacquire_write(), 0);
        EXPECT_EQ(mutex.acquire(0) + mutex.acquire() + mutex.acquire_read() + mutex.acquire_write(), 0);
    }
    EXPECT_EQ(elsewhere([&] { return mutex.acquire_write(); }), 0);
    EXPECT_EQ(mutex.release(), 0);
}

TEST(ThreadMutex, IsRecursiveAndShutsOutOtherThreads) {
    VEL_Thread_Mutex mutex;
    EXPECT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(mutex.tryacquire(), 0);
    EXPECT_EQ(mutex.release(), 0);
    const auto refused = [&] {
        return elsewhere([&] {
            const auto result = outcome([&] { return mutex.tryacquire(); });
            if (result.first == 0) mutex.release();
            return result == Outcome{-1, untouched};
        });
    };
    EXPECT_TRUE(refused()) << "held once more than released";
    VEL_Thread_Mutex copy = mutex;
    EXPECT_EQ(elsewhere([&] { return copy.acquire() == 0 ? copy.release() : -1; }), 0) << "a copy is a fresh lock";
    copy = mutex;
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_FALSE(refused());
}

TEST(ThreadMutex, RefusesWhatItDoesNotOffer) {
    VEL_Thread_Mutex mutex;
    VEL_Base_Mutex& base = mutex;
    const Outcome expected{-1, unsupported};
    EXPECT_EQ(outcome([&] { return base.tryacquire_read(); }), expected);
    EXPECT_EQ(outcome([&] { return base.tryacquire_write(); }), expected);
    EXPECT_EQ(outcome([&] { return base.acquire(1000); }), expected);
    EXPECT_EQ(outcome([&] { return base.acquire_read(); }), expected);
    EXPECT_EQ(outcome([&] { return base.acquire_write(); }), expected);
    VEL_RW_Thread_Mutex rw;
    EXPECT_EQ(outcome([&] { return rw.acquire(1000); }), expected);
}

TEST(RwThreadMutex, ReadersShareAndWritersExclude) {
    VEL_RW_Thread_Mutex mutex;
    EXPECT_EQ(mutex.acquire_read(), 0);
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_read() == 0 ? mutex.release() : -1; }), 0);
    EXPECT_EQ(outcome([&] { return mutex.tryacquire_write(); }), (Outcome{-1, untouched}));
    EXPECT_EQ(outcome([&] { return mutex.tryacquire(); }), (Outcome{-1, untouched}));
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_read() == 0 ? mutex.release() : -1; }), 0)
        << "the entry is free again";
    EXPECT_EQ(mutex.release(), 0);

    EXPECT_EQ(mutex.acquire(), 0); // as a writer
    EXPECT_EQ(mutex.tryacquire_write(), 0) << "writing is recursive";
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_read(); }), -1);
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_write(); }), -1);
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_write() == 0 ? mutex.release() : -1; }), 0);
}

TEST(RwThreadMutex, ReleaseCountsAsAReadersWhileThereIsOne) {
    VEL_RW_Thread_Mutex mutex;
    mutex.acquire_write();
    mutex.acquire_read(); // the writer registers as a reader, too
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_read(); }), -1) << "the first release was the reader's";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(elsewhere([&] { return mutex.tryacquire_write() == 0 ? mutex.release() : -1; }), 0);
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

TEST(RwThreadMutex, KeepsACounterWholeUnderContention) {
    VEL_RW_Thread_Mutex mutex;
    int64_t value = 0, copy = 0;
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&, i] {
            for (int step = 0; step < 2000; ++step) {
                if ((step + i) % 4 == 0) {
                    VEL_Write_Guard guard(mutex);
                    ++value;
                    ++copy;
                } else {
                    VEL_Read_Guard guard(mutex);
                    if (value != copy) ++torn;
                }
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(value, 6 * 2000 / 4);
}

// Counts what a guard asks of it; fails on demand.
class RecordingMutex : public VEL_RW_Thread_Mutex {
public:
    int acquire() override { return took(1); }
    int acquire(uint32_t timeout_ms) override { return took(timeout_ms); }
    int acquire_read() override { return took(2); }
    int acquire_write() override { return took(3); }
    int release() override { return ++released, result; }
    int released = 0;
    int result = 0;
    uint32_t last = 0;

private:
    int took(uint32_t how) { return last = how, result; }
};

template <class Guard>
void check_guard_counts(uint32_t how) {
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
    EXPECT_EQ(outcome([&] { return empty.unlock(); }), (Outcome{-1, 0x20000004}));
}

TEST(Guards, CountWhatTheyHold) {
    check_guard_counts<VEL_Guard>(1);
    check_guard_counts<VEL_Read_Guard>(2);
    check_guard_counts<VEL_Write_Guard>(3);
    RecordingMutex mutex;
    VEL_Guard guard(mutex);
    EXPECT_EQ(guard.lock(1234), 0);
    EXPECT_EQ(mutex.last, 1234u);
    VEL_Guard empty(nullptr);
    EXPECT_EQ(outcome([&] { return empty.lock(1234); }), (Outcome{-1, 0x20000004}));
}

} // namespace
