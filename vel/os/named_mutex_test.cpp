// Contract of named mutexes: ownership, time-outs, and owners that die.
#include <vel/os/named_mutex.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/os/memory.h>
#include <vel/os/thread.h>

namespace vel::os {
namespace {

using testing::ChildProcess;
using testing::ObjectName;
using testing::Talk;

constexpr uint32_t long_ms = 10000;
constexpr uint32_t short_ms = 20;

struct NativeMutexes {
    static uint32_t open(const char* name, void*& mutex) { return open_mutex(name, mutex); }
    static uint32_t acquire(void* mutex, uint32_t timeout_ms, bool& abandoned) {
        return acquire_mutex(mutex, timeout_ms, abandoned);
    }
    static uint32_t release(void* mutex) { return release_mutex(mutex); }
};

template <class Mutexes>
class MutexContract : public ::testing::Test {
protected:
    /// An open mutex, closed at the end of its scope.
    struct Mutex {
        explicit Mutex(const char* name) { EXPECT_EQ(Mutexes::open(name, handle), error::none); }
        ~Mutex() { close_handle(handle); }
        uint32_t acquire(uint32_t timeout_ms) { return Mutexes::acquire(handle, timeout_ms, abandoned); }
        uint32_t release() { return Mutexes::release(handle); }
        void* handle = nullptr;
        bool abandoned = false;
    };

    template <class Body>
    static void in_other_thread(Body body) {
        std::thread(body).join();
    }
};

using BackEnds = ::testing::Types<NativeMutexes>;
TYPED_TEST_SUITE(MutexContract, BackEnds);

TYPED_TEST(MutexContract, IsRecursiveAndExcludesOtherThreadsThroughAnyHandle) {
    const ObjectName name;
    for (const char* text : {name.c_str(), static_cast<const char*>(nullptr)}) {
        typename TestFixture::Mutex mutex(text);
        typename TestFixture::Mutex second(name.c_str());
        auto& other = text ? second : mutex;
        EXPECT_EQ(mutex.acquire(VEL_INFINITE), error::none);
        EXPECT_EQ(other.acquire(0), error::none);
        EXPECT_FALSE(mutex.abandoned || other.abandoned);
        TestFixture::in_other_thread([&] {
            EXPECT_EQ(other.acquire(0), error::wait_timeout);
            const uint64_t before = tick_ms64();
            EXPECT_EQ(other.acquire(short_ms), error::wait_timeout);
            EXPECT_GE(tick_ms64() - before, short_ms);
            EXPECT_EQ(other.release(), error::not_owner);
        });
        EXPECT_EQ(other.release(), error::none);
        TestFixture::in_other_thread([&] { EXPECT_EQ(other.acquire(0), error::wait_timeout); });
        EXPECT_EQ(mutex.release(), error::none);
        EXPECT_EQ(mutex.release(), error::not_owner);
        TestFixture::in_other_thread([&] {
            EXPECT_EQ(other.acquire(0), error::none);
            EXPECT_EQ(other.release(), error::none);
        });
    }
}

TYPED_TEST(MutexContract, NamesAreToldApartWhateverTheyHold) {
    const ObjectName name;
    const std::string long_name = name.c_str() + std::string(500, '/');
    const std::string names[] = {name.c_str(), name.c_str() + std::string("%2F"), name.c_str() + std::string("/"),
                                 long_name, long_name + "a"};
    for (const std::string& held : names) {
        typename TestFixture::Mutex mutex(held.c_str());
        EXPECT_EQ(mutex.acquire(0), error::none);
        for (const std::string& tried : names) {
            TestFixture::in_other_thread([&] {
                typename TestFixture::Mutex other(tried.c_str());
                EXPECT_EQ(other.acquire(0), tried == held ? error::wait_timeout : error::none);
                if (tried != held) other.release();
            });
        }
        mutex.release();
    }
    for (const std::string& used : names) ::unlink(named_object_path("mutex", used.c_str()).c_str());
}

TYPED_TEST(MutexContract, AThreadThatEndsHoldingItHandsItOn) {
    const ObjectName name;
    for (const char* text : {name.c_str(), static_cast<const char*>(nullptr)}) {
        typename TestFixture::Mutex mutex(text);
        TestFixture::in_other_thread([&] {
            EXPECT_EQ(mutex.acquire(0), error::none);
            EXPECT_EQ(mutex.acquire(0), error::none);
        });
        EXPECT_EQ(mutex.acquire(long_ms), error::none);
        EXPECT_TRUE(mutex.abandoned);
        EXPECT_EQ(mutex.release(), error::none);
        EXPECT_EQ(mutex.acquire(0), error::none);
        EXPECT_FALSE(mutex.abandoned);
        EXPECT_EQ(mutex.release(), error::none);
    }
}

struct Holder {
    void* mutex;
    void* event;
};

uint32_t hold_and_block(void* argument) {
    auto* holder = static_cast<Holder*>(argument);
    bool abandoned = false;
    acquire_mutex(holder->mutex, VEL_INFINITE, abandoned);
    set_event(holder->event);
    while (true) wait_handle(holder->event, 1);
}

TYPED_TEST(MutexContract, AKilledThreadHandsItOn) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer never joins a killed thread";
#endif
    const ObjectName name;
    typename TestFixture::Mutex mutex(name.c_str());
    Holder holder{mutex.handle, nullptr};
    create_event(true, false, holder.event);
    void* thread = nullptr;
    uint32_t id = 0;
    uint32_t previous = 0;
    ASSERT_EQ(create_thread(hold_and_block, &holder, 0, thread, id), error::none);
    resume_thread(thread, previous);
    EXPECT_EQ(wait_handle(holder.event, long_ms), error::none);
    EXPECT_EQ(mutex.acquire(0), error::wait_timeout);
    EXPECT_EQ(terminate_thread(thread, 1), error::none);
    EXPECT_EQ(mutex.acquire(0), error::none);
    EXPECT_TRUE(mutex.abandoned);
    mutex.release();
    close_handle(thread);
    close_handle(holder.event);
}

uint32_t wait_for_ever(void* argument) {
    auto* holder = static_cast<Holder*>(argument);
    bool abandoned = false;
    set_event(holder->event);
    return acquire_mutex(holder->mutex, VEL_INFINITE, abandoned);
}

// Whether or not the thread had come to wait when it was killed.
TYPED_TEST(MutexContract, AKilledWaiterHoldsUpNeitherTheNextNorTheClose) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer never joins a killed thread";
#endif
    Holder holder{nullptr, nullptr};
    create_event(false, false, holder.event);
    for (int round = 0; round < 10; ++round) {
        typename TestFixture::Mutex mutex(nullptr);
        holder.mutex = mutex.handle;
        EXPECT_EQ(mutex.acquire(0), error::none);
        void* thread = nullptr;
        uint32_t id = 0;
        uint32_t previous = 0;
        ASSERT_EQ(create_thread(wait_for_ever, &holder, 0, thread, id), error::none);
        resume_thread(thread, previous);
        EXPECT_EQ(wait_handle(holder.event, long_ms), error::none);
        EXPECT_EQ(wait_handle(thread, 5), error::wait_timeout);
        EXPECT_EQ(terminate_thread(thread, 1), error::none);
        EXPECT_EQ(mutex.release(), error::none);
        TestFixture::in_other_thread([&] { EXPECT_EQ(mutex.acquire(0) + mutex.release(), error::none); });
        close_handle(thread);
    }
    close_handle(holder.event);
}

