// Log lines in one process: their text, the files they go to, and what happens when those cannot be written.
#include <vel/log/log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/handle.h>
#include <vel/platform/directories.h>
#include <vel/testing/allocator_environment.h>
#include <vel/testing/failing_allocations.h>
#include <vel/testing/temporary_directory.h>

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;
using vel::testing::TemporaryDirectory;

constexpr SYSTEMTIME last_second{2026, 11, 1, 30, 23, 59, 59, 999};
constexpr SYSTEMTIME next_month{2026, 12, 2, 1, 0, 0, 0, 0};

/// Keeps each line and decides whether it goes on to the file.
class TestLog : public VEL_Log {
public:
    explicit TestLog(const TemporaryDirectory& directory) : VEL_Log(0) { set_log_dir(directory.path().c_str()); }

    using VEL_Log::log_file;
    using VEL_Log::make_log_header;

    int handle_log_output(const char* line) override {
        last = line;
        return verdict;
    }

    /// The last line without its time.
    std::string text() const { return last.substr(21); }

    std::string last;
    int verdict = 0;
};

/// A logger on a directory of its own.
class Log : public testing::Test {
protected:
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(directory_.path()))
            if (entry.is_regular_file()) names.push_back(fs::relative(entry.path(), directory_.path()));
        std::sort(names.begin(), names.end());
        return names;
    }

    /// What all files hold.
    std::string written() const {
        std::string text;
        for (const std::string& file : files()) text += vel::testing::content_of(directory_.path(file));
        return text;
    }

    const TemporaryDirectory directory_;
    TestLog log_{directory_};
};

TEST_F(Log, HeaderTellsTimeSeverityAndAtLevelOneThePlace) {
    const struct {
        uint32_t kind, level;
        const char *file, *rest;
    } rows[] = {
        {0, 0, "a.cpp", "[INFO]"},
        {1, 2, "a.cpp", "[WARNING]"}, // only 1 is a level with places
        {2, 1, "stream.cpp", "[ERROR][stream.cpp][120 line]"},
        {7, 1, "src\\net\\a.cpp", "[INFO][a.cpp][120 line]"},
        {0, 1, "src/net/a.cpp", "[INFO][src/net/a.cpp][120 line]"},
        {0, 1, "src\\", "[INFO][][120 line]"},
    };
    char buffer[100];
    *log_.make_log_header({7, 1, 0, 2, 3, 4, 5, 6}, buffer, 0, 0, "", 0) = '|';
    EXPECT_THAT(buffer, StartsWith("[0007-01-02 03:04:05][INFO]|"));
    for (const auto& row : rows) {
        char* end = log_.make_log_header(last_second, buffer, row.kind, row.level, row.file, 120);
        EXPECT_EQ(std::string(&buffer[0], end), std::string("[2026-11-30 23:59:59]") + row.rest);
    }
}

