// Contract of the byte-range locks.
#include <vel/os/file.h>

#include <chrono>
#include <future>
#include <vel/os/linux/testing/child_process.h>
#include <vel/testing/os_fixture.h>
#include <vel/testing/temporary_directory.h>

namespace vel::os::testing {
namespace {

using vel::testing::ChildProcess;
using vel::testing::Talk;
using namespace std::chrono_literals;

class ByteLock : public OsTest {
protected:
    void* open(FileOpen how = FileOpen::open_always) {
        void* file = nullptr;
        EXPECT_EQ(open_file(path_.c_str(), how, file), error::none);
        return keep(file);
    }

    static uint32_t try_lock(void* file, uint64_t offset, uint64_t length) {
        return lock_range(file, offset, length, false);
    }

    // A lock that waits, in a thread of its own.
    static std::future<uint32_t> lock_later(void* file, uint64_t offset, uint64_t length) {
        auto later = std::async(std::launch::async, lock_range, file, offset, length, true);
        EXPECT_EQ(later.wait_for(20ms), std::future_status::timeout);
        return later;
    }

    static uint32_t outcome(std::future<uint32_t>& later) {
        return later.wait_for(20s) == std::future_status::ready ? later.get() : error::wait_timeout;
    }

    vel::testing::TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
};

TEST_F(ByteLock, RangesOfAllHandlesExcludeEachOtherByteByByte) {
    void* first = open();
    void* second = open(FileOpen::open_read);
    ASSERT_EQ(try_lock(first, 10, 10), error::none);
    for (void* file : {first, second}) {
        EXPECT_EQ(try_lock(file, 19, 1), error::lock_violation);
        EXPECT_EQ(try_lock(file, 0, UINT64_MAX), error::lock_violation);
        EXPECT_EQ(try_lock(file, 12, 0), error::none) << "an empty range takes nothing";
        EXPECT_EQ(try_lock(file, uint64_t{1} << 63, 1), error::invalid_parameter);
        EXPECT_EQ(try_lock(file, 2, UINT64_MAX), error::invalid_parameter);
    }
    EXPECT_EQ(try_lock(first, 0, 10), error::none);
    EXPECT_EQ(try_lock(second, 20, INT64_MAX), error::none);

    EXPECT_EQ(unlock_range(first, 10, 9), error::not_locked);
    EXPECT_EQ(unlock_range(first, 0, 20), error::not_locked) << "neighbours never become one range";
    EXPECT_EQ(unlock_range(second, 10, 10), error::not_locked) << "locked by another handle";
    EXPECT_EQ(unlock_range(first, 10, 10), error::none);
    EXPECT_EQ(try_lock(second, 9, 1), error::lock_violation) << "the neighbour's unlock took this one with it";
    EXPECT_EQ(try_lock(second, 10, 10), error::none);
}

TEST_F(ByteLock, WaitersEndWithTheUnlockTheCloseOrTheDeathOfAProcess) {
    ChildProcess child([&](Talk& parent) {
        if (try_lock(open(), 200, 5)) return false;
        parent.tell();
        return parent.hear();
    });
    ASSERT_TRUE(child.talk().hear());
    void* first = open();
    void* second = open();
    ASSERT_EQ(try_lock(first, 0, 4), error::none);
    ASSERT_EQ(try_lock(second, 100, 4), error::none);
    for (void* waiting : {first, second}) { // within one handle, then between two
        std::future<uint32_t> later = lock_later(waiting, 2, 4);
        EXPECT_EQ(unlock_range(first, 0, 4), error::none);
        EXPECT_EQ(outcome(later), error::none);
        EXPECT_EQ(unlock_range(waiting, 2, 4), error::none);
        EXPECT_EQ(try_lock(first, 0, 4), error::none);
    }
    std::future<uint32_t> orphan = lock_later(second, 204, 5);
    child.kill();
    EXPECT_EQ(outcome(orphan), error::none);

    std::future<uint32_t> later = lock_later(first, 100, 4);
    close_handle(first);
    EXPECT_EQ(try_lock(second, 0, 4), error::none) << "closed, though a call still uses the file";
    EXPECT_EQ(unlock_range(second, 100, 4), error::none);
    EXPECT_EQ(outcome(later), error::invalid_handle);
    EXPECT_EQ(try_lock(second, 100, 4), error::none) << "the range of a closed handle stayed locked";
}

// Adds to a number in the file, under its lock; without exclusion some of the steps get lost.
TEST_F(ByteLock, NoStepIsLostBetweenHandlesThreadsAndProcesses) {
    constexpr int steps = 300;
    const auto count_up = [](void* file) {
        for (int i = 0; i < steps; ++i) {
            uint64_t number = 0, moved = 0;
            if (lock_range(file, 0, 8, true)) return 1;
            read_file_at(file, &number, sizeof number, 0, moved);
            ++number;
            if (write_file_at(file, &number, sizeof number, 0, moved) || unlock_range(file, 0, 8)) return 1;
        }
        return 0;
    };
    ChildProcess child([&](Talk&) { return count_up(open()); });
    void* file = open();
    void* own = open();
    std::future<int> thread = std::async(std::launch::async, count_up, file);
    EXPECT_EQ(count_up(own) + thread.get() + child.wait(), 0);
    uint64_t number = 0, moved = 0;
    EXPECT_EQ(read_file(file, &number, sizeof number, moved), error::none);
    EXPECT_EQ(number, 3u * steps);
}

} // namespace
} // namespace vel::os::testing
