// Contract of the byte-range locks, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <chrono>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <thread>
#include <vector>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/thread.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os {
namespace {

using vel::testing::ChildProcess;
using vel::testing::Talk;
using namespace std::chrono_literals;

// The system's own locks. Another back end is a struct with the same names.
struct SystemLocks {
    static constexpr auto lock = lock_range;
    static constexpr auto unlock = unlock_range;
};

template <class Back>
class ByteLock : public ::testing::Test {
protected:
    void* open(FileOpen how = FileOpen::open_always) {
        void* file = nullptr;
        EXPECT_EQ(open_file(path_.c_str(), how, file), error::none);
        return file;
    }

    uint32_t try_lock(void* file, uint64_t offset, uint64_t length) { return Back::lock(file, offset, length, false); }

    // A lock that waits, in a thread of its own.
    std::future<uint32_t> lock_later(void* file, uint64_t offset, uint64_t length) {
        return std::async(std::launch::async, [=] { return Back::lock(file, offset, length, true); });
    }

    vel::testing::TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
};

using Backs = ::testing::Types<SystemLocks>;
TYPED_TEST_SUITE(ByteLock, Backs);

TYPED_TEST(ByteLock, RangesExcludeEachOtherByteByByte) {
    void* first = this->open();
    void* second = this->open();
    ASSERT_EQ(this->try_lock(first, 10, 10), error::none);
    for (void* file : {first, second}) {
        EXPECT_EQ(this->try_lock(file, 19, 1), error::lock_violation);
        EXPECT_EQ(this->try_lock(file, 0, 11), error::lock_violation);
        EXPECT_EQ(this->try_lock(file, 0, UINT64_MAX), error::lock_violation);
        EXPECT_EQ(this->try_lock(file, 12, 0), error::none) << "an empty range takes nothing";
    }
    EXPECT_EQ(this->try_lock(first, 0, 10), error::none);
    EXPECT_EQ(this->try_lock(second, 20, 5), error::none);

    EXPECT_EQ(TypeParam::unlock(first, 10, 9), error::not_locked);
    EXPECT_EQ(TypeParam::unlock(first, 0, 20), error::not_locked) << "neighbours never become one range";
    EXPECT_EQ(TypeParam::unlock(second, 10, 10), error::not_locked) << "locked by another handle";
    EXPECT_EQ(TypeParam::unlock(first, 10, 10), error::none);
    EXPECT_EQ(this->try_lock(second, 10, 10), error::none);
    EXPECT_EQ(this->try_lock(second, 0, 1), error::lock_violation) << "the neighbour's unlock took this one with it";
    close_handle(first);
    EXPECT_EQ(this->try_lock(second, 0, 1), error::none) << "closing must unlock";
    close_handle(second);
}

TYPED_TEST(ByteLock, LimitsOfARange) {
    void* file = this->open();
    void* other = this->open();
    EXPECT_EQ(this->try_lock(file, uint64_t{1} << 63, 1), error::invalid_parameter);
    EXPECT_EQ(this->try_lock(file, 2, UINT64_MAX), error::invalid_parameter);
    EXPECT_EQ(this->try_lock(file, INT64_MAX, 1), error::none);
    EXPECT_EQ(this->try_lock(other, 0, UINT64_MAX), error::lock_violation);
    EXPECT_EQ(TypeParam::unlock(file, INT64_MAX, 1), error::none);
    EXPECT_EQ(this->try_lock(other, 0, UINT64_MAX), error::none);
    EXPECT_EQ(this->try_lock(file, 1'000'000'000'000, 1), error::lock_violation);
    EXPECT_EQ(TypeParam::unlock(other, 0, UINT64_MAX), error::none);
    close_handle(file);
    EXPECT_EQ(this->try_lock(file, 0, 1), error::invalid_handle);
    EXPECT_EQ(TypeParam::unlock(file, 0, 1), error::invalid_handle);
    close_handle(other);
}

TYPED_TEST(ByteLock, WaiterGetsTheRangeOnceItIsFree) {
    void* first = this->open();
    void* second = this->open();
    for (void* waiting : {first, second}) { // within one handle, then between two
        ASSERT_EQ(this->try_lock(first, 0, 4), error::none);
        std::future<uint32_t> later = this->lock_later(waiting, 2, 4);
        EXPECT_EQ(later.wait_for(20ms), std::future_status::timeout);
        EXPECT_EQ(TypeParam::unlock(first, 0, 4), error::none);
        ASSERT_EQ(later.wait_for(20s), std::future_status::ready);
        EXPECT_EQ(later.get(), error::none);
        EXPECT_EQ(this->try_lock(first, 5, 1), error::lock_violation);
        EXPECT_EQ(TypeParam::unlock(waiting, 2, 4), error::none);
    }
    close_handle(first);
    close_handle(second);
}

TYPED_TEST(ByteLock, ClosingEndsItsWaiters) {
    void* first = this->open();
    void* second = this->open();
    ASSERT_EQ(this->try_lock(first, 0, 4), error::none);
    ASSERT_EQ(this->try_lock(second, 100, 4), error::none);
    std::future<uint32_t> same = this->lock_later(first, 0, 4);
    std::future<uint32_t> other = this->lock_later(first, 100, 4);
    EXPECT_EQ(same.wait_for(20ms), std::future_status::timeout);
    close_handle(first);
    ASSERT_EQ(same.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(same.get(), error::invalid_handle);
    EXPECT_EQ(this->try_lock(second, 0, 4), error::none) << "closed, though a call still uses the file";

    EXPECT_EQ(TypeParam::unlock(second, 100, 4), error::none);
    ASSERT_EQ(other.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(other.get(), error::invalid_handle);
    EXPECT_EQ(this->try_lock(second, 100, 4), error::none) << "the range of a closed handle stayed locked";
    close_handle(second);
}

TYPED_TEST(ByteLock, HandleForReadingLocksExclusively) {
    close_handle(this->open());
    void* first = this->open(FileOpen::open_read);
    void* second = this->open(FileOpen::open_read);
    void* writer = this->open(FileOpen::open_write);
    EXPECT_EQ(this->try_lock(first, 0, 4), error::none);
    EXPECT_EQ(this->try_lock(second, 0, 4), error::lock_violation);
    EXPECT_EQ(this->try_lock(writer, 0, 4), error::lock_violation);
    EXPECT_EQ(TypeParam::unlock(first, 0, 4), error::none);
    EXPECT_EQ(this->try_lock(second, 0, 4), error::none);
    close_handle(second);
    EXPECT_EQ(this->try_lock(writer, 0, 4), error::none);
    close_handle(first);
    close_handle(writer);
}

TYPED_TEST(ByteLock, DeathOfAnotherProcessUnlocks) {
    ChildProcess child([&](Talk& parent) {
        void* file = this->open();
        if (TypeParam::lock(file, 5, 5, false)) return 1;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_TRUE(child.talk().hear());
    void* file = this->open();
    EXPECT_EQ(this->try_lock(file, 9, 1), error::lock_violation);
    EXPECT_EQ(this->try_lock(file, 10, 1), error::none);
    std::future<uint32_t> later = this->lock_later(file, 5, 5);
    EXPECT_EQ(later.wait_for(20ms), std::future_status::timeout);
    child.kill();
    ASSERT_EQ(later.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(later.get(), error::none);
    close_handle(file);
}

// Adds to a number in the file, under its lock; without exclusion some of the steps get lost.
template <class Back>
bool count_up(void* file, int steps) {
    for (int i = 0; i < steps; ++i) {
        if (Back::lock(file, 0, 8, true)) return false;
        uint64_t number = 0, moved = 0;
        read_file_at(file, &number, sizeof number, 0, moved);
        ++number;
        if (write_file_at(file, &number, sizeof number, 0, moved)) return false;
        if (Back::unlock(file, 0, 8)) return false;
    }
    return true;
}

TYPED_TEST(ByteLock, NoStepIsLostBetweenHandlesThreadsAndProcesses) {
    constexpr int steps = 300;
    close_handle(this->open());
    const auto run_threads = [&] {
        void* shared = this->open();
        void* own = this->open();
        std::vector<std::future<bool>> threads;
        for (void* file : {shared, shared, own})
            threads.push_back(std::async(std::launch::async, [=] { return count_up<TypeParam>(file, steps); }));
        bool ok = true;
        for (auto& thread : threads) ok = thread.get() && ok;
        close_handle(shared);
        close_handle(own);
        return ok;
    };
    ChildProcess child([&](Talk&) { return run_threads() ? 0 : 1; });
    EXPECT_TRUE(run_threads());
    EXPECT_EQ(child.wait(), 0);
    uint64_t number = 0;
    const std::string content = vel::testing::content_of(this->path_);
    ASSERT_EQ(content.size(), sizeof number);
    std::memcpy(&number, content.data(), sizeof number);
    EXPECT_EQ(number, 6u * steps);
}

uint32_t lock_first_byte(void* file) { return lock_range(file, 0, 1, true); }

TYPED_TEST(ByteLock, AKilledWaiterHoldsUpNeitherTheNextNorTheClose) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer never joins a killed thread";
#endif
    void* file = this->open();
    ASSERT_EQ(this->try_lock(file, 0, 1), error::none);
    void* thread = nullptr;
    uint32_t id = 0, previous = 0;
    ASSERT_EQ(create_thread(lock_first_byte, file, 0, thread, id), error::none);
    resume_thread(thread, previous);
    EXPECT_EQ(wait_handle(thread, 20), error::wait_timeout);
    EXPECT_EQ(terminate_thread(thread, 1), error::none);
    EXPECT_EQ(TypeParam::unlock(file, 0, 1), error::none);
    EXPECT_EQ(this->try_lock(file, 0, 1), error::none);
    close_handle(file);
    close_handle(thread);
}

} // namespace
} // namespace vel::os
