// Calendar arithmetic against known days, and the local clock.
#include <vel/platform/times.h>

#include <gtest/gtest.h>

namespace {

constexpr uint64_t day = 864'000'000'000;

TEST(Times, ConversionMeetsKnownDays) {
    const struct {
        SYSTEMTIME time;
        uint64_t ticks;
    } rows[] = {
        {{1601, 1, 1, 1, 0, 0, 0, 0}, 0},
        {{1601, 1, 1, 1, 23, 59, 59, 999}, day - 10'000},
        {{1970, 1, 4, 1, 0, 0, 0, 0}, 116'444'736'000'000'000},
        {{2000, 2, 2, 29, 12, 0, 0, 1}, 125'962'992'000'010'000},
        {{2026, 11, 6, 14, 17, 40, 34, 5}, 134'391'516'340'050'000},
        {{30827, 12, 5, 31, 23, 59, 59, 999}, 9'223'149'887'999'990'000},
    };
    for (const auto& row : rows) {
        FILETIME ticks{};
        EXPECT_TRUE(vel::system_time_to_file_time(row.time, ticks));
        EXPECT_EQ(vel::file_time_ticks(ticks), row.ticks) << row.time.wYear;
        SYSTEMTIME back{};
        EXPECT_TRUE(vel::file_time_to_system_time(vel::make_file_time(row.ticks + 9'999), back));
        EXPECT_EQ(back.wYear, row.time.wYear);
        EXPECT_EQ(back.wMonth, row.time.wMonth);
        EXPECT_EQ(back.wDayOfWeek, row.time.wDayOfWeek) << row.time.wYear;
        EXPECT_EQ(back.wDay, row.time.wDay);
        EXPECT_EQ(back.wHour, row.time.wHour);
        EXPECT_EQ(back.wMinute, row.time.wMinute);
        EXPECT_EQ(back.wSecond, row.time.wSecond);
        EXPECT_EQ(back.wMilliseconds, row.time.wMilliseconds) << "what is below a millisecond is cut";
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
        {{2000, 2, 0, 29, 0, 0, 0, 0}, true, true},
        {{1900, 2, 0, 29, 0, 0, 0, 0}, false, false},
        {{2100, 1, 0, 1, 0, 0, 0, 0}, false, true},
        {{2099, 12, 0, 31, 23, 59, 59, 999}, true, true},
        {{1899, 12, 0, 31, 0, 0, 0, 0}, false, true},
        {{1900, 1, 9, 1, 0, 0, 0, 0}, true, true}, // nobody looks at the day of the week
        {{1600, 1, 0, 1, 0, 0, 0, 0}, false, false},
        {{30828, 1, 0, 1, 0, 0, 0, 0}, false, false},
        {{2023, 2, 0, 29, 0, 0, 0, 0}, false, false},
        {{2023, 4, 0, 31, 0, 0, 0, 0}, false, false},
        {{2023, 0, 0, 1, 0, 0, 0, 0}, false, false},
        {{2023, 13, 0, 1, 0, 0, 0, 0}, false, false},
        {{2023, 257, 0, 1, 0, 0, 0, 0}, false, false}, // 1 in its low byte
        {{2023, 1, 0, 0, 0, 0, 0, 0}, false, false},
        {{2023, 1, 0, 257, 0, 0, 0, 0}, false, false},
        {{2023, 1, 0, 1, 24, 0, 0, 0}, false, false},
        {{2023, 1, 0, 1, 0, 60, 0, 0}, false, false},
        {{2023, 1, 0, 1, 0, 0, 60, 0}, false, false},
        {{2023, 1, 0, 1, 0, 0, 0, 1000}, false, false},
    };
    for (const auto& row : rows) {
        FILETIME ticks = vel::make_file_time(77);
        EXPECT_EQ(VELLib::isvalid_time(&row.time), row.valid) << row.time.wYear << '-' << row.time.wMonth;
        EXPECT_EQ(vel::system_time_to_file_time(row.time, ticks), row.converts) << row.time.wYear;
        EXPECT_EQ(vel::file_time_ticks(ticks) != 77, row.converts) << "what fails must not write";
    }
}

TEST(Times, ComparisonIgnoresTheDayOfTheWeek) {
    SYSTEMTIME early{2020, 1, 6, 31, 23, 0, 0, 0};
    SYSTEMTIME late{2020, 2, 0, 1, 0, 0, 0, 0};
    SYSTEMTIME same = early;
    same.wDayOfWeek = 0;
    SYSTEMTIME wrong{2020, 13, 0, 1, 0, 0, 0, 0};
    EXPECT_EQ(VELLib::compare_time(&early, &late), -1);
    EXPECT_EQ(VELLib::compare_time(&late, &early), 1);
    EXPECT_EQ(VELLib::compare_time(&early, &same), 0);
    EXPECT_EQ(VELLib::compare_time(&wrong, &early), -1);
}

TEST(Times, CurrentTimeIsValidAndDoesNotGoBack) {
    SYSTEMTIME before{}, after{};
    VELLib::getcurtime(&before);
    VELLib::getcurtime(&after);
    EXPECT_TRUE(VELLib::isvalid_time(&before));
    EXPECT_GE(before.wYear, 2024);
    EXPECT_LE(VELLib::compare_time(&before, &after), 0);
}

} // namespace