TEST_F(Log, EveryCallWritesItsLineAndTextIsNeverAFormat) {
    log_.set_level(1);
    log_.log(2, "n\\a.cpp", 3, "%s %d", "one", 1);
    std::string all = log_.last;
    EXPECT_EQ(log_.text(), "[ERROR][a.cpp][3 line]one 1\r\n");
    log_.set_level(0);
    const auto expect = [&](const std::string& text) {
        EXPECT_EQ(log_.text(), text + "\r\n");
        all += log_.last;
    };
    const std::string hostile = "100%s%n%999999d \r\n[forged] \x1b[31m \xED\x95\x9C\xFF";
    log_.log_info("", 0, "%s", hostile.c_str());
    expect("[INFO]" + hostile);
    log_.log_warning("", 0, "before%cbehind", '\0');
    expect("[WARNING]before");
    log_.log_error("", 0, "before%ls", L"\xE9"); // not to be shown in the C locale
    expect("[ERROR]before");
    const std::string text(40'000, 'x');
    for (const size_t length : {32'768 - 27 - 2, 40'000}) {
        log_.log_info("", 0, "%s", text.substr(0, length).c_str());
        expect("[INFO]" + text.substr(0, 32'768 - 27 - 2));
    }
    log_.set_level(1);
    log_.log_info(text.c_str(), 1, "no room for this");
    expect("[INFO][" + text.substr(0, 32'768 - 27 - 1 - 2));
    EXPECT_EQ(written(), all);
}

TEST_F(Log, EveryDayHasItsFile) {
    const SYSTEMTIME year_later{2027, 12, 3, 1, 0, 0, 0, 0}, back{2027, 1, 5, 1, 0, 0, 0, 0};
    for (const SYSTEMTIME& time : {last_second, next_month, year_later, back, last_second})
        log_.log_file(time, (std::to_string(time.wYear * 100 + time.wMonth) + "\r\n").c_str());
    EXPECT_THAT(files(), ElementsAre("Log202611/log_20261130.log", "Log202612/log_20261201.log",
                                     "Log202701/log_20270101.log", "Log202712/log_20271201.log"));
    EXPECT_EQ(written(), "202611\r\n202611\r\n202612\r\n202701\r\n202712\r\n");
}

TEST_F(Log, OverrideKeepsLinesOutOfTheFile) {
    log_.verdict = -1;
    log_.log_error("", 0, "hidden");
    EXPECT_TRUE(fs::is_empty(directory_.path())) << "not even a directory";
    log_.verdict = 1;
    log_.log_error("", 0, "shown");
    EXPECT_EQ(written(), log_.last);
}

TEST_F(Log, DirectoryDropsOneSeparatorTakesTheNextLineAndIsTheExecutablesForNull) {
    char own[260];
    ASSERT_GT(VELLib::getmodpath(own, sizeof own), 0u);
    EXPECT_EQ(VEL_Log(0).get_log_dir(), own);
    const struct {
        const char *given, *kept;
    } rows[] = {{"/a/b", "/a/b"}, {"/a/b/", "/a/b"}, {"/a/b//", "/a/b/"}, {"/", ""}, {"", ""}};
    for (const auto& row : rows) {
        log_.set_log_dir(row.given);
        EXPECT_EQ(log_.get_log_dir(), row.kept);
    }
    log_.set_log_dir(directory_.path("deep/er//").c_str());
    log_.log_file(last_second, "one\r\n");
    log_.set_log_dir(nullptr);
    const SYSTEMTIME long_ago{1601, 1, 1, 1, 0, 0, 0, 0};
    log_.log_file(long_ago, "two\r\n");
    const fs::path month = fs::path(own) / "Log160101";
    EXPECT_EQ(vel::testing::content_of(month / "log_16010101.log"), "two\r\n");
    fs::remove_all(month);
    EXPECT_THAT(files(), ElementsAre("deep/er/Log202611/log_20261130.log"));
}

TEST_F(Log, WhatIsInTheWayDropsLinesAndAVanishedDirectoryIsMadeAnew) {
    const uint64_t handles = vel::os::open_handle_count();
    directory_.file("Log202611", "a file in the way");
    log_.log_file(last_second, "one\r\n");
    EXPECT_EQ(VELLib::GetErrorCode(), 183u);
    fs::remove(directory_.path("Log202611"));
    fs::create_directories(directory_.path("Log202611/log_20261130.log"));
    log_.log_file(last_second, "two\r\n");
    EXPECT_EQ(VELLib::GetErrorCode(), 5u);
    EXPECT_EQ(vel::os::open_handle_count(), handles);
    for (const char* line : {"three\r\n", "four\r\n"}) { // the second with the deleted file open
        fs::remove_all(directory_.path());
        log_.log_file(last_second, line);
        EXPECT_EQ(written(), line);
    }
}

TEST_F(Log, PieceOfAKilledWriterStaysOnALineOfItsOwn) {
    TestLog other(directory_);
    log_.log_file(last_second, "one\r\n");
    std::ofstream(directory_.path("Log202611/log_20261130.log"), std::ios::app) << "[pie";
    other.log_file(last_second, "ce"); // no line, so that it continues
    log_.log_file(last_second, "two\r\n");
    other.log_file(last_second, "three\r\n");
    EXPECT_EQ(written(), "one\r\n[piece\r\ntwo\r\nthree\r\n");
}

TEST_F(Log, ShortageOfMemoryDropsLinesAndThrowsFromSetLogDirAlone) {
    VELLib::set_allocator(nullptr);
    log_.log_info("", 0, "dropped");
    VELLib::set_allocator(VEL_Std_Allocator::instance());
    VEL_Log quiet(0);
    const std::string path = directory_.path();
    try {
        const vel::testing::FailingAllocations failing(0);
        quiet.set_log_dir(path.c_str());
        ADD_FAILURE() << "no memory, no exception";
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), 8u);
    }
    quiet.set_log_dir(path.c_str());
    int shortages = 0;
    for (; written().empty() && shortages < 100; ++shortages) {
        const vel::testing::FailingAllocations failing(shortages);
        quiet.log_info("", 0, "one");
    }
    EXPECT_GT(shortages, 1);
    EXPECT_THAT(written(), EndsWith("[INFO]one\r\n"));
}

TEST_F(Log, CopiesShareTheFileAndOwnTheirDirectory) {
    const uint64_t handles = vel::os::open_handle_count();
    {
        TestLog log(log_);
        log.log_file(last_second, "a");
        TestLog copy(log);
        EXPECT_EQ(vel::os::open_handle_count(), handles + 1);
        log.set_log_dir(directory_.path("z").c_str());
        log.log_file(last_second, "b");
        copy.log_file(last_second, "c"); // through the share that is left
        copy.log_file(next_month, "d");
        copy = static_cast<const TestLog&>(copy);
        copy.log_file(next_month, "e");
        copy = log;
        EXPECT_EQ(vel::os::open_handle_count(), handles + 1) << "what the target had open is closed";
        copy.log_file(last_second, "f");
    }
    EXPECT_EQ(vel::os::open_handle_count(), handles);
    EXPECT_EQ(written(), "acdebf");
}

} // namespace
