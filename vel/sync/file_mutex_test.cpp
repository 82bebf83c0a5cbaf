// The lock on a byte range of a file.
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/platform/files.h>
#include <vel/sync/file_mutex.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/temporary_directory.h>

namespace {

TEST(FileMutex, LocksLengthBytesFromOffset) {
    const vel::testing::TemporaryDirectory directory;
    const std::string path = directory.path("locked");
    void* first = VELLib::create(path.c_str(), false, 0);
    void* second = VELLib::open(path.c_str(), false, 0);
    VEL_File_Mutex mutex(first, 10, 100); // bytes 100 to 109
    VEL_File_Mutex other(second, 1, 109);
    EXPECT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(other.tryacquire(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 33u);
    other.setlockopt(second, 90, 10); // bytes 10 to 99
    EXPECT_EQ(other.tryacquire() + other.release() + mutex.release(), 0);
    EXPECT_EQ(mutex.release(), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), 158u);
    VELLib::close(first);
    VELLib::close(second);
}

} // namespace
