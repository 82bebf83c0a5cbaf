// Calendar arithmetic against known days.
#include <vel/platform/times.h>

#include <cstring>
#include <gtest/gtest.h>

namespace {

TEST(Times, ConversionMeetsKnownDays) {
    const struct {
        SYSTEMTIME time;
        uint64_t ticks;
    } rows[] = {
        {{1601, 1, 1, 1, 23, 59, 59, 999}, 863'999'990'000},
        {{1970, 1, 4, 1, 0, 0, 0, 0}, 116'444'736'000'000'000},
        {{2000, 2, 2, 29, 12, 0, 0, 1}, 125'962'992'000'010'000},
        {{30827, 12, 5, 31, 23, 59, 59, 999}, 9'223'149'887'999'990'000},
    };
    for (const auto& row : rows) {
        FILETIME ticks{};
        SYSTEMTIME back{};
        EXPECT_TRUE(vel::system_time_to_file_time(row.time, ticks));
        EXPECT_EQ(vel::file_time_ticks(ticks), row.ticks) << row.time.wYear;
        EXPECT_TRUE(vel::file_time_to_system_time(vel::make_file_time(row.ticks + 9'999), back));
        EXPECT_EQ(std::memcmp(&back, &row.time, sizeof back), 0) << "what is below a millisecond is cut";
    }
    SYSTEMTIME time{};
    EXPECT_FALSE(vel::file_time_to_system_time(vel::make_file_time(uint64_t{1} << 63), time));
}

TEST(Times, ValidityAndConversionAgreeOnFieldsAndDifferOnYears) {
    const struct {
        SYSTEMTIME time;
        bool valid;
        bool converts;
    } rows[] = {
        {{2000, 2, 0, 29, 0, 0, 0, 0}, true, true},    {{1900, 2, 0, 29, 0, 0, 0, 0}, false, false},
        {{2100, 1, 0, 1, 0, 0, 0, 0}, false, true},    {{2099, 12, 0, 31, 23, 59, 59, 999}, true, true},
        {{1900, 1, 9, 1, 0, 0, 0, 0}, true, true}, // no day of the week
        {{1600, 1, 0, 1, 0, 0, 0, 0}, false, false},   {{30828, 1, 0, 1, 0, 0, 0, 0}, false, false},
        {{2023, 0, 0, 1, 0, 0, 0, 0}, false, false},   {{2023, 4, 0, 31, 0, 0, 0, 0}, false, false},
        {{2023, 257, 0, 1, 0, 0, 0, 0}, false, false}, // 1 in its low byte
        {{2023, 1, 0, 1, 24, 0, 0, 0}, false, false},  {{2023, 1, 0, 1, 0, 60, 0, 0}, false, false},
        {{2023, 1, 0, 1, 0, 0, 60, 0}, false, false},  {{2023, 1, 0, 1, 0, 0, 0, 1000}, false, false},
    };
    for (const auto& row : rows) {
        FILETIME ticks = vel::make_file_time(77);
        EXPECT_EQ(VELLib::isvalid_time(&row.time), row.valid) << row.time.wYear << '-' << row.time.wMonth;
        EXPECT_EQ(vel::system_time_to_file_time(row.time, ticks), row.converts) << row.time.wYear;
        EXPECT_EQ(vel::file_time_ticks(ticks) != 77, row.converts) << "what fails must not write";
    }
}

} // namespace
