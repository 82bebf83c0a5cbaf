// Contract of named mutexes: ownership, time-outs, and owners that die.
#include <vel/os/named_mutex.h>

#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

using vel::testing::ChildProcess;
using vel::testing::ObjectName;
using vel::testing::Talk;

// An open mutex, closed at the end of its scope.
struct Mutex {
    explicit Mutex(const char* name) { EXPECT_EQ(open_mutex(name, handle), error::none); }
    ~Mutex() { close_handle(handle); }
    uint32_t acquire(uint32_t timeout_ms) { return acquire_mutex(handle, timeout_ms, abandoned); }
    uint32_t release() { return release_mutex(handle); }
    void* handle = nullptr;
    bool abandoned = false;
};

using NamedMutex = OsTest;

TEST_F(NamedMutex, IsRecursiveExcludesOtherThreadsAndGoesOnFromADeadOne) {
    const ObjectName name;
    for (const char* text : {name.c_str(), static_cast<const char*>(nullptr)}) {
        Mutex mutex(text);
        Mutex second(name.c_str());
        Mutex& other = text ? second : mutex;
        EXPECT_EQ(mutex.acquire(VEL_INFINITE), error::none);
        EXPECT_EQ(other.acquire(0), error::none);
        std::thread([&] {
            const uint64_t before = tick_ms64();
            EXPECT_EQ(other.acquire(short_ms), error::wait_timeout);
            EXPECT_GE(tick_ms64() - before, short_ms);
            EXPECT_EQ(other.release(), error::not_owner);
        }).join();
        EXPECT_EQ(other.release(), error::none);
        std::thread([&] { EXPECT_EQ(other.acquire(0), error::wait_timeout); }).join();
        EXPECT_EQ(mutex.release(), error::none);
        EXPECT_EQ(mutex.release(), error::not_owner);
        std::thread([&] {
            EXPECT_EQ(other.acquire(0) + other.acquire(0), error::none);
            EXPECT_FALSE(other.abandoned);
        }).join();
        EXPECT_EQ(mutex.acquire(patience_ms), error::none);
        EXPECT_TRUE(mutex.abandoned);
        EXPECT_EQ(mutex.release(), error::none);
        EXPECT_EQ(mutex.acquire(0), error::none);
        EXPECT_FALSE(mutex.abandoned);
        EXPECT_EQ(mutex.release(), error::none) << "the dead thread's second acquisition must not count";
    }
}

TEST_F(NamedMutex, AKilledProcessHandsItOnWithin100Ms) {
    for (int round = 0; round < 100; ++round) {
        const ObjectName name;
        ChildProcess owner([&](Talk& parent) {
            Mutex mutex(name.c_str());
            if (mutex.acquire(VEL_INFINITE) == error::none) parent.tell();
            return parent.hear();
        });
        ASSERT_TRUE(owner.talk().hear());
        Mutex mutex(name.c_str());
        ASSERT_EQ(mutex.acquire(1), error::wait_timeout);
        uint64_t gone_at = 0; // from here on: a busy machine may take its time to end a process
        std::thread killer([&] {
            owner.kill();
            gone_at = tick_ms64();
        });
        const uint32_t code = mutex.acquire(round % 2 ? VEL_INFINITE : patience_ms);
        const uint64_t owned_at = tick_ms64();
        killer.join();
        ASSERT_EQ(code, error::none);
        EXPECT_TRUE(mutex.abandoned);
        EXPECT_LE(owned_at, gone_at + 100);
        mutex.release();
    }
}

} // namespace
} // namespace vel::os::testing
