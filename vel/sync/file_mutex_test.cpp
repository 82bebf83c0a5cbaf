// The lock on a byte range of a file.
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/platform/files.h>
#include <vel/sync/file_mutex.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/temporary_directory.h>

namespace {

// The error code of a call that fails; 0 when it succeeds.
template <class Call>
uint32_t failure(Call call) {
    VELLib::SetErrorCode(42);
    return call() == -1 ? VELLib::GetErrorCode() : 0;
}

TEST(FileMutex, LocksLengthBytesFromOffset) {
    const vel::testing::TemporaryDirectory directory;
    const std::string path = directory.path("locked");
    void* first = VELLib::create(path.c_str(), false, 0);
    void* second = VELLib::open(path.c_str(), false, 0);
    ASSERT_NE(first, VEL_INVALID_HANDLE);
    ASSERT_NE(second, VEL_INVALID_HANDLE);
    VEL_File_Mutex mutex(first, 10, 100); // bytes 100 to 109
    EXPECT_EQ(mutex.acquire(), 0);
    VEL_File_Mutex other(second, 1, 109);
    EXPECT_EQ(failure([&] { return other.tryacquire(); }), 33u);
    other.setlockopt(second, 100, 10); // bytes 10 to 109
    EXPECT_EQ(failure([&] { return other.tryacquire(); }), 33u);
    other.setlockopt(second, 90, 10); // bytes 10 to 99
    EXPECT_EQ(other.tryacquire() + other.release() + mutex.release(), 0);
    EXPECT_EQ(failure([&] { return mutex.release(); }), 158u);
    EXPECT_EQ(failure([&] { return other.acquire(10); }), 0x20000003u);
    EXPECT_EQ(failure([&] { return other.acquire_read(); }), 0x20000003u);
    VELLib::close(first);
    VELLib::close(second);
}

} // namespace
