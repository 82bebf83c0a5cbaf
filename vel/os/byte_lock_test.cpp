// Contract of the byte-range locks, typed over the back ends that promise it.
#include <vel/os/file.h>

#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/linux/testing/child_process.h>
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
        auto later = std::async(std::launch::async, [=] { return Back::lock(file, offset, length, true); });
        EXPECT_EQ(later.wait_for(20ms), std::future_status::timeout);
        return later;
    }

    static uint32_t outcome(std::future<uint32_t>& later) {
        return later.wait_for(20s) == std::future_status::ready ? later.get() : error::wait_timeout;
    }

    vel::testing::TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
};

TYPED_TEST_SUITE(ByteLock, ::testing::Types<SystemLocks>);

TYPED_TEST(ByteLock, RangesOfAllHandlesExcludeEachOtherByteByByte) {
    void* first = this->open();
    void* second = this->open(FileOpen::open_read);
    ASSERT_EQ(this->try_lock(first, 10, 10), error::none);
    for (void* file : {first, second}) {
        EXPECT_EQ(this->try_lock(file, 19, 1), error::lock_violation);
        EXPECT_EQ(this->try_lock(file, 0, UINT64_MAX), error::lock_violation);
        EXPECT_EQ(this->try_lock(file, 12, 0), error::none) << "an empty range takes nothing";
        EXPECT_EQ(this->try_lock(file, uint64_t{1} << 63, 1), error::invalid_parameter);
        EXPECT_EQ(this->try_lock(file, 2, UINT64_MAX), error::invalid_parameter);
    }
    EXPECT_EQ(this->try_lock(first, 0, 10), error::none);
    EXPECT_EQ(this->try_lock(second, 20, INT64_MAX), error::none);

    EXPECT_EQ(TypeParam::unlock(first, 10, 9), error::not_locked);
    EXPECT_EQ(TypeParam::unlock(first, 0, 20), error::not_locked) << "neighbours never become one range";
    EXPECT_EQ(TypeParam::unlock(second, 10, 10), error::not_locked) << "locked by another handle";
    EXPECT_EQ(TypeParam::unlock(first, 10, 10), error::none);
    EXPECT_EQ(this->try_lock(second, 9, 1), error::lock_violation) << "the neighbour's unlock took this one with it";
    EXPECT_EQ(this->try_lock(second, 10, 10), error::none);
    close_handle(first);
    EXPECT_EQ(this->try_lock(second, 0, 1), error::none) << "closing must unlock";
    close_handle(second);
}

TYPED_TEST(ByteLock, WaitersEndWithTheUnlockTheCloseOrTheDeathOfAProcess) {
    ChildProcess child([&](Talk& parent) {
        if (TypeParam::lock(this->open(), 200, 5, false)) return 1;
        parent.tell();
        parent.hear();
        return 0;
    });
    ASSERT_TRUE(child.talk().hear());
    void* first = this->open();
    void* second = this->open();
    ASSERT_EQ(this->try_lock(first, 0, 4), error::none);
    ASSERT_EQ(this->try_lock(second, 100, 4), error::none);
    for (void* waiting : {first, second}) { // within one handle, then between two
        std::future<uint32_t> later = this->lock_later(waiting, 2, 4);
        EXPECT_EQ(TypeParam::unlock(first, 0, 4), error::none);
        EXPECT_EQ(this->outcome(later), error::none);
        EXPECT_EQ(TypeParam::unlock(waiting, 2, 4), error::none);
        EXPECT_EQ(this->try_lock(first, 0, 4), error::none);
    }
    std::future<uint32_t> orphan = this->lock_later(second, 204, 5);
    child.kill();
    EXPECT_EQ(this->outcome(orphan), error::none);

    std::future<uint32_t> later = this->lock_later(first, 100, 4);
    close_handle(first);
    EXPECT_EQ(this->try_lock(second, 0, 4), error::none) << "closed, though a call still uses the file";
    EXPECT_EQ(TypeParam::unlock(second, 100, 4), error::none);
    EXPECT_EQ(this->outcome(later), error::invalid_handle);
    EXPECT_EQ(this->try_lock(second, 100, 4), error::none) << "the range of a closed handle stayed locked";
    close_handle(second);
}

// Adds to a number in the file, under its lock; without exclusion some of the steps get lost.
TYPED_TEST(ByteLock, NoStepIsLostBetweenHandlesThreadsAndProcesses) {
    constexpr int steps = 300;
    const auto count_up = [](void* file) {
        for (int i = 0; i < steps; ++i) {
            uint64_t number = 0, moved = 0;
            if (TypeParam::lock(file, 0, 8, true)) return 1;
            read_file_at(file, &number, sizeof number, 0, moved);
            ++number;
            if (write_file_at(file, &number, sizeof number, 0, moved) || TypeParam::unlock(file, 0, 8)) return 1;
        }
        return 0;
    };
    ChildProcess child([&](Talk&) { return count_up(this->open()); });
    void* file = this->open();
    void* own = this->open();
    std::future<int> thread = std::async(std::launch::async, count_up, file);
    EXPECT_EQ(count_up(own) + thread.get() + child.wait(), 0);
    uint64_t number = 0, moved = 0;
    EXPECT_EQ(read_file(file, &number, sizeof number, moved), error::none);
    EXPECT_EQ(number, 3u * steps);
    close_handle(file);
    close_handle(own);
}

} // namespace
} // namespace vel::os
