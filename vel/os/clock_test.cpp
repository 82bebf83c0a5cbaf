// Tests of the local calendar.
#include <vel/os/clock.h>

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace vel::os {
namespace {

TEST(Calendar, MovesByTheOffsetOfThatDayAndStaysInRange) {
    constexpr uint64_t hour = 36000000000;               // in 100 ns
    constexpr uint64_t winter_2024 = 133485408000000000; // 2024-01-01 00:00 UTC
    constexpr uint64_t summer_2024 = 133643520000000000; // 2024-07-02 00:00 UTC
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    EXPECT_EQ(utc_to_local(winter_2024 + 1), winter_2024 + hour + 1);
    EXPECT_EQ(utc_to_local(summer_2024), summer_2024 + 2 * hour);
    EXPECT_EQ(local_to_utc(winter_2024 + hour + 1), winter_2024 + 1);
    EXPECT_EQ(local_to_utc(summer_2024 + 2 * hour), summer_2024);
    EXPECT_EQ(local_to_utc(0), 0u);
    EXPECT_GE(utc_to_local(UINT64_MAX), UINT64_MAX - 48 * hour);
    EXPECT_GE(local_to_utc(UINT64_MAX), UINT64_MAX - 48 * hour);
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
}

} // namespace
} // namespace vel::os