TYPED_TEST(MutexContract, AKilledProcessHandsItOnWithin100Ms) {
    for (int round = 0; round < 100; ++round) {
        const ObjectName name;
        ChildProcess owner([&](Talk& parent) {
            typename TestFixture::Mutex mutex(name.c_str());
            if (mutex.acquire(VEL_INFINITE) == error::none) parent.tell();
            return parent.hear();
        });
        ASSERT_TRUE(owner.talk().hear());
        typename TestFixture::Mutex mutex(name.c_str());
        ASSERT_EQ(mutex.acquire(1), error::wait_timeout);
        uint64_t killed_at = 0;
        std::thread killer([&] {
            killed_at = tick_ms64();
            owner.kill();
        });
        const uint32_t code = mutex.acquire(round % 2 ? VEL_INFINITE : long_ms);
        const uint64_t owned_at = tick_ms64();
        killer.join();
        ASSERT_EQ(code, error::none);
        EXPECT_TRUE(mutex.abandoned);
        EXPECT_LE(owned_at - killed_at, 100u);
        mutex.release();
    }
}

TYPED_TEST(MutexContract, ProcessesNeverOwnItTogether) {
    const ObjectName name;
    constexpr int rounds = 500;
    const auto open_counter = [&](void*& mapping) {
        void* address = nullptr;
        uint64_t size = 0;
        EXPECT_EQ(open_mapping(name.c_str(), 8, mapping, address, size), error::none);
        return static_cast<volatile int*>(address);
    };
    const auto count = [&](volatile int* counter) {
        typename TestFixture::Mutex mutex(name.c_str());
        for (int i = 0; i < rounds; ++i) {
            if (mutex.acquire(i % 2 ? VEL_INFINITE : long_ms) != error::none) return;
            const int before = *counter;
            if (i % 16 == 0) std::this_thread::yield();
            *counter = before + 1;
            mutex.release();
        }
    };
    ChildProcess child([&](Talk& parent) {
        if (!parent.hear()) return 1;
        void* mapping = nullptr;
        count(open_counter(mapping));
        return 0;
    });
    void* mapping = nullptr;
    volatile int* counter = open_counter(mapping);
    child.talk().tell();
    count(counter);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(*counter, 2 * rounds);
    close_handle(mapping);
}

TYPED_TEST(MutexContract, ThreadsNeverOwnItTogether) {
    const ObjectName name;
    int counter = 0;
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            typename TestFixture::Mutex mutex(name.c_str());
            for (int i = 0; i < 500; ++i) {
                EXPECT_EQ(mutex.acquire(i % 2 ? VEL_INFINITE : long_ms), error::none);
                ++counter;
                EXPECT_EQ(mutex.release(), error::none);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter, 2000);
}

TYPED_TEST(MutexContract, RefusesWhatIsNoMutex) {
    bool abandoned = false;
    void* event = nullptr;
    create_event(true, false, event);
    EXPECT_EQ(TypeParam::acquire(event, 0, abandoned), error::invalid_handle);
    EXPECT_EQ(TypeParam::release(event), error::invalid_handle);
    EXPECT_EQ(TypeParam::acquire(nullptr, 0, abandoned), error::invalid_handle);
    close_handle(event);
}

} // namespace
} // namespace vel::os
