// Tests of times that a file system keeps and a file time cannot tell.
#include <vel/os/linux/file_times.h>

#include <cstdint>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <vel/os/clock.h>
#include <vel/os/linux/descriptor.h>

namespace vel::os {
namespace {

TEST(FileTimes, YearsOutOfReachBecomeTheNearestThatTheCalendarCanTell) {
    const Descriptor file(::memfd_create("times", MFD_CLOEXEC));
    const timespec extremes[] = {{INT64_MIN / 4, 0}, {INT64_MAX / 4, 999'999'999}};
    ASSERT_EQ(::futimens(file.get(), extremes), 0);
    FileTimes times{};
    ASSERT_EQ(read_times(file.get(), times), 0u);
    EXPECT_EQ(times.accessed, 0u);
    EXPECT_GT(times.written, times.created);
    EXPECT_LT(utc_to_local(times.written), uint64_t{1} << 63);
}

} // namespace
} // namespace vel::os
